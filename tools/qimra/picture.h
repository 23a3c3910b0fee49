// One 4:2:0 frame held by the tool, packed at its width, and what the tool
// knows about the stream it comes from.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <qimra/qimra.hpp>
#include <string>
#include <vector>

namespace qimra::tool {

struct Rational {
    int num = 0;
    int den = 1;
    double value() const { return den != 0 ? static_cast<double>(num) / den : 0.0; }
};

struct Picture {
    int width = 0;
    int height = 0;
    ColourFormat format = ColourFormat::i420;
    int64_t pts = 0;  // in the stream's time base
    std::vector<uint8_t> bytes;

    void reset(int w, int h, ColourFormat f) {
        width = w;
        height = h;
        format = f;
        bytes.resize(frame_bytes(w, h));
    }
    size_t luma_size() const { return static_cast<size_t>(width) * height; }
    uint8_t* y() { return bytes.data(); }
    const uint8_t* y() const { return bytes.data(); }
    uint8_t* chroma() { return bytes.data() + luma_size(); }
    const uint8_t* chroma() const { return bytes.data() + luma_size(); }
    FrameView view() { return packed_frame(std::span<uint8_t>(bytes), width, height, format); }
    ConstFrameView view() const { return packed_frame(std::span<const uint8_t>(bytes), width, height, format); }
};

// The same frame in another 4:2:0 layout.
void convert_layout(const Picture& in, ColourFormat to, Picture& out);

// An input file owned by its reader; standard input is never closed.
struct FileCloser {
    void operator()(FILE* f) const {
        if (f != nullptr && f != stdin) fclose(f);
    }
};
using InputFile = std::unique_ptr<FILE, FileCloser>;

struct StreamInfo {
    int width = 0;
    int height = 0;
    ColourFormat format = ColourFormat::i420;
    Rational frame_rate{25, 1};
    Rational time_base{1, 25};
    Rational aspect{0, 0};     // sample aspect ratio, 0:0 when unknown
    int64_t frame_count = -1;  // expected frames, -1 when unknown
    std::string y4m_tags;      // interlacing, aspect, chroma and X tags of a Y4M input
    // A picture or video of odd size is worked on at the next even size
    // (width x height), its last column and row repeated, and cropped back
    // to its own size when written; 0 when its size is even.
    int own_width = 0;
    int own_height = 0;
    bool extended() const { return own_width != 0; }
    int visible_width() const { return extended() ? own_width : width; }
    int visible_height() const { return extended() ? own_height : height; }
};

}  // namespace qimra::tool
