// The command line of the qimra tool.
#pragma once

#include <cstdint>
#include <string>

#include "media.h"

namespace qimra::tool {

struct Options {
    std::string command;  // "enhance", "compare", or "" for the general help
    std::string input;
    std::string output;
    int mode = 2;
    float gamma = 0.5f;
    std::string trace;
    std::string plot;
    int64_t frame = 0;
    MediaOptions media;
    bool verbose = false;
    bool help = false;
    bool version = false;
};

// Throws ToolError with kExitUsage when the command line is wrong.
Options parse_command_line(int argc, const char* const* argv);
// The help of a command ("" for the tool as a whole).
const char* help_text(const std::string& command);

}  // namespace qimra::tool
