// The before/after picture of `qimra compare`: the frame before and after
// enhancement side by side, and the frame's tone curve drawn beside them.
#pragma once

#include <cstdint>
#include <qimra/qimra.hpp>
#include <string>
#include <vector>

#include "picture.h"

namespace qimra::tool {

// An RGB drawing surface (3 bytes per pixel, rows packed).
struct Canvas {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;

    struct Colour {
        uint8_t r, g, b;
    };

    Canvas(int w, int h, Colour background);
    void fill(int x, int y, int w, int h, Colour c);
    void blit(const std::vector<uint8_t>& src, int w, int h, int x, int y);
    void line(double x0, double y0, double x1, double y1, Colour c, int thickness);
    // Capital letters, digits and a little punctuation in a 5 x 7 font,
    // each dot `scale` pixels wide.
    void text(int x, int y, const std::string& s, Colour c, int scale);
    static int text_width(const std::string& s, int scale);
};

Canvas compose_compare(const Picture& before, const Picture& after, const FrameReport& report);

}  // namespace qimra::tool
