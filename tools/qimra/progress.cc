#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace qimra::tool {

namespace {

std::string clock_text(double seconds) {
    const long s = static_cast<long>(seconds + 0.5);
    char text[32];
    if (s >= 3600)
        snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else
        snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    return text;
}

// The line is built by appending to one string: GCC 12 warns of a memcpy
// overlap it cannot rule out wherever a temporary string is prepended to
// ("[" + text, a + b with b's buffer reused).
std::string bar(double share) {
    constexpr int kBar = 30;
    const int filled = static_cast<int>(kBar * std::clamp(share, 0.0, 1.0));
    std::string s = "[";
    s.append(filled, '#');
    s.append(kBar - filled, '-');
    s += "] ";
    return s;
}

}  // namespace

Progress::Progress(bool enabled, int files)
    : enabled_(enabled), files_(files), start_(std::chrono::steady_clock::now()), last_draw_(start_) {}

void Progress::update(const ProgressStatus& status) {
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (drawn_ && now - last_draw_ < std::chrono::milliseconds(200)) return;
    last_draw_ = now;
    draw(status);
}

void Progress::clear() {
    if (!enabled_ || !drawn_) return;
    fprintf(stderr, "\r%*s\r", static_cast<int>(width_), "");
    drawn_ = false;
}

void Progress::finish(const ProgressStatus& status) {
    if (!enabled_ || !drawn_) return;
    draw(status);
    fputc('\n', stderr);
    drawn_ = false;
}

void Progress::draw(const ProgressStatus& s) {
    drawn_ = true;
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const double fps = elapsed > 0.0 ? static_cast<double>(s.frames) / elapsed : 0.0;
    std::string line;
    if (s.share >= 0.0) line += bar(s.share);
    char counts[128];
    if (files_ > 0)
        snprintf(counts, sizeof counts, "%d/%d files  %lld frames", s.files_done, files_,
                 static_cast<long long>(s.frames));
    else if (s.total_frames > 0)
        snprintf(counts, sizeof counts, "%lld/%lld frames", static_cast<long long>(s.frames),
                 static_cast<long long>(s.total_frames));
    else
        snprintf(counts, sizeof counts, "%lld frames", static_cast<long long>(s.frames));
    line += counts;
    char speed[48];
    snprintf(speed, sizeof speed, "  %.1f fps  ", fps);
    line += speed;
    if (s.share > 0.0 && s.share < 1.0) {
        line += clock_text(elapsed * (1.0 - s.share) / s.share);
        line += " left";
    } else {
        line += clock_text(elapsed);
        line += " taken";
    }
    // Pads over what a longer previous line left.
    const size_t length = line.size();
    if (length < width_) line.append(width_ - length, ' ');
    width_ = length;
    fprintf(stderr, "\r%s", line.c_str());
    fflush(stderr);
}

}  // namespace qimra::tool
