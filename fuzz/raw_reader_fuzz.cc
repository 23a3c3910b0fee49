// The tool's raw 4:2:0 reader: a size and layout from the first bytes, then
// the frames.
#include <cstdint>
#include <cstdio>

#include "error.h"
#include "raw_yuv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    const int width = 2 * (1 + data[0] % 64);
    const int height = 2 * (1 + data[1] % 64);
    const auto format = static_cast<qimra::ColourFormat>(data[2] & 3);
    const bool sized = data[2] & 4;
    data += 3;
    size -= 3;
    FILE* in = fmemopen(const_cast<uint8_t*>(data), size, "rb");
    if (in == nullptr) return 0;
    try {
        qimra::tool::RawReader reader(in, "fuzz.yuv", sized ? static_cast<long long>(size) : -1, width, height, format,
                                      qimra::tool::Rational{25, 1});
        qimra::tool::Picture picture;
        for (int n = 0; n < 8 && reader.read(picture); ++n) {
        }
    } catch (const std::exception&) {
    }
    return 0;
}
