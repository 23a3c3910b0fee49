#include "raw_yuv.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "error.h"

namespace qimra::tool {

std::pair<int, int> parse_size(const std::string& text) {
    const size_t x = text.find('x');
    char* end = nullptr;
    if (x != std::string::npos && x > 0) {
        errno = 0;
        const long w = strtol(text.c_str(), &end, 10);
        if (errno == 0 && end == text.c_str() + x && x + 1 < text.size()) {
            const long h = strtol(text.c_str() + x + 1, &end, 10);
            if (errno == 0 && *end == '\0' && w > 0 && h > 0 && w <= 1000000000 && h <= 1000000000)
                return {static_cast<int>(w), static_cast<int>(h)};
        }
    }
    throw ToolError("--size '" + text + "' is not a frame size; write it as WIDTHxHEIGHT, e.g. 1920x1080", kExitUsage);
}

ColourFormat parse_format(const std::string& text) {
    for (ColourFormat f : {ColourFormat::i420, ColourFormat::yv12, ColourFormat::nv12, ColourFormat::nv21})
        if (text == format_name(f)) return f;
    throw ToolError("--format '" + text + "' is unknown; use i420, yv12, nv12 or nv21", kExitUsage);
}

RawReader::RawReader(FILE* in, const std::string& name, long long file_size, int width, int height, ColourFormat format,
                     Rational frame_rate)
    : in_(in) {
    name_ = name;
    check_dimensions(name_, width, height);
    info_.width = width;
    info_.height = height;
    info_.format = format;
    info_.frame_rate = frame_rate;
    info_.time_base = {frame_rate.den, frame_rate.num};
    if (file_size >= 0) {
        const long long frame = static_cast<long long>(frame_bytes(width, height));
        const std::string what = std::to_string(width) + "x" + std::to_string(height) + " " + format_name(format) +
                                 " frames (" + std::to_string(frame) + " bytes each)";
        if (file_size == 0) throw file_error(name_, "empty file: no " + what);
        if (file_size % frame != 0)
            throw file_error(name_, std::to_string(file_size) + " bytes is not a whole number of " + what +
                                        "; check --size and --format");
        info_.frame_count = file_size / frame;
    }
}

bool RawReader::read(Picture& picture) {
    picture.reset(info_.width, info_.height, info_.format);
    picture.pts = frames_read_;
    const size_t got = fread(picture.bytes.data(), 1, picture.bytes.size(), in_.get());
    if (got == picture.bytes.size()) {
        ++frames_read_;
        return true;
    }
    if (ferror(in_.get())) throw file_error(name_, std::string("read failed: ") + strerror(errno));
    if (got != 0)
        truncation_ = "frame " + std::to_string(frames_read_) + " is truncated (" + std::to_string(got) + " of " +
                      std::to_string(picture.bytes.size()) + " bytes)";
    return false;
}

RawWriter::RawWriter(FILE* out, ColourFormat format, const std::string& name)
    : out_(out), format_(format), name_(name) {}

void RawWriter::write(const Picture& picture) {
    const Picture* p = &picture;
    if (picture.format != format_) {
        convert_layout(picture, format_, staging_);
        p = &staging_;
    }
    if (fwrite(p->bytes.data(), 1, p->bytes.size(), out_) != p->bytes.size())
        throw file_error(name_, std::string("write failed: ") + strerror(errno));
}

void RawWriter::finish() {
    if (fflush(out_) != 0) throw file_error(name_, std::string("write failed: ") + strerror(errno));
}

}  // namespace qimra::tool
