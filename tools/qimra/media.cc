#include "media.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "av_media.h"
#include "error.h"
#include "output_file.h"
#include "raw_yuv.h"
#include "y4m.h"

namespace qimra::tool {

namespace {

const char* const kVideoExtensions[] = {".mp4", ".m4v", ".mkv", ".mov", ".avi", ".webm", ".ts", ".flv"};

MediaKind kind_by_extension(const std::string& path, const char* verb) {
    const std::string ext = extension_of(path);
    if (ext == ".y4m") return MediaKind::y4m;
    if (ext == ".yuv" || layout_named(ext)) return MediaKind::raw;
    if (ext == ".png" || ext == ".jpg" || ext == ".jpeg") return MediaKind::image;
    for (const char* v : kVideoExtensions)
        if (ext == v) return MediaKind::video;
    const std::string known =
        std::string("; qimra ") + verb +
        " .y4m, raw frames (.yuv, .i420, .yv12, .nv12, .nv21), .png, .jpg and video files (.mp4, .mkv, .mov, .avi, .webm, .ts, .m4v, .flv)";
    throw file_error(
        path, (ext.empty() ? std::string("no extension to tell its kind") : "unknown extension '" + ext + "'") + known);
}

FILE* open_for_reading(const std::string& path, long long& size) {
    size = -1;
    if (path == "-") return stdin;
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr) throw file_error(path, std::string("cannot open: ") + strerror(errno));
    struct stat st {};
    if (fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode)) size = st.st_size;
    return f;
}

}  // namespace

std::string extension_of(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    std::string ext = path.substr(dot);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext;
}

std::optional<ColourFormat> layout_named(const std::string& name_or_path) {
    const std::string ext = extension_of(name_or_path);
    const std::string name = ext.empty() ? name_or_path : ext.substr(1);
    for (ColourFormat f : {ColourFormat::i420, ColourFormat::yv12, ColourFormat::nv12, ColourFormat::nv21})
        if (name == format_name(f)) return f;
    return std::nullopt;
}

void check_dimensions(const std::string& file, int width, int height, bool even) {
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    if (width <= 0 || height <= 0) throw file_error(file, "frame size " + size + " is empty");
    if (width > kMaxDimension || height > kMaxDimension)
        throw file_error(file, "absurd frame size " + size + "; qimra takes at most " + std::to_string(kMaxDimension) +
                                   " pixels on a side");
    if (even && (width % 2 != 0 || height % 2 != 0))
        throw file_error(file, "odd dimensions " + size + "; 4:2:0 Y4M and raw frames need an even width and height");
}

MediaKind input_kind(const std::string& path, const MediaOptions& options) {
    // A frame size says the input is raw, whatever its name.
    if (options.size) return MediaKind::raw;
    if (path == "-") return MediaKind::y4m;
    return kind_by_extension(path, "reads");
}

MediaKind output_kind(const std::string& path, const MediaOptions& options) {
    if (path == "-") return options.to == "y4m" ? MediaKind::y4m : MediaKind::raw;
    if (options.raw_output) return MediaKind::raw;
    return kind_by_extension(path, "writes");
}

std::unique_ptr<FrameSource> open_source(const std::string& path, const MediaOptions& options) {
    const MediaKind kind = input_kind(path, options);
    if (path != "-") {
        struct stat st {};
        if (stat(path.c_str(), &st) != 0) throw file_error(path, std::string("cannot open: ") + strerror(errno));
        if (S_ISDIR(st.st_mode)) throw file_error(path, "is a directory, not a file");
    }
    long long size = -1;
    switch (kind) {
        case MediaKind::y4m: {
            FILE* f = open_for_reading(path, size);
            return std::make_unique<Y4mReader>(f, path, size);
        }
        case MediaKind::raw: {
            if (!options.size)
                throw file_error(path,
                                 "raw YUV has no header: give its frame size with --size WIDTHxHEIGHT "
                                 "(and --format if it is not i420)",
                                 kExitUsage);
            check_dimensions(path, options.size->first, options.size->second);
            FILE* f = open_for_reading(path, size);
            const ColourFormat layout = options.raw_format.value_or(layout_named(path).value_or(ColourFormat::i420));
            return std::make_unique<RawReader>(f, path, size, options.size->first, options.size->second, layout,
                                               options.fps.value_or(Rational{25, 1}));
        }
        case MediaKind::image: return std::make_unique<AvSource>(path, true, options.fps);
        case MediaKind::video: return std::make_unique<AvSource>(path, false, std::nullopt);
    }
    return nullptr;
}

std::unique_ptr<FrameSink> open_sink(OutputFile& out, const std::string& path, const MediaOptions& options,
                                     const StreamInfo& info, FrameSource* source) {
    const MediaKind kind = output_kind(path, options);
    if ((kind == MediaKind::y4m || kind == MediaKind::raw) && info.extended())
        throw file_error(path == "-" ? "standard output" : path,
                         "cannot hold the " + std::to_string(info.own_width) + "x" + std::to_string(info.own_height) +
                             " frames of " + (source != nullptr ? source->name() : "the input") +
                             ": 4:2:0 Y4M and raw frames need an even width and height; write a picture or video file");
    switch (kind) {
        case MediaKind::y4m:
            return std::make_unique<Y4mWriter>(out.stream(), info, path == "-" ? "standard output" : path);
        case MediaKind::raw: {
            // The layout: --format, else the one the name says, else the frames' own.
            const ColourFormat layout =
                options.raw_format.value_or(layout_named(path == "-" ? options.to : path).value_or(info.format));
            return std::make_unique<RawWriter>(out.stream(), layout, path == "-" ? "standard output" : path);
        }
        case MediaKind::image: {
            const std::string ext = extension_of(path);
            return std::make_unique<ImageWriter>(out, ext == ".jpg" || ext == ".jpeg", info,
                                                 source != nullptr ? source->name() : "the input");
        }
        case MediaKind::video:
            return std::make_unique<VideoWriter>(out, info, dynamic_cast<AvSource*>(source), options.quiet);
    }
    return nullptr;
}

}  // namespace qimra::tool
