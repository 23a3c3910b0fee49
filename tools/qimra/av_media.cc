#include "av_media.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <cerrno>
#include <cstring>
#include <memory>

#include "error.h"
#include "output_file.h"

namespace qimra::tool {

namespace {

std::string av_error(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

struct CodecContextFree {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameFree {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct SwsFree {
    void operator()(SwsContext* s) const { sws_freeContext(s); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using SwsPtr = std::unique_ptr<SwsContext, SwsFree>;

// Codec threads: as many as FFmpeg likes, except under the thread sanitizer,
// which cannot see the uninstrumented codecs' own synchronisation and
// reports their hand-overs as races.
#if defined(__SANITIZE_THREAD__)
constexpr int kCodecThreads = 1;
#else
constexpr int kCodecThreads = 0;
#endif

constexpr int kSwsFlags = SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT | SWS_FULL_CHR_H_INP;

// The tool's frames are limited-range 4:2:0; pictures (RGB) use the BT.601
// matrix, as still images do.
void set_ranges(SwsContext* s, bool src_full, bool dst_full) {
    const int* bt601 = sws_getCoefficients(SWS_CS_ITU601);
    sws_setColorspaceDetails(s, bt601, src_full ? 1 : 0, bt601, dst_full ? 1 : 0, 0, 1 << 16, 1 << 16);
}

void picture_planes(const Picture& p, const uint8_t* data[4], int linesize[4]) {
    const size_t luma = p.luma_size();
    data[0] = p.y();
    data[1] = p.y() + luma;
    data[2] = p.y() + luma + luma / 4;
    data[3] = nullptr;
    linesize[0] = p.width;
    linesize[1] = linesize[2] = p.width / 2;
    linesize[3] = 0;
}

const Picture& as_i420(const Picture& p, Picture& staging) {
    if (p.format == ColourFormat::i420) return p;
    convert_layout(p, ColourFormat::i420, staging);
    return staging;
}

// Encodes one frame with an image encoder; returns the file's bytes.
std::vector<uint8_t> encode_image(AVCodecID id, AVPixelFormat format, int width, int height,
                                  const std::function<void(AVFrame*)>& fill) {
    const AVCodec* codec = avcodec_find_encoder(id);
    if (codec == nullptr) throw ToolError(std::string("this FFmpeg has no ") + avcodec_get_name(id) + " encoder");
    CodecContextPtr enc(avcodec_alloc_context3(codec));
    enc->width = width;
    enc->height = height;
    enc->pix_fmt = format;
    enc->time_base = {1, 25};
    if (id == AV_CODEC_ID_MJPEG) {
        enc->flags |= AV_CODEC_FLAG_QSCALE;
        enc->global_quality = FF_QP2LAMBDA * 2;
        enc->color_range = AVCOL_RANGE_JPEG;
    }
    int r = avcodec_open2(enc.get(), codec, nullptr);
    if (r < 0) throw ToolError(std::string("cannot start the ") + codec->name + " encoder: " + av_error(r));
    FramePtr frame(av_frame_alloc());
    frame->format = format;
    frame->width = width;
    frame->height = height;
    if ((r = av_frame_get_buffer(frame.get(), 0)) < 0) throw ToolError("out of memory for a picture: " + av_error(r));
    fill(frame.get());
    frame->pts = 0;
    frame->quality = enc->global_quality;
    std::vector<uint8_t> bytes;
    PacketPtr packet(av_packet_alloc());
    if ((r = avcodec_send_frame(enc.get(), frame.get())) < 0 || (r = avcodec_send_frame(enc.get(), nullptr)) < 0)
        throw ToolError(std::string("the ") + codec->name + " encoder failed: " + av_error(r));
    while ((r = avcodec_receive_packet(enc.get(), packet.get())) == 0) {
        bytes.insert(bytes.end(), packet->data, packet->data + packet->size);
        av_packet_unref(packet.get());
    }
    if (r != AVERROR_EOF) throw ToolError(std::string("the ") + codec->name + " encoder failed: " + av_error(r));
    return bytes;
}

void scale_into(const Picture& p, AVPixelFormat dst_format, bool dst_full, int width, int height,
                uint8_t* const dst[4], const int dst_linesize[4]) {
    SwsPtr sws(sws_getContext(p.width, p.height, AV_PIX_FMT_YUV420P, width, height, dst_format, kSwsFlags, nullptr,
                              nullptr, nullptr));
    if (!sws) throw ToolError(std::string("cannot convert a picture to ") + av_get_pix_fmt_name(dst_format));
    set_ranges(sws.get(), false, dst_full);
    const uint8_t* src[4];
    int src_linesize[4];
    picture_planes(p, src, src_linesize);
    sws_scale(sws.get(), src, src_linesize, 0, p.height, dst, dst_linesize);
}

bool is_mp4_family(const AVOutputFormat* of) {
    const std::string n = of->name;
    return n.find("mp4") != std::string::npos || n.find("mov") != std::string::npos;
}

}  // namespace

void set_av_log_level(bool verbose) { av_log_set_level(verbose ? AV_LOG_INFO : AV_LOG_QUIET); }

// ------------------------------------------------------------------ reading

AvSource::AvSource(const std::string& path, bool still, std::optional<Rational> still_rate) : still_(still) {
    name_ = path;
    try {
        open(path, still_rate);
    } catch (...) {
        release();
        throw;
    }
}

void AvSource::open(const std::string& path, std::optional<Rational> still_rate) {
    int r = avformat_open_input(&format_, path.c_str(), nullptr, nullptr);
    if (r < 0) throw file_error(path, "cannot read it: " + av_error(r));
    if ((r = avformat_find_stream_info(format_, nullptr)) < 0) throw file_error(path, "cannot read it: " + av_error(r));
    const AVCodec* codec = nullptr;
    video_index_ = av_find_best_stream(format_, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (video_index_ < 0 || codec == nullptr)
        throw file_error(path, video_index_ == AVERROR_DECODER_NOT_FOUND ? "no decoder for its video"
                                                                         : "holds no picture or video");
    AVStream* st = format_->streams[video_index_];
    if (st->codecpar->width <= 0 || st->codecpar->height <= 0)
        throw file_error(path, "cannot read it: no picture size could be found in it");
    check_dimensions(path, st->codecpar->width, st->codecpar->height);

    decoder_ = avcodec_alloc_context3(codec);
    if (decoder_ == nullptr || avcodec_parameters_to_context(decoder_, st->codecpar) < 0)
        throw file_error(path, "cannot set up its decoder");
    decoder_->thread_count = kCodecThreads;
    if ((r = avcodec_open2(decoder_, codec, nullptr)) < 0) throw file_error(path, "cannot decode it: " + av_error(r));
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();

    info_.width = st->codecpar->width;
    info_.height = st->codecpar->height;
    info_.format = ColourFormat::i420;
    const AVRational sar = st->sample_aspect_ratio.num > 0 ? st->sample_aspect_ratio : st->codecpar->sample_aspect_ratio;
    if (sar.num > 0 && sar.den > 0) info_.aspect = {sar.num, sar.den};
    if (still_) {
        info_.frame_rate = still_rate.value_or(Rational{25, 1});
        info_.time_base = {info_.frame_rate.den, info_.frame_rate.num};
        info_.frame_count = 1;
    } else {
        const AVRational rate = av_guess_frame_rate(format_, st, nullptr);
        info_.frame_rate = rate.num > 0 && rate.den > 0 ? Rational{rate.num, rate.den} : Rational{25, 1};
        info_.time_base = {st->time_base.num, st->time_base.den};
        if (st->nb_frames > 0) {
            info_.frame_count = st->nb_frames;
        } else if (format_->duration > 0) {
            info_.frame_count = static_cast<int64_t>(static_cast<double>(format_->duration) / AV_TIME_BASE *
                                                     info_.frame_rate.value() + 0.5);
        }
    }
}

AvSource::~AvSource() { release(); }

void AvSource::release() {
    sws_freeContext(sws_);
    sws_ = nullptr;
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&decoder_);
    avformat_close_input(&format_);
}

std::vector<const AVStream*> AvSource::audio_streams() const {
    std::vector<const AVStream*> out;
    for (unsigned i = 0; i < format_->nb_streams; ++i)
        if (format_->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) out.push_back(format_->streams[i]);
    return out;
}

int AvSource::colour_primaries() const { return decoder_->color_primaries; }
int AvSource::colour_transfer() const { return decoder_->color_trc; }
int AvSource::colour_space() const { return decoder_->colorspace; }

void AvSource::to_picture(const AVFrame* frame, Picture& picture) {
    if (frame->width != info_.width || frame->height != info_.height)
        throw file_error(name_, "the frame size changes inside the stream (" + std::to_string(info_.width) + "x" +
                                    std::to_string(info_.height) + " to " + std::to_string(frame->width) + "x" +
                                    std::to_string(frame->height) + "); qimra takes one size per stream");
    picture.reset(info_.width, info_.height, ColourFormat::i420);
    const auto format = static_cast<AVPixelFormat>(frame->format);
    const bool full_range = frame->color_range == AVCOL_RANGE_JPEG || format == AV_PIX_FMT_YUVJ420P;
    const int w = info_.width, h = info_.height;
    uint8_t* dst[4] = {picture.y(), picture.chroma(), picture.chroma() + picture.luma_size() / 4, nullptr};
    const int dst_linesize[4] = {w, w / 2, w / 2, 0};
    if (format == AV_PIX_FMT_YUV420P && !full_range) {
        for (int p = 0; p < 3; ++p) {
            const int rows = p == 0 ? h : h / 2;
            for (int y = 0; y < rows; ++y)
                memcpy(dst[p] + static_cast<size_t>(y) * dst_linesize[p],
                       frame->data[p] + static_cast<ptrdiff_t>(y) * frame->linesize[p], dst_linesize[p]);
        }
        return;
    }
    sws_ = sws_getCachedContext(sws_, w, h, format, w, h, AV_PIX_FMT_YUV420P, kSwsFlags, nullptr, nullptr, nullptr);
    if (sws_ == nullptr)
        throw file_error(name_, std::string("cannot convert its pixel format ") +
                                    (av_get_pix_fmt_name(format) ? av_get_pix_fmt_name(format) : "?") + " to 4:2:0");
    set_ranges(sws_, full_range, false);
    sws_scale(sws_, frame->data, frame->linesize, 0, h, dst, dst_linesize);
}

bool AvSource::read(Picture& picture) {
    for (;;) {
        int r = avcodec_receive_frame(decoder_, frame_);
        if (r == 0) {
            to_picture(frame_, picture);
            int64_t pts = still_ ? frames_read_ : frame_->best_effort_timestamp;
            if (pts == AV_NOPTS_VALUE || pts <= last_pts_) pts = last_pts_ + 1;
            last_pts_ = pts;
            picture.pts = pts;
            ++frames_read_;
            av_frame_unref(frame_);
            return true;
        }
        if (r == AVERROR_EOF) return false;
        if (r != AVERROR(EAGAIN))
            throw file_error(name_, "cannot decode frame " + std::to_string(frames_read_) + ": " + av_error(r));
        if (draining_) return false;
        r = av_read_frame(format_, packet_);
        if (r == AVERROR_EOF) {
            avcodec_send_packet(decoder_, nullptr);
            draining_ = true;
            continue;
        }
        if (r < 0) throw file_error(name_, "read failed: " + av_error(r));
        if (packet_->stream_index == video_index_) {
            r = avcodec_send_packet(decoder_, packet_);
            av_packet_unref(packet_);
            if (r < 0 && r != AVERROR(EAGAIN))
                throw file_error(name_, "cannot decode frame " + std::to_string(frames_read_) + ": " + av_error(r));
        } else {
            if (audio_handler_ && format_->streams[packet_->stream_index]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO)
                audio_handler_(packet_);
            av_packet_unref(packet_);
        }
    }
}

// ------------------------------------------------------------------ images

std::vector<uint8_t> picture_to_rgb(const Picture& picture, int width, int height) {
    Picture staging;
    const Picture& p = as_i420(picture, staging);
    std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
    uint8_t* dst[4] = {rgb.data(), nullptr, nullptr, nullptr};
    const int linesize[4] = {width * 3, 0, 0, 0};
    scale_into(p, AV_PIX_FMT_RGB24, true, width, height, dst, linesize);
    return rgb;
}

std::vector<uint8_t> encode_png(const uint8_t* rgb, int width, int height) {
    return encode_image(AV_CODEC_ID_PNG, AV_PIX_FMT_RGB24, width, height, [&](AVFrame* f) {
        for (int y = 0; y < height; ++y)
            memcpy(f->data[0] + static_cast<ptrdiff_t>(y) * f->linesize[0], rgb + static_cast<size_t>(y) * width * 3,
                   static_cast<size_t>(width) * 3);
    });
}

ImageWriter::ImageWriter(OutputFile& out, bool jpeg, const std::string& input_name)
    : out_(out), jpeg_(jpeg), input_name_(input_name) {}

void ImageWriter::write(const Picture& picture) {
    if (written_)
        throw file_error(out_.target(), "an image holds one picture, but " + input_name_ +
                                            " has more than one frame; write a video or .y4m instead");
    Picture staging;
    const Picture& p = as_i420(picture, staging);
    std::vector<uint8_t> bytes;
    if (jpeg_) {
        bytes = encode_image(AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ420P, p.width, p.height,
                             [&](AVFrame* f) { scale_into(p, AV_PIX_FMT_YUVJ420P, true, p.width, p.height, f->data, f->linesize); });
    } else {
        const std::vector<uint8_t> rgb = picture_to_rgb(p, p.width, p.height);
        bytes = encode_png(rgb.data(), p.width, p.height);
    }
    if (fwrite(bytes.data(), 1, bytes.size(), out_.stream()) != bytes.size())
        throw file_error(out_.target(), std::string("write failed: ") + strerror(errno));
    written_ = true;
}

void ImageWriter::finish() {
    if (!written_) throw file_error(out_.target(), "no picture to write");
}

// ------------------------------------------------------------------ video

VideoWriter::VideoWriter(OutputFile& out, const StreamInfo& info, AvSource* audio_from, bool quiet)
    : out_(out), name_(out.target()), info_(info), audio_from_(audio_from) {
    try {
        open(quiet);
    } catch (...) {
        close();
        throw;
    }
}

void VideoWriter::open(bool quiet) {
    const StreamInfo& info = info_;
    const AVOutputFormat* of = av_guess_format(nullptr, name_.c_str(), nullptr);
    if (of == nullptr) throw file_error(name_, "this FFmpeg has no container for its extension");
    int r = avformat_alloc_output_context2(&format_, of, nullptr, out_.temp_path().c_str());
    if (r < 0) throw file_error(name_, "cannot set up the container: " + av_error(r));

    // H.264 through libx264 wherever the container takes it; otherwise the
    // container's own default encoder (MPEG-4 part 2, VP9, ...).
    const AVCodec* codec = nullptr;
    if (avformat_query_codec(of, AV_CODEC_ID_H264, FF_COMPLIANCE_NORMAL) == 1)
        codec = avcodec_find_encoder_by_name("libx264");
    if (codec == nullptr && of->video_codec != AV_CODEC_ID_NONE) codec = avcodec_find_encoder(of->video_codec);
    if (codec == nullptr) throw file_error(name_, "this FFmpeg has no video encoder for the container");

    encoder_ = avcodec_alloc_context3(codec);
    encoder_->width = info.width;
    encoder_->height = info.height;
    AVPixelFormat pix = AV_PIX_FMT_YUV420P;
    if (codec->pix_fmts != nullptr) {
        bool has_420 = false;
        for (const AVPixelFormat* p = codec->pix_fmts; *p != AV_PIX_FMT_NONE; ++p) has_420 |= *p == pix;
        if (!has_420) pix = avcodec_find_best_pix_fmt_of_list(codec->pix_fmts, AV_PIX_FMT_YUV420P, 0, nullptr);
    }
    encoder_->pix_fmt = pix;
    encoder_->framerate = {info.frame_rate.num, info.frame_rate.den};
    // The encoder counts in frames: some containers (AVI) and encoders
    // (MPEG-4 part 2) take nothing else; input times are rescaled to it.
    encoder_->time_base = {info.frame_rate.den, info.frame_rate.num};
    const std::string codec_name = codec->name;
    if (info.aspect.num > 0 && info.aspect.den > 0) encoder_->sample_aspect_ratio = {info.aspect.num, info.aspect.den};
    encoder_->color_range = AVCOL_RANGE_MPEG;
    if (audio_from_ != nullptr) {
        encoder_->color_primaries = static_cast<AVColorPrimaries>(audio_from_->colour_primaries());
        encoder_->color_trc = static_cast<AVColorTransferCharacteristic>(audio_from_->colour_transfer());
        encoder_->colorspace = static_cast<AVColorSpace>(audio_from_->colour_space());
    }
    if (codec_name == "libx264") {
        av_opt_set(encoder_->priv_data, "preset", "fast", 0);
        av_opt_set(encoder_->priv_data, "crf", "18", 0);
    } else if (codec_name.rfind("libvpx", 0) == 0) {
        encoder_->bit_rate = 0;
        av_opt_set(encoder_->priv_data, "crf", "30", 0);
        av_opt_set_int(encoder_->priv_data, "cpu-used", 5, 0);
    } else {
        encoder_->flags |= AV_CODEC_FLAG_QSCALE;
        encoder_->global_quality = FF_QP2LAMBDA * 3;
    }
    if (of->flags & AVFMT_GLOBALHEADER) encoder_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    encoder_->thread_count = kCodecThreads;
    if ((r = avcodec_open2(encoder_, codec, nullptr)) < 0)
        throw file_error(name_, "cannot start the " + codec_name + " encoder: " + av_error(r));

    stream_ = avformat_new_stream(format_, nullptr);
    if (stream_ == nullptr || avcodec_parameters_from_context(stream_->codecpar, encoder_) < 0)
        throw file_error(name_, "cannot add the video stream");
    stream_->time_base = encoder_->time_base;
    stream_->avg_frame_rate = encoder_->framerate;
    stream_->sample_aspect_ratio = encoder_->sample_aspect_ratio;

    if (audio_from_ != nullptr) {
        audio_in_ = audio_from_->audio_streams();
        for (const AVStream* in : audio_in_) {
            if (audio_map_.size() <= static_cast<size_t>(in->index)) audio_map_.resize(in->index + 1, -1);
            if (avformat_query_codec(of, in->codecpar->codec_id, FF_COMPLIANCE_NORMAL) != 1) {
                if (!quiet)
                    fprintf(stderr, "qimra: %s: its %s audio cannot go into this container; it is left out\n",
                            name_.c_str(), avcodec_get_name(in->codecpar->codec_id));
                continue;
            }
            AVStream* o = avformat_new_stream(format_, nullptr);
            if (o == nullptr || avcodec_parameters_copy(o->codecpar, in->codecpar) < 0)
                throw file_error(name_, "cannot add an audio stream");
            o->codecpar->codec_tag = 0;
            o->time_base = in->time_base;
            audio_map_[in->index] = o->index;
        }
        audio_from_->on_audio([this](AVPacket* p) {
            if (p->stream_index < 0 || static_cast<size_t>(p->stream_index) >= audio_map_.size() ||
                audio_map_[p->stream_index] < 0)
                return;
            const AVStream* in = nullptr;
            for (const AVStream* s : audio_in_)
                if (s->index == p->stream_index) in = s;
            AVStream* o = format_->streams[audio_map_[p->stream_index]];
            av_packet_rescale_ts(p, in->time_base, o->time_base);
            p->stream_index = o->index;
            p->pos = -1;
            const int w = av_interleaved_write_frame(format_, p);
            if (w < 0) throw file_error(name_, "cannot write audio: " + av_error(w));
        });
    }

    frame_ = av_frame_alloc();
    frame_->format = pix;
    frame_->width = info.width;
    frame_->height = info.height;
    if ((r = av_frame_get_buffer(frame_, 0)) < 0) throw file_error(name_, "out of memory for a frame: " + av_error(r));
    packet_ = av_packet_alloc();

    if (!(of->flags & AVFMT_NOFILE) && (r = avio_open(&format_->pb, out_.temp_path().c_str(), AVIO_FLAG_WRITE)) < 0)
        throw file_error(name_, "cannot write: " + av_error(r));
    AVDictionary* options = nullptr;
    if (is_mp4_family(of)) av_dict_set(&options, "movflags", "+faststart", 0);
    r = avformat_write_header(format_, &options);
    av_dict_free(&options);
    if (r < 0) throw file_error(name_, "cannot write the container header: " + av_error(r));
}

VideoWriter::~VideoWriter() { close(); }

void VideoWriter::close() {
    if (audio_from_ != nullptr) audio_from_->on_audio(nullptr);
    audio_from_ = nullptr;
    if (format_ != nullptr && format_->pb != nullptr) avio_closep(&format_->pb);
    avformat_free_context(format_);
    format_ = nullptr;
    avcodec_free_context(&encoder_);
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    sws_freeContext(sws_);
    sws_ = nullptr;
}

std::string VideoWriter::encoder_name() const { return encoder_ != nullptr ? encoder_->codec->name : ""; }

void VideoWriter::write(const Picture& picture) {
    Picture staging;
    const Picture& p = as_i420(picture, staging);
    int r = av_frame_make_writable(frame_);
    if (r < 0) throw file_error(name_, "out of memory for a frame: " + av_error(r));
    if (encoder_->pix_fmt == AV_PIX_FMT_YUV420P) {
        const uint8_t* src[4];
        int src_linesize[4];
        picture_planes(p, src, src_linesize);
        for (int plane = 0; plane < 3; ++plane) {
            const int rows = plane == 0 ? p.height : p.height / 2;
            for (int y = 0; y < rows; ++y)
                memcpy(frame_->data[plane] + static_cast<ptrdiff_t>(y) * frame_->linesize[plane],
                       src[plane] + static_cast<size_t>(y) * src_linesize[plane], src_linesize[plane]);
        }
    } else {
        scale_into(p, encoder_->pix_fmt, false, p.width, p.height, frame_->data, frame_->linesize);
    }
    int64_t pts = av_rescale_q(p.pts, {info_.time_base.num, info_.time_base.den}, encoder_->time_base);
    if (pts <= last_pts_) pts = last_pts_ + 1;
    last_pts_ = pts;
    frame_->pts = pts;
    if ((r = avcodec_send_frame(encoder_, frame_)) < 0) throw file_error(name_, "the encoder failed: " + av_error(r));
    drain();
}

void VideoWriter::drain() {
    for (;;) {
        const int r = avcodec_receive_packet(encoder_, packet_);
        if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return;
        if (r < 0) throw file_error(name_, "the encoder failed: " + av_error(r));
        av_packet_rescale_ts(packet_, encoder_->time_base, stream_->time_base);
        packet_->stream_index = stream_->index;
        const int w = av_interleaved_write_frame(format_, packet_);
        if (w < 0) throw file_error(name_, "cannot write video: " + av_error(w));
    }
}

void VideoWriter::finish() {
    int r = avcodec_send_frame(encoder_, nullptr);
    if (r < 0) throw file_error(name_, "the encoder failed: " + av_error(r));
    drain();
    if ((r = av_write_trailer(format_)) < 0) throw file_error(name_, "cannot finish the container: " + av_error(r));
    if (format_->pb != nullptr && (r = avio_closep(&format_->pb)) < 0)
        throw file_error(name_, "write failed: " + av_error(r));
    finished_ = true;
    close();
}

}  // namespace qimra::tool
