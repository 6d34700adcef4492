// cli.h - the ombrix command-line tool: commands and demo sections register
// themselves from their own source files.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "ombrix.h"

namespace cli {

using Args = std::vector<std::string>;

struct Command {
    const char* name;
    const char* usage;    // one line: arguments
    const char* summary;  // one line: what it does
    int (*run)(const Args& args);
};

// A demo section prints its lines through Report and returns false when a
// self-check failed.
struct Report {
    int checks = 0;
    int failures = 0;
    void check(bool ok, const std::string& what);
    void line(const std::string& text);
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
