// Real photographs for whole-frame tests, prepared by scripts/fetch-media as
// raw I420 frames.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qimra::test {

// Loads <name>_<w>x<h>.yuv (I420: luma, U plane, V plane). Fails the calling
// test with a hint when the media has not been fetched.
std::vector<uint8_t> load_i420(const std::string& name, int w, int h);

// Planar U, V planes -> interleaved UV pairs (NV12), luma unchanged.
std::vector<uint8_t> i420_to_nv12(const std::vector<uint8_t>& i420, int w, int h);

}  // namespace qimra::test
