#include "support/media.h"

#include <gtest/gtest.h>

#include <fstream>

namespace qimra::test {

std::vector<uint8_t> load_i420(const std::string& name, int w, int h) {
    const std::string path =
        std::string(QIMRA_MEDIA_DIR) + "/yuv/" + name + "_" + std::to_string(w) + "x" + std::to_string(h) + ".yuv";
    const size_t size = static_cast<size_t>(w) * h * 3 / 2;
    std::vector<uint8_t> frame(size);
    std::ifstream in(path, std::ios::binary);
    if (!in.read(reinterpret_cast<char*>(frame.data()), static_cast<std::streamsize>(size))) {
        ADD_FAILURE() << "missing test media " << path << ": run scripts/fetch-media (make test does)";
        frame.assign(size, 128);
    }
    return frame;
}

std::vector<uint8_t> i420_to_nv12(const std::vector<uint8_t>& i420, int w, int h) {
    std::vector<uint8_t> nv12 = i420;
    const size_t luma = static_cast<size_t>(w) * h, quarter = luma / 4;
    for (size_t i = 0; i < 2 * quarter; ++i) nv12[luma + i] = i420[luma + i / 2 + (i % 2) * quarter];
    return nv12;
}

std::vector<uint8_t> load_frame(const std::string& name, int w, int h, bool interleaved) {
    std::vector<uint8_t> f = load_i420(name, w, h);
    return interleaved ? i420_to_nv12(f, w, h) : f;
}

std::vector<uint8_t> blend_window(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, int sw, int sh, int x0,
                                  int y0, int w, int h, int wt) {
    std::vector<uint8_t> f(static_cast<size_t>(w) * h * 3 / 2);
    const size_t sl = static_cast<size_t>(sw) * sh, dl = static_cast<size_t>(w) * h;
    const size_t offsets[3][2] = {{0, 0}, {sl, dl}, {sl * 5 / 4, dl * 5 / 4}};  // Y, U, V in source and window
    for (int p = 0; p < 3; ++p) {
        const size_t d = p == 0 ? 1 : 2, srow = sw / d, drow = w / d;
        for (size_t y = 0; y < h / d; ++y)
            for (size_t x = 0; x < drow; ++x) {
                const size_t s = offsets[p][0] + (y0 / d + y) * srow + x0 / d + x;
                f[offsets[p][1] + y * drow + x] = static_cast<uint8_t>((a[s] * (16 - wt) + b[s] * wt + 8) >> 4);
            }
    }
    return f;
}

}  // namespace qimra::test
