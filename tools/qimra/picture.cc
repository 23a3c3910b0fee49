#include "picture.h"

#include <cstring>

namespace qimra::tool {

namespace {

// The two chroma components of a frame as (first, second) planes in U, V
// order, whatever the layout: pointer, step between samples.
struct ChromaAccess {
    uint8_t* u;
    uint8_t* v;
    int step;
};

ChromaAccess chroma_of(uint8_t* chroma, size_t quarter, ColourFormat f) {
    switch (f) {
        case ColourFormat::i420: return {chroma, chroma + quarter, 1};
        case ColourFormat::yv12: return {chroma + quarter, chroma, 1};
        case ColourFormat::nv12: return {chroma, chroma + 1, 2};
        case ColourFormat::nv21: return {chroma + 1, chroma, 2};
    }
    return {chroma, chroma + quarter, 1};
}

}  // namespace

void convert_layout(const Picture& in, ColourFormat to, Picture& out) {
    out.reset(in.width, in.height, to);
    out.pts = in.pts;
    if (in.format == to) {
        out.bytes = in.bytes;
        return;
    }
    memcpy(out.y(), in.y(), in.luma_size());
    const size_t quarter = in.luma_size() / 4;
    const ChromaAccess src = chroma_of(const_cast<uint8_t*>(in.chroma()), quarter, in.format);
    const ChromaAccess dst = chroma_of(out.chroma(), quarter, to);
    for (size_t i = 0; i < quarter; ++i) {
        dst.u[i * dst.step] = src.u[i * src.step];
        dst.v[i * dst.step] = src.v[i * src.step];
    }
}

}  // namespace qimra::tool
