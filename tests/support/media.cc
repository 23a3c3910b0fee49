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
    std::vector<uint8_t> nv12(i420.size());
    const size_t luma = static_cast<size_t>(w) * h;
    const size_t quarter = luma / 4;
    std::copy(i420.begin(), i420.begin() + static_cast<std::ptrdiff_t>(luma), nv12.begin());
    for (size_t i = 0; i < quarter; ++i) {
        nv12[luma + 2 * i] = i420[luma + i];
        nv12[luma + 2 * i + 1] = i420[luma + quarter + i];
    }
    return nv12;
}

}  // namespace qimra::test
