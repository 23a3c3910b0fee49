// YUV4MPEG2 streams: a header line of tags, then frames that each start
// with a FRAME line. The tool takes the 8-bit 4:2:0 variants.
#pragma once

#include <cstdio>
#include <string>

#include "media.h"

namespace qimra::tool {

struct Y4mHeader {
    int width = 0;
    int height = 0;
    Rational frame_rate{25, 1};
    Rational aspect{0, 0};
    // Tags passed on to a Y4M output as they came: interlacing, aspect,
    // chroma siting and X tags.
    std::string kept_tags;
};

// Parses a header line (without its newline); throws naming `file`.
Y4mHeader parse_y4m_header(const std::string& line, const std::string& file);
// The header line (with its newline) of a stream.
std::string format_y4m_header(const StreamInfo& info);

class Y4mReader : public FrameSource {
public:
    // Takes ownership of `in`. `file_size` (-1 when unknown) gives the
    // expected frame count.
    Y4mReader(FILE* in, const std::string& name, long long file_size);
    bool read(Picture& picture) override;

private:
    InputFile in_;
    int64_t frames_read_ = 0;
};

class Y4mWriter : public FrameSink {
public:
    Y4mWriter(FILE* out, const StreamInfo& info, const std::string& name);
    void write(const Picture& picture) override;
    void finish() override;

private:
    FILE* out_;
    std::string name_;
    Picture staging_;
};

}  // namespace qimra::tool
