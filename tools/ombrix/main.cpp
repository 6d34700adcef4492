// main.cpp - entry point of the ombrix tool: dispatches to registered commands.
#include <algorithm>
#include <cstring>

#include "cli.h"

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

std::string statusText(int32_t code) {
    wchar_t buf[1024];
    K_GetFriendlyErrorMessage(code, buf, 1024, nullptr);
    std::string out;
    for (const wchar_t* p = buf; *p; ++p) out += char(*p < 128 ? *p : '?');
    return out;
}

}  // namespace cli

static void usage() {
    std::printf("usage: ombrix <command> [arguments]\n\ncommands:\n");
    auto cmds = cli::commands();
    std::sort(cmds.begin(), cmds.end(), [](auto& a, auto& b) { return std::strcmp(a.name, b.name) < 0; });
    for (const auto& c : cmds) std::printf("  %-10s %-34s %s\n", c.name, c.usage, c.summary);
}

int main(int argc, char** argv) {
    if (argc < 2 || !std::strcmp(argv[1], "help") || !std::strcmp(argv[1], "--help")) {
        usage();
        return argc < 2 ? 2 : 0;
    }
    for (const auto& c : cli::commands()) {
        if (!std::strcmp(c.name, argv[1])) return c.run(cli::Args(argv + 2, argv + argc));
    }
    std::fprintf(stderr, "ombrix: unknown command '%s'\n", argv[1]);
    usage();
    return 2;
}
