// The command line of the qimra tool.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "media.h"

namespace qimra::tool {

struct Options {
    std::string command;  // "enhance", "compare", or "" for the general help
    std::string input;    // the first input
    std::vector<std::string> inputs;
    std::string output;
    // Enhance into a folder (several inputs, or -o naming a folder): each
    // result under its input's own name, `jobs` inputs at a time.
    bool into_folder = false;
    bool to_given = false;
    int jobs = 0;  // 0: chosen from the cores
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
