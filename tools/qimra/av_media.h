// Still images and video files through FFmpeg's libraries: decoding,
// conversion to 4:2:0, encoding and muxing, with audio copied through.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "media.h"

struct AVCodec;
struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct AVStream;
struct SwsContext;

namespace qimra::tool {

// Sets how much FFmpeg itself reports on standard error.
void set_av_log_level(bool verbose);

class AvSource : public FrameSource {
public:
    AvSource(const std::string& path, bool still, std::optional<Rational> still_rate);
    ~AvSource() override;
    bool read(Picture& picture) override;

    // Audio streams of the input, which a video output copies through.
    std::vector<const AVStream*> audio_streams() const;
    // Called with every audio packet met while frames are read; the handler
    // may take the packet's data.
    void on_audio(std::function<void(AVPacket*)> handler) { audio_handler_ = std::move(handler); }
    // Colour description of the video, carried to an encoded output.
    int colour_primaries() const;
    int colour_transfer() const;
    int colour_space() const;

private:
    void open(const std::string& path, std::optional<Rational> still_rate);
    void release();
    void to_picture(const AVFrame* frame, Picture& picture);
    SwsContext* converter(SwsContext* cached, const AVFrame* from, int to_format);
    const AVFrame* extend(const AVFrame* frame, bool full_range);

    AVFormatContext* format_ = nullptr;
    AVCodecContext* decoder_ = nullptr;
    AVPacket* packet_ = nullptr;
    AVFrame* frame_ = nullptr;
    SwsContext* sws_ = nullptr;
    // An odd size: the frame at the next even size, and the 4:4:4 step for
    // pixel formats that cannot be extended as they are.
    AVFrame* extended_ = nullptr;
    AVFrame* wide_ = nullptr;
    SwsContext* wide_sws_ = nullptr;
    int video_index_ = -1;
    bool draining_ = false;
    bool still_ = false;
    int64_t frames_read_ = 0;
    int64_t last_pts_ = -1;
    std::function<void(AVPacket*)> audio_handler_;
};

// One picture as a .png or .jpg file.
class ImageWriter : public FrameSink {
public:
    ImageWriter(OutputFile& out, bool jpeg, const StreamInfo& info, const std::string& input_name);
    void write(const Picture& picture) override;
    void finish() override;

private:
    OutputFile& out_;
    bool jpeg_;
    int width_, height_;  // the picture's own size
    std::string input_name_;
    bool written_ = false;
};

class VideoWriter : public FrameSink {
public:
    // `audio_from` (may be null) lends its audio streams, copied untouched.
    VideoWriter(OutputFile& out, const StreamInfo& info, AvSource* audio_from, bool quiet);
    ~VideoWriter() override;
    void write(const Picture& picture) override;
    void finish() override;
    // The encoder chosen for the video ("libx264", or a fallback).
    std::string encoder_name() const;

private:
    void open(bool quiet);
    int start_encoder(const AVCodec* codec, int pixel_format);
    void drain();
    void close();

    OutputFile& out_;
    std::string name_;
    StreamInfo info_;
    AVFormatContext* format_ = nullptr;
    AVCodecContext* encoder_ = nullptr;
    AVStream* stream_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    SwsContext* sws_ = nullptr;
    std::vector<int> audio_map_;  // input stream index -> output stream index, -1 when not copied
    std::vector<const AVStream*> audio_in_;
    AvSource* audio_from_ = nullptr;
    int64_t last_pts_ = -1;
    bool finished_ = false;
};

// An RGB picture (3 bytes per pixel, rows of row_bytes, packed when 0) as a
// PNG file's bytes.
std::vector<uint8_t> encode_png(const uint8_t* rgb, int width, int height, int row_bytes = 0);
// A 4:2:0 picture, scaled to width x height, as packed RGB.
std::vector<uint8_t> picture_to_rgb(const Picture& picture, int width, int height);

}  // namespace qimra::tool
