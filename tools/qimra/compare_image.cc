#include "compare_image.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "av_media.h"

namespace qimra::tool {

namespace {

struct Glyph {
    char c;
    uint8_t rows[7];  // bit 4 is the leftmost dot
};

constexpr Glyph kFont[] = {
    {'A', {0x0E, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}}, {'B', {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E}},
    {'C', {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}}, {'D', {0x1C, 0x12, 0x11, 0x11, 0x11, 0x12, 0x1C}},
    {'E', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}}, {'F', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10}},
    {'G', {0x0E, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0F}}, {'H', {0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}},
    {'I', {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}}, {'J', {0x07, 0x02, 0x02, 0x02, 0x02, 0x12, 0x0C}},
    {'K', {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}}, {'L', {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F}},
    {'M', {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11}}, {'N', {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11}},
    {'O', {0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}}, {'P', {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10}},
    {'Q', {0x0E, 0x11, 0x11, 0x11, 0x15, 0x12, 0x0D}}, {'R', {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11}},
    {'S', {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E}}, {'T', {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}},
    {'U', {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}}, {'V', {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}},
    {'W', {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0A}}, {'X', {0x11, 0x11, 0x0A, 0x04, 0x0A, 0x11, 0x11}},
    {'Y', {0x11, 0x11, 0x11, 0x0A, 0x04, 0x04, 0x04}}, {'Z', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1F}},
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}}, {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}},
    {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}}, {'(', {0x02, 0x04, 0x08, 0x08, 0x08, 0x04, 0x02}},
    {')', {0x08, 0x04, 0x02, 0x02, 0x02, 0x04, 0x08}}, {'/', {0x00, 0x01, 0x02, 0x04, 0x08, 0x10, 0x00}},
    {'=', {0x00, 0x00, 0x1F, 0x00, 0x1F, 0x00, 0x00}}, {',', {0x00, 0x00, 0x00, 0x00, 0x0C, 0x04, 0x08}},
};

const Glyph* glyph_of(char c) {
    const char u = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const Glyph& g : kFont)
        if (g.c == u) return &g;
    return nullptr;  // a blank
}

constexpr Canvas::Colour kBackground{28, 28, 30};
constexpr Canvas::Colour kLabel{225, 225, 225};
constexpr Canvas::Colour kDim{150, 150, 150};
constexpr Canvas::Colour kPlot{18, 18, 20};
constexpr Canvas::Colour kGrid{58, 58, 62};
constexpr Canvas::Colour kIdentity{110, 110, 115};
constexpr Canvas::Colour kCurve{255, 176, 32};

std::string decimals(double v, int n) {
    char text[32];
    snprintf(text, sizeof text, "%.*f", n, v);
    return text;
}

}  // namespace

Canvas::Canvas(int w, int h, Colour background) : width(w), height(h), rgb(static_cast<size_t>(w) * h * 3) {
    fill(0, 0, w, h, background);
}

void Canvas::fill(int x, int y, int w, int h, Colour c) {
    const int x0 = std::max(x, 0), y0 = std::max(y, 0);
    const int x1 = std::min(x + w, width), y1 = std::min(y + h, height);
    for (int yy = y0; yy < y1; ++yy)
        for (int xx = x0; xx < x1; ++xx) {
            uint8_t* p = &rgb[(static_cast<size_t>(yy) * width + xx) * 3];
            p[0] = c.r;
            p[1] = c.g;
            p[2] = c.b;
        }
}

void Canvas::blit(const std::vector<uint8_t>& src, int w, int h, int x, int y) {
    for (int yy = 0; yy < h; ++yy) {
        if (y + yy < 0 || y + yy >= height) continue;
        for (int xx = 0; xx < w; ++xx) {
            if (x + xx < 0 || x + xx >= width) continue;
            const uint8_t* s = &src[(static_cast<size_t>(yy) * w + xx) * 3];
            uint8_t* d = &rgb[(static_cast<size_t>(y + yy) * width + x + xx) * 3];
            d[0] = s[0];
            d[1] = s[1];
            d[2] = s[2];
        }
    }
}

void Canvas::line(double x0, double y0, double x1, double y1, Colour c, int thickness) {
    const double len = std::max(std::fabs(x1 - x0), std::fabs(y1 - y0));
    const int steps = std::max(1, static_cast<int>(std::ceil(len)));
    for (int i = 0; i <= steps; ++i) {
        const double t = static_cast<double>(i) / steps;
        const int x = static_cast<int>(std::lround(x0 + (x1 - x0) * t)) - thickness / 2;
        const int y = static_cast<int>(std::lround(y0 + (y1 - y0) * t)) - thickness / 2;
        fill(x, y, thickness, thickness, c);
    }
}

void Canvas::text(int x, int y, const std::string& s, Colour c, int scale) {
    for (char ch : s) {
        if (const Glyph* g = glyph_of(ch)) {
            for (int row = 0; row < 7; ++row)
                for (int col = 0; col < 5; ++col)
                    if (g->rows[row] & (0x10 >> col)) fill(x + col * scale, y + row * scale, scale, scale, c);
        }
        x += 6 * scale;
    }
}

int Canvas::text_width(const std::string& s, int scale) { return static_cast<int>(s.size()) * 6 * scale - scale; }

Canvas compose_compare(const Picture& before, const Picture& after, const FrameReport& report) {
    // Panels at most 720 rows high (and at least 256, so the labels fit
    // beside small frames); the curve is a square of the same height.
    const int panel_h = std::clamp(before.height, 256, 720);
    const int panel_w =
        std::max(2, static_cast<int>(std::lround(static_cast<double>(before.width) * panel_h / before.height)));
    const int margin = 16, title = 48, curve = panel_h;
    Canvas canvas(margin * 4 + panel_w * 2 + curve, title + panel_h + margin, kBackground);

    const int x_before = margin, x_after = 2 * margin + panel_w, x_curve = 3 * margin + 2 * panel_w;
    canvas.blit(picture_to_rgb(before, panel_w, panel_h), panel_w, panel_h, x_before, title);
    canvas.blit(picture_to_rgb(after, panel_w, panel_h), panel_w, panel_h, x_after, title);

    const int scale = panel_w >= 400 ? 3 : 2;
    canvas.text(x_before, 14, "BEFORE  FRAME " + std::to_string(report.frame), kLabel, scale);
    canvas.text(x_after, 14, report.enhanced ? "AFTER  ENHANCED" : "AFTER  NOT ENHANCED", kLabel, scale);
    canvas.text(x_curve, 14, "TONE CURVE", kLabel, scale);

    // The curve: input along x, output up y, the identity for reference.
    canvas.fill(x_curve, title, curve, curve, kPlot);
    const double span = curve - 1;
    auto px = [&](double in) { return x_curve + in / 255.0 * span; };
    auto py = [&](double out) { return title + span - out / 255.0 * span; };
    for (int g = 64; g < 256; g += 64) {
        canvas.line(px(g), py(0), px(g), py(255), kGrid, 1);
        canvas.line(px(0), py(g), px(255), py(g), kGrid, 1);
    }
    canvas.line(px(0), py(0), px(255), py(255), kIdentity, 1);
    for (int i = 1; i < 256; ++i)
        canvas.line(px(i - 1), py(report.tone_curve[i - 1]), px(i), py(report.tone_curve[i]), kCurve, 3);
    const int small = 2;
    const std::string stats = "MID " + std::to_string(report.mid) + "  GAMMA " + decimals(report.gamma, 2) + "  TOP " +
                              std::to_string(report.top_level);
    canvas.text(x_curve + 10, title + 10, stats, kLabel, small);
    canvas.text(x_curve + curve - Canvas::text_width("IN", small) - 10, title + curve - 24, "IN", kDim, small);
    canvas.text(x_curve + 10, title + 34, "OUT", kDim, small);
    return canvas;
}

}  // namespace qimra::tool
