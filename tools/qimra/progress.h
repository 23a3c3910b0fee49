// A progress line on standard error: frames, speed and time left for one
// stream, and for a batch also the files done.
#pragma once

#include <chrono>
#include <cstdint>

namespace qimra::tool {

struct ProgressStatus {
    int64_t frames = 0;         // frames done so far
    int64_t total_frames = -1;  // of a single stream, -1 when unknown
    int files_done = 0;         // of a batch
    double share = -1.0;        // share of the whole work done, 0 to 1; -1 when unknown
};

class Progress {
public:
    // `files` is the size of a batch, 0 for a single stream.
    Progress(bool enabled, int files);
    // A line left unfinished (by a failure) is erased.
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    // Redraws at most five times a second.
    void update(const ProgressStatus& status);
    // Erases the line so that a message can be printed; the next update draws it again.
    void clear();
    // Draws the final state and ends the line.
    void finish(const ProgressStatus& status);

private:
    void draw(const ProgressStatus& status);

    bool enabled_;
    int files_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_draw_;
    bool drawn_ = false;
    size_t width_ = 0;  // of the line on the terminal
};

}  // namespace qimra::tool
