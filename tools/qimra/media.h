// Where frames come from and go to. Readers and writers are picked by the
// file's extension; media I/O lives in the tool, never in the library.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "picture.h"

namespace qimra::tool {

class OutputFile;

class FrameSource {
public:
    virtual ~FrameSource() = default;
    const StreamInfo& info() const { return info_; }
    const std::string& name() const { return name_; }
    // The next frame, in info().format; false at the end of the input.
    virtual bool read(Picture& picture) = 0;
    // Once read() has returned false: what was left of a frame the input
    // ended inside, or empty when it ended cleanly.
    const std::string& truncation() const { return truncation_; }

protected:
    StreamInfo info_;
    std::string name_;
    std::string truncation_;
};

class FrameSink {
public:
    virtual ~FrameSink() = default;
    virtual void write(const Picture& picture) = 0;
    // Flushes everything: the output is complete once this returns.
    virtual void finish() = 0;
};

enum class MediaKind { y4m, raw, image, video };

struct MediaOptions {
    std::optional<std::pair<int, int>> size;  // --size WxH: every input is raw frames of that size
    std::optional<ColourFormat> raw_format;   // --format: the raw layout, whatever a name says
    std::optional<Rational> fps;              // frame rate of raw input and stills
    std::string to = "y4m";                   // what "-o -" writes: y4m, yuv or a raw layout
    bool raw_output = false;                  // raw frames whatever the output's name (a folder keeps raw names)
    bool quiet = false;
};

// The extension of a file name, lower case with its dot ("" when none).
std::string extension_of(const std::string& path);
// The raw layout a name stands for ("nv12", "clip.nv12"), if any.
std::optional<ColourFormat> layout_named(const std::string& name_or_path);

// The kind of a file by its extension ("-": standard input or output).
MediaKind input_kind(const std::string& path, const MediaOptions& options);
MediaKind output_kind(const std::string& path, const MediaOptions& options);

std::unique_ptr<FrameSource> open_source(const std::string& path, const MediaOptions& options);
// `source` lends its audio streams to a video output.
std::unique_ptr<FrameSink> open_sink(OutputFile& out, const std::string& path, const MediaOptions& options,
                                     const StreamInfo& info, FrameSource* source);

// Dimensions the tool accepts for a stream; throws naming the file. Raw and
// Y4M 4:2:0 frames must be even; pictures and videos are extended.
void check_dimensions(const std::string& file, int width, int height, bool even = true);

}  // namespace qimra::tool
