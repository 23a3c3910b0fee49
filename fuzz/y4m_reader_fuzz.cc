// The tool's Y4M reader on arbitrary bytes: every stream either reads as
// frames or ends in the tool's own error, never beyond a buffer.
#include <cstdint>
#include <cstdio>

#include "error.h"
#include "y4m.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    // The first byte says whether the reader knows the file's size.
    const bool sized = data[0] & 1;
    ++data;
    --size;
    FILE* in = fmemopen(const_cast<uint8_t*>(data), size, "rb");
    if (in == nullptr) return 0;  // fmemopen refuses an empty buffer
    try {
        qimra::tool::Y4mReader reader(in, "fuzz.y4m", sized ? static_cast<long long>(size) : -1);
        qimra::tool::Picture picture;
        for (int n = 0; n < 8 && reader.read(picture); ++n) {
        }
    } catch (const std::exception&) {
    }
    return 0;
}
