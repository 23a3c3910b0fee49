// Output files are written to a temporary file beside the target and
// renamed over it at the end, so a failed run never leaves a half-written
// file in place of an existing one. "-" is the process's original standard
// output, kept apart from the library's own messages.
#pragma once

#include <cstdio>
#include <string>

namespace qimra::tool {

// Moves the process's standard output aside for data: fd 1 then points to
// standard error, so nothing the library prints can reach the data. Call
// once, before any engine exists, when an output is "-".
void reserve_stdout_for_data();

class OutputFile {
public:
    explicit OutputFile(std::string target);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    const std::string& target() const { return target_; }
    bool is_stdout() const { return target_ == "-"; }
    // The stream to write to (the temporary file, or the reserved standard output).
    FILE* stream();
    // For writers that open the file by name: the temporary file's path.
    const std::string& temp_path();
    // Checks the stream for write errors, then renames the file into place.
    void commit();

private:
    std::string target_;
    std::string temp_;
    FILE* stream_ = nullptr;
    int fd_ = -1;
    bool committed_ = false;
    int interrupt_slot_ = -1;  // see interrupt_cleanup.h
};

// Keeps the library's allocation and log lines off the terminal while an
// engine is created or destroyed (they are shown with --verbose).
class LibraryMessages {
public:
    explicit LibraryMessages(bool show);
    ~LibraryMessages();
    LibraryMessages(const LibraryMessages&) = delete;
    LibraryMessages& operator=(const LibraryMessages&) = delete;

private:
    int saved_out_ = -1;
    int saved_err_ = -1;
};

}  // namespace qimra::tool
