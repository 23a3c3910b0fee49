#include "y4m.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "error.h"

namespace qimra::tool {

namespace {

constexpr size_t kMaxHeaderLine = 4096;
constexpr const char* kMagic = "YUV4MPEG2";

// Reads up to and without the next newline; false when the input ends
// before one (what was read is left in `line`).
bool read_line(FILE* in, std::string& line, size_t limit) {
    line.clear();
    for (int c; (c = fgetc(in)) != EOF;) {
        if (c == '\n') return true;
        line.push_back(static_cast<char>(c));
        if (line.size() > limit) return false;
    }
    return false;
}

bool parse_int(const std::string& s, long long& v) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    v = strtoll(s.c_str(), &end, 10);
    return errno == 0 && *end == '\0';
}

bool parse_ratio(const std::string& s, Rational& r) {
    const size_t colon = s.find(':');
    long long n = 0, d = 0;
    if (colon == std::string::npos || !parse_int(s.substr(0, colon), n) || !parse_int(s.substr(colon + 1), d))
        return false;
    if (n < 0 || d < 0 || n > 1000000000 || d > 1000000000) return false;
    r = {static_cast<int>(n), static_cast<int>(d)};
    return true;
}

bool is_420_8bit(const std::string& chroma) {
    return chroma == "420" || chroma == "420jpeg" || chroma == "420paldv" || chroma == "420mpeg2";
}

}  // namespace

Y4mHeader parse_y4m_header(const std::string& line, const std::string& file) {
    std::istringstream tags(line);
    std::string magic;
    tags >> magic;
    if (magic != kMagic) throw file_error(file, "not a Y4M stream (it does not start with YUV4MPEG2)");
    Y4mHeader h;
    bool have_w = false, have_h = false;
    for (std::string tag; tags >> tag;) {
        const char key = tag[0];
        const std::string value = tag.substr(1);
        long long v = 0;
        switch (key) {
            case 'W':
            case 'H':
                if (!parse_int(value, v))
                    throw file_error(
                        file, std::string("malformed Y4M header: ") + key + " tag '" + tag + "' is not a number");
                if (v <= 0 || v > 1000000000)
                    throw file_error(file, std::string("malformed Y4M header: ") + (key == 'W' ? "width " : "height ") +
                                               value + " is not a frame size");
                (key == 'W' ? h.width : h.height) = static_cast<int>(v);
                (key == 'W' ? have_w : have_h) = true;
                break;
            case 'F':
                if (!parse_ratio(value, h.frame_rate) || h.frame_rate.num == 0 || h.frame_rate.den == 0)
                    throw file_error(file, "malformed Y4M header: frame rate '" + tag + "' is not F<num>:<den>");
                break;
            case 'A':
                if (!parse_ratio(value, h.aspect))
                    throw file_error(file, "malformed Y4M header: aspect '" + tag + "' is not A<num>:<den>");
                h.kept_tags += " " + tag;
                break;
            case 'C':
                if (!is_420_8bit(value))
                    throw file_error(file, "unsupported chroma layout C" + value +
                                               "; qimra takes 8-bit 4:2:0 (C420, C420jpeg, C420mpeg2, C420paldv)");
                h.kept_tags += " " + tag;
                break;
            case 'I':
            case 'X': h.kept_tags += " " + tag; break;
            default: throw file_error(file, "malformed Y4M header: unknown tag '" + tag + "'");
        }
    }
    if (!have_w) throw file_error(file, "malformed Y4M header: no W (width) tag");
    if (!have_h) throw file_error(file, "malformed Y4M header: no H (height) tag");
    return h;
}

std::string format_y4m_header(const StreamInfo& info) {
    std::string line = std::string(kMagic) + " W" + std::to_string(info.width) + " H" + std::to_string(info.height) +
                       " F" + std::to_string(info.frame_rate.num) + ":" + std::to_string(info.frame_rate.den);
    if (!info.y4m_tags.empty()) {
        line += info.y4m_tags;
    } else {
        line += " Ip A" + std::to_string(info.aspect.num) + ":" + std::to_string(info.aspect.den) + " C420jpeg";
    }
    return line + "\n";
}

Y4mReader::Y4mReader(FILE* in, const std::string& name, long long file_size) : in_(in) {
    name_ = name;
    std::string line;
    if (!read_line(in_.get(), line, kMaxHeaderLine)) {
        if (line.compare(0, strlen(kMagic), kMagic) != 0 && line.size() >= strlen(kMagic))
            throw file_error(name_, "not a Y4M stream (it does not start with YUV4MPEG2)");
        throw file_error(
            name_, line.empty() ? "empty input: no Y4M header" : "malformed Y4M header: the header line has no end");
    }
    const Y4mHeader h = parse_y4m_header(line, name_);
    check_dimensions(name_, h.width, h.height);
    info_.width = h.width;
    info_.height = h.height;
    info_.format = ColourFormat::i420;
    info_.frame_rate = h.frame_rate;
    info_.time_base = {h.frame_rate.den, h.frame_rate.num};
    info_.aspect = h.aspect;
    info_.y4m_tags = h.kept_tags;
    if (file_size >= 0) {
        const long long frame = static_cast<long long>(frame_bytes(h.width, h.height)) + 6;
        info_.frame_count = (file_size - static_cast<long long>(line.size()) - 1) / frame;
    }
}

bool Y4mReader::read(Picture& picture) {
    std::string line;
    const bool whole = read_line(in_.get(), line, kMaxHeaderLine);
    if (!whole && line.empty() && feof(in_.get())) return false;
    if (ferror(in_.get())) throw file_error(name_, std::string("read failed: ") + strerror(errno));
    if (line.compare(0, 5, "FRAME") != 0 || (line.size() > 5 && line[5] != ' ')) {
        if (!whole && std::string("FRAME").compare(0, line.size(), line) == 0) {
            truncation_ = "the input ends inside the header of frame " + std::to_string(frames_read_);
            return false;
        }
        throw file_error(name_,
                         "malformed Y4M stream: frame " + std::to_string(frames_read_) + " does not start with FRAME");
    }
    if (!whole) {
        truncation_ = "the input ends inside the header of frame " + std::to_string(frames_read_);
        return false;
    }
    picture.reset(info_.width, info_.height, ColourFormat::i420);
    picture.pts = frames_read_;
    const size_t got = fread(picture.bytes.data(), 1, picture.bytes.size(), in_.get());
    if (got != picture.bytes.size()) {
        if (ferror(in_.get())) throw file_error(name_, std::string("read failed: ") + strerror(errno));
        truncation_ = "frame " + std::to_string(frames_read_) + " is truncated (" + std::to_string(got) + " of " +
                      std::to_string(picture.bytes.size()) + " bytes)";
        return false;
    }
    ++frames_read_;
    return true;
}

Y4mWriter::Y4mWriter(FILE* out, const StreamInfo& info, const std::string& name) : out_(out), name_(name) {
    const std::string header = format_y4m_header(info);
    if (fwrite(header.data(), 1, header.size(), out_) != header.size())
        throw file_error(name_, std::string("write failed: ") + strerror(errno));
}

void Y4mWriter::write(const Picture& picture) {
    const Picture* p = &picture;
    if (picture.format != ColourFormat::i420) {
        convert_layout(picture, ColourFormat::i420, staging_);
        p = &staging_;
    }
    static const char kFrame[] = "FRAME\n";
    if (fwrite(kFrame, 1, 6, out_) != 6 || fwrite(p->bytes.data(), 1, p->bytes.size(), out_) != p->bytes.size())
        throw file_error(name_, std::string("write failed: ") + strerror(errno));
}

void Y4mWriter::finish() {
    if (fflush(out_) != 0) throw file_error(name_, std::string("write failed: ") + strerror(errno));
}

}  // namespace qimra::tool
