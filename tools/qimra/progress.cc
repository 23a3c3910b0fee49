#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace qimra::tool {

namespace {

std::string clock_text(double seconds) {
    const long s = static_cast<long>(seconds + 0.5);
    char text[32];
    if (s >= 3600) snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    return text;
}

}  // namespace

Progress::Progress(bool enabled, int64_t total)
    : enabled_(enabled), total_(total), start_(std::chrono::steady_clock::now()), last_draw_(start_) {}

void Progress::update(int64_t frames_done) {
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (drawn_ && now - last_draw_ < std::chrono::milliseconds(200)) return;
    last_draw_ = now;
    draw(frames_done);
}

void Progress::finish(int64_t frames_done) {
    if (!enabled_ || !drawn_) return;
    draw(frames_done);
    fputc('\n', stderr);
}

void Progress::draw(int64_t frames_done) {
    drawn_ = true;
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const double fps = elapsed > 0.0 ? static_cast<double>(frames_done) / elapsed : 0.0;
    std::string line = "\r";
    if (total_ > 0) {
        constexpr int kBar = 30;
        const int64_t shown = std::min(frames_done, total_);
        const int filled = static_cast<int>(kBar * shown / total_);
        line += "[" + std::string(filled, '#') + std::string(kBar - filled, '-') + "] ";
        line += std::to_string(frames_done) + "/" + std::to_string(total_) + " frames";
    } else {
        line += std::to_string(frames_done) + " frames";
    }
    char speed[48];
    snprintf(speed, sizeof speed, "  %.1f fps", fps);
    line += speed;
    if (total_ > 0 && fps > 0.0 && frames_done < total_)
        line += "  " + clock_text(static_cast<double>(total_ - frames_done) / fps) + " left";
    else
        line += "  " + clock_text(elapsed) + " taken";
    line += "   ";  // clears what a longer previous line left
    fputs(line.c_str(), stderr);
    fflush(stderr);
}

}  // namespace qimra::tool
