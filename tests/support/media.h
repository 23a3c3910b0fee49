// Real photographs for whole-frame tests, raw I420 frames prepared by scripts/fetch-media.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qimra::test {

// Loads <name>_<w>x<h>.yuv; fails the calling test with a hint when the media has not been fetched.
std::vector<uint8_t> load_i420(const std::string& name, int w, int h);

// Planar U, V planes -> interleaved UV pairs (NV12), luma unchanged.
std::vector<uint8_t> i420_to_nv12(const std::vector<uint8_t>& i420, int w, int h);

// A photograph as the engine takes it: I420, or NV12 when `interleaved`.
std::vector<uint8_t> load_frame(const std::string& name, int w, int h, bool interleaved);

// The w x h window at even (x0, y0) of two sw x sh I420 frames, b blended in by wt / 16 (rounded): a frame
// of a clip that pans and fades.
std::vector<uint8_t> blend_window(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, int sw, int sh, int x0,
                                  int y0, int w, int h, int wt);

}  // namespace qimra::test
