// Errors of the command-line tool: a one-line message that names the file
// and the problem, and the exit code it ends the run with.
#pragma once

#include <stdexcept>
#include <string>

namespace qimra::tool {

enum ExitCode : int {
    kExitOk = 0,
    kExitError = 1,      // bad input or a failure; no output left behind
    kExitUsage = 2,      // the command line itself is wrong
    kExitTruncated = 3,  // the input ended inside a frame; every complete frame was written
};

class ToolError : public std::runtime_error {
public:
    explicit ToolError(const std::string& message, int code = kExitError) : std::runtime_error(message), code_(code) {}
    int code() const { return code_; }

private:
    int code_;
};

// "<file>: <problem>", the form of every message about an input or output.
inline ToolError file_error(const std::string& file, const std::string& problem, int code = kExitError) {
    return ToolError((file == "-" ? std::string("standard input") : file) + ": " + problem, code);
}

}  // namespace qimra::tool
