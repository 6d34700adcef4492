// main.cpp - entry point of the ombrix tool: strict option parsing from each
// command's table, generated help, the progress bar, dispatch.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "cli.h"
#include "image.h"

namespace cli {

std::vector<Command>& commands() {
    static std::vector<Command> c;
    return c;
}
std::vector<InfoSection>& infoSections() {
    static std::vector<InfoSection> s;
    return s;
}
std::vector<DemoSection>& demoSections() {
    static std::vector<DemoSection> s;
    return s;
}

void Report::check(bool ok, const std::string& what) {
    ++checks;
    if (!ok) ++failures;
    std::printf("  [%s] %s\n", ok ? " ok " : "FAIL", what.c_str());
}
void Report::line(const std::string& text) { std::printf("  %s\n", text.c_str()); }

std::string& Report::outDir() {
    static std::string dir;
    return dir;
}
int& Report::written() {
    static int n = 0;
    return n;
}
void Report::save(const std::string& name, const BITMAPRECORD& bm) {
    if (outDir().empty()) return;
    const std::string path = outDir() + "/" + name;
    std::string why;
    const int32_t rc = image::write(path, bm, &why);
    if (rc == KS_SUCCESS) ++written();
    check(rc == KS_SUCCESS, "wrote " + path + (rc == KS_SUCCESS ? "" : ": " + why));
}
void Report::saveBgr(const std::string& name, int32_t width, int32_t height, const uint8_t* bgr) {
    if (outDir().empty()) return;
    BITMAPRECORD bm;
    if (K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, width, height, 24, ORDER_BGR, nullptr, TOP_LEFT,
                       nullptr, 0) != KS_SUCCESS) {
        check(false, "a bitmap for " + name);
        return;
    }
    for (int32_t y = 0; y < height; ++y)
        K_PutBitmapRow(&bm, bgr + size_t(y) * size_t(width) * 3, y, uint32_t(width) * 3);
    save(name, bm);
    K_FreeBitmap(&bm);
}

std::string statusText(int32_t code) {
    wchar_t buf[1024];
    K_GetFriendlyErrorMessage(code, buf, 1024, nullptr);
    std::string out;
    for (const wchar_t* p = buf; *p; ++p) out += char(*p < 128 ? *p : '?');
    return out;
}

// ---------------------------------------------------------------- values

namespace {

bool gQuiet = false;

bool toLong(const std::string& s, long& out) {
    if (s.empty() || std::isspace(static_cast<unsigned char>(s[0]))) return false;
    const bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    errno = 0;
    char* end = nullptr;
    out = std::strtol(s.c_str(), &end, hex ? 16 : 10);
    return errno == 0 && end && *end == 0;
}

std::string rangeText(const Option& o) {
    char b[80];
    std::snprintf(b, sizeof b, "%g..%g", o.min, o.max);
    return b;
}

std::vector<std::string> choicesOf(const Option& o) {
    std::vector<std::string> out;
    std::string c = o.choices ? o.choices : "";
    size_t start = 0;
    for (size_t k; (k = c.find('|', start)) != std::string::npos; start = k + 1) out.push_back(c.substr(start, k - start));
    out.push_back(c.substr(start));
    return out;
}

bool inRange(const Option& o, double v) { return (o.min == 0 && o.max == 0) || (v >= o.min && v <= o.max); }

const Option* find(const Command& c, const std::string& name) {
    for (const Option& o : c.options)
        if (name == o.name) return &o;
    return nullptr;
}

void printHelp(const Command& c, std::FILE* out) {
    std::fprintf(out, "usage: ombrix %s%s%s%s\n  %s\n", c.name, *c.usage ? " " : "", c.usage,
                 c.options.empty() ? " [--quiet]" : " [options]", c.summary);
    if (c.details) std::fprintf(out, "%s\n", c.details);
    std::fprintf(out, "\noptions:\n");
    auto line = [&](const std::string& left, const std::string& help) {
        std::fprintf(out, "  %-22s %s\n", left.c_str(), help.c_str());
    };
    for (const Option& o : c.options) {
        std::string left = o.name;
        if (o.type != Type::Flag) left += std::string(" ") + o.value;
        std::string help = o.help;
        if (o.type == Type::Choice) {
            help += " (";
            const auto ch = choicesOf(o);
            for (size_t i = 0; i < ch.size(); ++i) help += (i ? ", " : "") + ch[i];
            help += ")";
        } else if ((o.type == Type::Int || o.type == Type::Real) && !(o.min == 0 && o.max == 0)) {
            help += " (" + rangeText(o) + ")";
        }
        if (o.repeat) help += "; may be repeated";
        line(left, help);
    }
    line("--quiet", "no progress bar");
    line("--help", "this help");
}

}  // namespace

std::vector<long> parseList(const std::string& v) {
    std::vector<long> out;
    size_t start = 0;
    for (;;) {
        const size_t k = v.find(',', start);
        long x = 0;
        toLong(v.substr(start, k == std::string::npos ? std::string::npos : k - start), x);
        out.push_back(x);
        if (k == std::string::npos) break;
        start = k + 1;
    }
    return out;
}

std::string choiceName(const char* choices, int index) {
    Option o{"", Type::Choice, "", "", 0, 0, choices};
    const auto ch = choicesOf(o);
    return index >= 0 && size_t(index) < ch.size() ? ch[size_t(index)] : "?";
}

bool parseValue(const Option& o, const std::string& v, std::string& error) {
    long x = 0, y = 0;
    switch (o.type) {
        case Type::Flag: error = "takes no value"; return false;
        case Type::Int:
            if (!toLong(v, x)) return error = "'" + v + "' is not a whole number", false;
            if (!inRange(o, double(x))) return error = "'" + v + "' is outside " + rangeText(o), false;
            return true;
        case Type::Real: {
            errno = 0;
            char* end = nullptr;
            const double d = std::strtod(v.c_str(), &end);
            if (v.empty() || !end || *end || errno || !std::isfinite(d))
                return error = "'" + v + "' is not a number", false;
            if (!inRange(o, d)) return error = "'" + v + "' is outside " + rangeText(o), false;
            return true;
        }
        case Type::Choice: {
            const auto ch = choicesOf(o);
            if (std::find(ch.begin(), ch.end(), v) != ch.end()) return true;
            error = "'" + v + "' is not one of " + std::string(o.choices);
            return false;
        }
        case Type::Size:
        case Type::Pair: {
            const char sep = o.type == Type::Size ? 'x' : ',';
            const size_t k = v.find(sep);
            if (k == std::string::npos || !toLong(v.substr(0, k), x) || !toLong(v.substr(k + 1), y))
                return error = "'" + v + "' is not " + (o.type == Type::Size ? "WIDTHxHEIGHT" : "X,Y"), false;
            if (!inRange(o, double(x)) || !inRange(o, double(y)))
                return error = "'" + v + "' is outside " + rangeText(o), false;
            return true;
        }
        case Type::List: {
            size_t count = 0, start = 0;
            for (;;) {
                const size_t k = v.find(',', start);
                if (!toLong(v.substr(start, k == std::string::npos ? std::string::npos : k - start), x))
                    return error = "'" + v + "' is not a list of whole numbers", false;
                ++count;
                if (k == std::string::npos) break;
                start = k + 1;
            }
            if (!inRange(o, double(count)))
                return error = "'" + v + "' has " + std::to_string(count) + " numbers, not " + rangeText(o), false;
            return true;
        }
        case Type::Color:
            if (v.size() != 6 || v.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
                return error = "'" + v + "' is not a colour RRGGBB", false;
            return true;
        case Type::Text:
            if (v.empty()) return error = "needs a non-empty value", false;
            return true;
    }
    return false;
}

bool Call::has(const char* name) const { return raw(name) != nullptr; }
const std::string* Call::raw(const char* name) const {
    for (auto it = given.rbegin(); it != given.rend(); ++it)
        if (!std::strcmp(it->first->name, name)) return &it->second;
    return nullptr;
}
long Call::integer(const char* name, long fallback) const {
    const std::string* v = raw(name);
    long x = fallback;
    if (v && !toLong(*v, x)) x = fallback;
    return x;
}
double Call::real(const char* name, double fallback) const {
    const std::string* v = raw(name);
    return v ? std::strtod(v->c_str(), nullptr) : fallback;
}
int Call::choice(const char* name, int fallback) const {
    for (auto it = given.rbegin(); it != given.rend(); ++it)
        if (!std::strcmp(it->first->name, name)) {
            const auto ch = choicesOf(*it->first);
            return int(std::find(ch.begin(), ch.end(), it->second) - ch.begin());
        }
    return fallback;
}
std::string Call::text(const char* name, const std::string& fallback) const {
    const std::string* v = raw(name);
    return v ? *v : fallback;
}
std::pair<long, long> Call::pair(const char* name, std::pair<long, long> fallback) const {
    const std::string* v = raw(name);
    if (!v) return fallback;
    const size_t k = v->find_first_of("x,");
    long x = 0, y = 0;
    toLong(v->substr(0, k), x);
    toLong(v->substr(k + 1), y);
    return {x, y};
}
uint32_t Call::color(const char* name, uint32_t fallback) const {
    const std::string* v = raw(name);
    return v ? uint32_t(std::strtoul(v->c_str(), nullptr, 16)) : fallback;
}
long Call::intArg(size_t i, long min, long max, const char* what) const {
    long x = 0;
    if (i >= args.size() || !toLong(args[i], x))
        throw UsageError(std::string(what) + ": '" + (i < args.size() ? args[i] : "") + "' is not a whole number");
    if (x < min || x > max)
        throw UsageError(std::string(what) + ": '" + args[i] + "' is outside " + std::to_string(min) + ".." +
                         std::to_string(max));
    return x;
}

bool progressWanted() { return !gQuiet && isatty(STDERR_FILENO); }

}  // namespace cli

namespace {

// The progress bar of long kernel operations, on a terminal only.
int32_t drawProgress(int32_t pct, void*) {
    static int last = -1;
    if (pct == last) return 1;
    last = pct;
    char bar[41];
    const int filled = std::clamp(pct, 0, 100) * 40 / 100;
    for (int i = 0; i < 40; ++i) bar[i] = i < filled ? '#' : '.';
    bar[40] = 0;
    std::fprintf(stderr, "\r[%s] %3d%%%s", bar, pct, pct >= 100 ? "\r\033[K" : "");
    std::fflush(stderr);
    if (pct >= 100) last = -1;
    return 1;
}

void usage(std::FILE* out) {
    std::fprintf(out, "usage: ombrix <command> [arguments] [options]   (ombrix <command> --help for details)\n\n"
                      "commands:\n");
    auto cmds = cli::commands();
    std::sort(cmds.begin(), cmds.end(), [](auto& a, auto& b) { return std::strcmp(a.name, b.name) < 0; });
    for (const auto& c : cmds) std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
}

// Every option of every command, one per line ("command option type"), for
// tests and shell completion.
void listOptions() {
    static const char* const types[] = {"flag", "int", "real", "choice", "size", "pair", "list", "color", "text"};
    for (const auto& c : cli::commands())
        for (const auto& o : c.options) std::printf("%s %s %s\n", c.name, o.name, types[int(o.type)]);
}

int runCommand(const cli::Command& c, const cli::Args& argv) {
    cli::Call call;
    call.command = c.name;
    auto bad = [&](const std::string& what) {
        std::fprintf(stderr, "ombrix %s: %s\n(ombrix %s --help lists the options)\n", c.name, what.c_str(), c.name);
        return 2;
    };
    bool optionsDone = false;
    for (size_t i = 0; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        if (optionsDone || a.size() < 2 || a[0] != '-' || (a[1] != '-' && !std::isalpha(static_cast<unsigned char>(a[1])))) {
            call.args.push_back(a);  // "-5" is a number, not an option
            continue;
        }
        if (a == "--") {
            optionsDone = true;
            continue;
        }
        if (a == "--help" || a == "-h") {
            cli::printHelp(c, stdout);
            return 0;
        }
        if (a == "--quiet" || a == "-q") {
            call.quiet = true;
            continue;
        }
        const size_t eq = a.find('=');
        const std::string name = a.substr(0, eq);
        const cli::Option* o = cli::find(c, name);
        if (!o) return bad("unknown option '" + name + "'");
        std::string value, why;
        if (o->type == cli::Type::Flag) {
            if (eq != std::string::npos) return bad(name + " takes no value");
        } else if (eq != std::string::npos) {
            value = a.substr(eq + 1);
        } else if (i + 1 < argv.size()) {
            value = argv[++i];
        } else {
            return bad(name + " needs a value (" + o->value + ")");
        }
        if (o->type != cli::Type::Flag && !cli::parseValue(*o, value, why)) return bad(name + ": " + why);
        if (!o->repeat && call.has(o->name)) return bad(name + " given twice");
        call.given.emplace_back(o, value);
    }
    if (int(call.args.size()) < c.minArgs || (c.maxArgs >= 0 && int(call.args.size()) > c.maxArgs))
        return bad(call.args.size() < size_t(c.minArgs) ? "missing arguments: " + std::string(c.usage)
                                                        : "too many arguments (usage: " + std::string(c.usage) + ")");
    cli::gQuiet = call.quiet;
    if (cli::progressWanted()) K_SetStatusCallBack(drawProgress, nullptr, nullptr, nullptr);
    try {
        return c.run(call);
    } catch (const cli::UsageError& e) {
        return bad(e.what());
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Line by line when piped, so that a log shows progress as it happens.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc < 2) {
        usage(stderr);
        return 2;
    }
    if (!std::strcmp(argv[1], "help") || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
        if (argc > 2)
            for (const auto& c : cli::commands())
                if (!std::strcmp(c.name, argv[2])) return runCommand(c, {"--help"});
        usage(stdout);
        return 0;
    }
    if (!std::strcmp(argv[1], "--list-options")) {
        listOptions();
        return 0;
    }
    for (const auto& c : cli::commands())
        if (!std::strcmp(c.name, argv[1])) return runCommand(c, cli::Args(argv + 2, argv + argc));
    std::fprintf(stderr, "ombrix: unknown command '%s'\n", argv[1]);
    usage(stderr);
    return 2;
}
