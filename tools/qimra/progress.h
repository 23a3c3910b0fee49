// A progress line on standard error for video: frames, speed, time left.
#pragma once

#include <chrono>
#include <cstdint>

namespace qimra::tool {

class Progress {
public:
    // `total` is the expected frame count, -1 when unknown.
    Progress(bool enabled, int64_t total);
    void update(int64_t frames_done);
    // Draws the final state and ends the line.
    void finish(int64_t frames_done);

private:
    void draw(int64_t frames_done);

    bool enabled_;
    int64_t total_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_draw_;
    bool drawn_ = false;
};

}  // namespace qimra::tool
