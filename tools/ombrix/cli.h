// cli.h - the ombrix command-line tool: commands and demo sections register
// themselves from their own source files.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ombrix.h"

namespace cli {

using Args = std::vector<std::string>;

// ---------------------------------------------------------------- options
// Every subcommand declares its options in one table; main.cpp parses them
// strictly (a malformed or unknown option is exit code 2 with a message
// naming it, before any work), prints --help from the table, and adds
// --quiet and --help to every subcommand.
enum class Type {
    Flag,    // no value
    Int,     // decimal (or 0x hex) integer within [min, max]
    Real,    // finite number within [min, max]
    Choice,  // one of `choices` ("a|b|c"); the value is its index
    Size,    // WxH, both within [min, max]
    Pair,    // X,Y, both within [min, max]
    List,    // comma-separated integers, count within [min, max]
    Color,   // RRGGBB (hexadecimal)
    Text,    // any non-empty text (a path, a name)
};
struct Option {
    const char* name;   // "--bits"
    Type type;
    const char* value;  // what the help shows for the value ("N"); unused for flags
    const char* help;
    double min = 0, max = 0;
    const char* choices = nullptr;
    bool repeat = false;  // may be given more than once (kept in order)
};

// A usage error found while running (a bad positional argument): main prints
// it with the subcommand's name and returns 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A parsed command line: positional arguments and the options given, in order.
struct Call {
    const char* command = "";
    Args args;
    std::vector<std::pair<const Option*, std::string>> given;
    bool quiet = false;

    bool has(const char* name) const;
    const std::string* raw(const char* name) const;  // last value given, or null
    long integer(const char* name, long fallback) const;
    double real(const char* name, double fallback) const;
    int choice(const char* name, int fallback) const;  // index into the choices
    std::string text(const char* name, const std::string& fallback) const;
    std::pair<long, long> pair(const char* name, std::pair<long, long> fallback) const;  // Size and Pair
    uint32_t color(const char* name, uint32_t fallback) const;                          // 0xRRGGBB
    // Positional argument i parsed as an integer in [min, max]; UsageError otherwise.
    long intArg(size_t i, long min, long max, const char* what) const;
};
// Parses one option value; false and a message when malformed.
bool parseValue(const Option& o, const std::string& v, std::string& error);
std::vector<long> parseList(const std::string& v);  // of a value parseValue accepted
std::string choiceName(const char* choices, int index);  // "a|b|c", 1 -> "b"

struct Command {
    const char* name;
    const char* usage;    // one line: positional arguments
    const char* summary;  // one line: what it does
    int (*run)(const Call& call);
    std::vector<Option> options = {};
    int minArgs = 0, maxArgs = -1;  // positional arguments (-1: any number)
    const char* details = nullptr;   // more lines of help, if any
};

// True when a progress bar may be drawn (stderr is a terminal, no --quiet).
bool progressWanted();

// A demo section prints its lines through Report and returns false when a
// self-check failed.
struct Report {
    int checks = 0;
    int failures = 0;
    void check(bool ok, const std::string& what);
    void line(const std::string& text);
    // With `ombrix demo --out DIR`: writes a result the section shows as
    // DIR/NAME (the extension picks the format) and says so; otherwise nothing.
    void save(const std::string& name, const BITMAPRECORD& bm);
    // The same for a plain 24-bit BGR picture (rows of width * 3 bytes).
    void saveBgr(const std::string& name, int32_t width, int32_t height, const uint8_t* bgr);
    static std::string& outDir();  // empty unless --out was given
    static int& written();         // files written by save
};
struct DemoSection {
    const char* name;
    int order;  // sections run in ascending order
    bool (*run)(Report& report, const BITMAPRECORD& sample);
};

// A section of `ombrix info`: prints its own lines.
struct InfoSection {
    const char* name;
    int order;
    void (*run)();
};

std::vector<Command>& commands();
std::vector<InfoSection>& infoSections();
std::vector<DemoSection>& demoSections();

struct RegisterCommand {
    explicit RegisterCommand(Command c) { commands().push_back(c); }
};
struct RegisterInfo {
    explicit RegisterInfo(InfoSection s) { infoSections().push_back(s); }
};
struct RegisterDemo {
    explicit RegisterDemo(DemoSection s) { demoSections().push_back(s); }
};

// Text of a status code.
std::string statusText(int32_t code);

}  // namespace cli
