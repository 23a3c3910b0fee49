// Raw 4:2:0 frames back to back, with no header: the size and layout come
// from the command line (--size WxH, --format).
#pragma once

#include <cstdio>
#include <string>

#include "media.h"

namespace qimra::tool {

// "1920x1080" -> {1920, 1080}; throws a usage error otherwise.
std::pair<int, int> parse_size(const std::string& text);
// "i420", "yv12", "nv12", "nv21"; throws a usage error otherwise.
ColourFormat parse_format(const std::string& text);

class RawReader : public FrameSource {
public:
    // Takes ownership of `in`. With a known `file_size` the frames must
    // fill the file exactly.
    RawReader(FILE* in, const std::string& name, long long file_size, int width, int height, ColourFormat format,
              Rational frame_rate);
    bool read(Picture& picture) override;

private:
    InputFile in_;
    int64_t frames_read_ = 0;
};

class RawWriter : public FrameSink {
public:
    RawWriter(FILE* out, ColourFormat format, const std::string& name);
    void write(const Picture& picture) override;
    void finish() override;

private:
    FILE* out_;
    ColourFormat format_;
    std::string name_;
    Picture staging_;
};

}  // namespace qimra::tool
