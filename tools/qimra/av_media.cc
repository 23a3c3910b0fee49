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
FramePtr new_frame(int format, int width, int height) {
    FramePtr f(av_frame_alloc());
    if (!f) throw std::bad_alloc();
    f->format = format;
    f->width = width;
    f->height = height;
    if (av_frame_get_buffer(f.get(), 0) < 0) throw std::bad_alloc();
    return f;
}

// `fill` writes a frame of buffer_width x buffer_height, of which the top-left
// width x height is encoded (an odd size crops an extended frame back).
std::vector<uint8_t> encode_image(AVCodecID id, AVPixelFormat format, int width, int height, int buffer_width,
                                  int buffer_height, const std::function<void(AVFrame*)>& fill) {
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
    FramePtr frame = new_frame(format, buffer_width, buffer_height);
    fill(frame.get());
    frame->width = width;
    frame->height = height;
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

void scale_into(const Picture& p, AVPixelFormat dst_format, bool dst_full, int width, int height, uint8_t* const dst[4],
                const int dst_linesize[4]) {
    SwsPtr sws(sws_getContext(p.width, p.height, AV_PIX_FMT_YUV420P, width, height, dst_format, kSwsFlags, nullptr,
                              nullptr, nullptr));
    if (!sws) throw ToolError(std::string("cannot convert a picture to ") + av_get_pix_fmt_name(dst_format));
    set_ranges(sws.get(), false, dst_full);
    const uint8_t* src[4];
    int src_linesize[4];
    picture_planes(p, src, src_linesize);
    sws_scale(sws.get(), src, src_linesize, 0, p.height, dst, dst_linesize);
}

// Copies 4:2:0 planes of width x height between two layouts.
void copy_420(const uint8_t* const src[3], const int src_linesize[3], uint8_t* const dst[3], const int dst_linesize[3],
              int width, int height) {
    for (int plane = 0; plane < 3; ++plane) {
        const int rows = plane == 0 ? height : height / 2;
        const int bytes = plane == 0 ? width : width / 2;
        for (int y = 0; y < rows; ++y)
            memcpy(dst[plane] + static_cast<ptrdiff_t>(y) * dst_linesize[plane],
                   src[plane] + static_cast<ptrdiff_t>(y) * src_linesize[plane], bytes);
    }
}

// Pixel formats whose last column can be repeated byte for byte in every
// plane: not bit-packed, and not packed with shared chroma (YUYV).
bool repeatable(int format) {
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
    return d != nullptr && !(d->flags & (AV_PIX_FMT_FLAG_BITSTREAM | AV_PIX_FMT_FLAG_HWACCEL)) &&
           ((d->flags & AV_PIX_FMT_FLAG_PLANAR) || d->log2_chroma_w == 0);
}

// Fills `dst` (the next even size, same format) with `src`, repeating its
// last column and row in each plane. Subsampled chroma of an odd size
// already has as many samples as the even size, so only full planes grow.
void repeat_edges(const AVFrame* src, AVFrame* dst) {
    const auto format = static_cast<AVPixelFormat>(src->format);
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(format);
    for (int p = 0; p < av_pix_fmt_count_planes(format); ++p) {
        const int shift = p == 1 || p == 2 ? d->log2_chroma_h : 0;
        const int rows = AV_CEIL_RSHIFT(src->height, shift), all_rows = AV_CEIL_RSHIFT(dst->height, shift);
        const int bytes = av_image_get_linesize(format, src->width, p);
        const int all_bytes = av_image_get_linesize(format, dst->width, p);
        for (int y = 0; y < all_rows; ++y) {
            uint8_t* line = dst->data[p] + static_cast<ptrdiff_t>(y) * dst->linesize[p];
            if (y >= rows) {
                memcpy(line, line - dst->linesize[p], all_bytes);
                continue;
            }
            memcpy(line, src->data[p] + static_cast<ptrdiff_t>(y) * src->linesize[p], bytes);
            memcpy(line + bytes, line + 2 * bytes - all_bytes, all_bytes - bytes);
        }
    }
    if (d->flags & AV_PIX_FMT_FLAG_PAL) memcpy(dst->data[1], src->data[1], AVPALETTE_SIZE);
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
        throw file_error(
            path, video_index_ == AVERROR_DECODER_NOT_FOUND ? "no decoder for its video" : "holds no picture or video");
    AVStream* st = format_->streams[video_index_];
    if (st->codecpar->width <= 0 || st->codecpar->height <= 0)
        throw file_error(path, "cannot read it: no picture size could be found in it");
    check_dimensions(path, st->codecpar->width, st->codecpar->height, false);

    decoder_ = avcodec_alloc_context3(codec);
    if (decoder_ == nullptr || avcodec_parameters_to_context(decoder_, st->codecpar) < 0)
        throw file_error(path, "cannot set up its decoder");
    decoder_->thread_count = kCodecThreads;
    if ((r = avcodec_open2(decoder_, codec, nullptr)) < 0) throw file_error(path, "cannot decode it: " + av_error(r));
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();

    info_.width = st->codecpar->width;
    info_.height = st->codecpar->height;
    if (info_.width % 2 != 0 || info_.height % 2 != 0) {
        info_.own_width = info_.width;
        info_.own_height = info_.height;
        info_.width += info_.width % 2;
        info_.height += info_.height % 2;
    }
    info_.format = ColourFormat::i420;
    const AVRational sar =
        st->sample_aspect_ratio.num > 0 ? st->sample_aspect_ratio : st->codecpar->sample_aspect_ratio;
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
            info_.frame_count = static_cast<int64_t>(
                static_cast<double>(format_->duration) / AV_TIME_BASE * info_.frame_rate.value() + 0.5);
        }
    }
}

AvSource::~AvSource() { release(); }

void AvSource::release() {
    sws_freeContext(sws_);
    sws_ = nullptr;
    sws_freeContext(wide_sws_);
    wide_sws_ = nullptr;
    av_frame_free(&wide_);
    av_frame_free(&extended_);
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

SwsContext* AvSource::converter(SwsContext* cached, const AVFrame* from, int to_format) {
    SwsContext* s =
        sws_getCachedContext(cached, from->width, from->height, static_cast<AVPixelFormat>(from->format), from->width,
                             from->height, static_cast<AVPixelFormat>(to_format), kSwsFlags, nullptr, nullptr, nullptr);
    if (s == nullptr) {
        const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(from->format));
        throw file_error(name_, std::string("cannot convert its pixel format ") + (name ? name : "?") + " to 4:2:0");
    }
    return s;
}

// An odd frame at the next even size in its own pixel format, so that it
// converts exactly as a picture of that size with the same edge would.
const AVFrame* AvSource::extend(const AVFrame* frame, bool full_range) {
    if (!repeatable(frame->format)) {
        if (!wide_) wide_ = new_frame(AV_PIX_FMT_YUV444P, frame->width, frame->height).release();
        wide_sws_ = converter(wide_sws_, frame, AV_PIX_FMT_YUV444P);
        set_ranges(wide_sws_, full_range, full_range);
        sws_scale(wide_sws_, frame->data, frame->linesize, 0, frame->height, wide_->data, wide_->linesize);
        frame = wide_;
    }
    if (extended_ == nullptr || extended_->format != frame->format) {
        av_frame_free(&extended_);
        extended_ = new_frame(frame->format, info_.width, info_.height).release();
    }
    repeat_edges(frame, extended_);
    return extended_;
}

void AvSource::to_picture(const AVFrame* frame, Picture& picture) {
    const int w = info_.visible_width(), h = info_.visible_height();
    if (frame->width != w || frame->height != h)
        throw file_error(name_, "the frame size changes inside the stream (" + std::to_string(w) + "x" +
                                    std::to_string(h) + " to " + std::to_string(frame->width) + "x" +
                                    std::to_string(frame->height) + "); qimra takes one size per stream");
    const bool full_range = frame->color_range == AVCOL_RANGE_JPEG || frame->format == AV_PIX_FMT_YUVJ420P;
    if (info_.extended()) frame = extend(frame, full_range);
    picture.reset(info_.width, info_.height, ColourFormat::i420);
    uint8_t* dst[4] = {picture.y(), picture.chroma(), picture.chroma() + picture.luma_size() / 4, nullptr};
    const int dst_linesize[4] = {info_.width, info_.width / 2, info_.width / 2, 0};
    if (frame->format == AV_PIX_FMT_YUV420P && !full_range) {
        copy_420(frame->data, frame->linesize, dst, dst_linesize, info_.width, info_.height);
        return;
    }
    sws_ = converter(sws_, frame, AV_PIX_FMT_YUV420P);
    set_ranges(sws_, full_range, false);
    sws_scale(sws_, frame->data, frame->linesize, 0, info_.height, dst, dst_linesize);
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

std::vector<uint8_t> encode_png(const uint8_t* rgb, int width, int height, int row_bytes) {
    const size_t stride = row_bytes > 0 ? static_cast<size_t>(row_bytes) : static_cast<size_t>(width) * 3;
    return encode_image(AV_CODEC_ID_PNG, AV_PIX_FMT_RGB24, width, height, width, height, [&](AVFrame* f) {
        for (int y = 0; y < height; ++y)
            memcpy(f->data[0] + static_cast<ptrdiff_t>(y) * f->linesize[0], rgb + y * stride,
                   static_cast<size_t>(width) * 3);
    });
}

ImageWriter::ImageWriter(OutputFile& out, bool jpeg, const StreamInfo& info, const std::string& input_name)
    : out_(out), jpeg_(jpeg), width_(info.visible_width()), height_(info.visible_height()), input_name_(input_name) {}

void ImageWriter::write(const Picture& picture) {
    if (written_)
        throw file_error(out_.target(), "an image holds one picture, but " + input_name_ +
                                            " has more than one frame; write a video or .y4m instead");
    Picture staging;
    const Picture& p = as_i420(picture, staging);
    std::vector<uint8_t> bytes;
    if (jpeg_) {
        bytes = encode_image(
            AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ420P, width_, height_, p.width, p.height,
            [&](AVFrame* f) { scale_into(p, AV_PIX_FMT_YUVJ420P, true, p.width, p.height, f->data, f->linesize); });
    } else {
        // The whole frame is converted and the picture's own size cut from
        // it, so that an odd picture is exactly the crop of its even frame.
        const std::vector<uint8_t> rgb = picture_to_rgb(p, p.width, p.height);
        bytes = encode_png(rgb.data(), width_, height_, p.width * 3);
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

    auto takes = [&](AVPixelFormat f) {
        if (codec->pix_fmts == nullptr) return f == AV_PIX_FMT_YUV420P;
        for (const AVPixelFormat* p = codec->pix_fmts; *p != AV_PIX_FMT_NONE; ++p)
            if (*p == f) return true;
        return false;
    };
    AVPixelFormat pix = AV_PIX_FMT_YUV420P;
    if (!takes(pix)) pix = avcodec_find_best_pix_fmt_of_list(codec->pix_fmts, AV_PIX_FMT_YUV420P, 0, nullptr);
    // H.264 and HEVC code 4:2:0 in whole chroma samples and cannot hold an
    // odd size; in 4:4:4 they keep every pixel of it.
    const bool whole_chroma = codec->id == AV_CODEC_ID_H264 || codec->id == AV_CODEC_ID_HEVC;
    if (info.extended() && whole_chroma && takes(AV_PIX_FMT_YUV444P)) pix = AV_PIX_FMT_YUV444P;
    if ((r = start_encoder(codec, pix)) < 0)
        throw file_error(name_, std::string("cannot start the ") + codec->name + " encoder: " + av_error(r));

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

    frame_ = new_frame(encoder_->pix_fmt, info.width, info.height).release();
    packet_ = av_packet_alloc();

    if (!(of->flags & AVFMT_NOFILE) && (r = avio_open(&format_->pb, out_.temp_path().c_str(), AVIO_FLAG_WRITE)) < 0)
        throw file_error(name_, "cannot write: " + av_error(r));
    AVDictionary* options = nullptr;
    if (is_mp4_family(of)) av_dict_set(&options, "movflags", "+faststart", 0);
    r = avformat_write_header(format_, &options);
    av_dict_free(&options);
    if (r < 0) throw file_error(name_, "cannot write the container header: " + av_error(r));
}

// Sets up and opens the encoder for one pixel format; an FFmpeg error code.
int VideoWriter::start_encoder(const AVCodec* codec, int pixel_format) {
    const StreamInfo& info = info_;
    const std::string codec_name = codec->name;
    const AVOutputFormat* of = format_->oformat;
    encoder_ = avcodec_alloc_context3(codec);
    if (encoder_ == nullptr) return AVERROR(ENOMEM);
    encoder_->width = info.visible_width();
    encoder_->height = info.visible_height();
    encoder_->pix_fmt = static_cast<AVPixelFormat>(pixel_format);
    encoder_->framerate = {info.frame_rate.num, info.frame_rate.den};
    // The encoder counts in frames: some containers (AVI) and encoders
    // (MPEG-4 part 2) take nothing else; input times are rescaled to it.
    encoder_->time_base = {info.frame_rate.den, info.frame_rate.num};
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
    return avcodec_open2(encoder_, codec, nullptr);
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
    // The frame is filled whole and handed over at the stream's own size,
    // which crops an extended frame back.
    frame_->width = p.width;
    frame_->height = p.height;
    int r = av_frame_make_writable(frame_);
    if (r < 0) throw file_error(name_, "out of memory for a frame: " + av_error(r));
    if (encoder_->pix_fmt == AV_PIX_FMT_YUV420P) {
        const uint8_t* src[4];
        int src_linesize[4];
        picture_planes(p, src, src_linesize);
        copy_420(src, src_linesize, frame_->data, frame_->linesize, p.width, p.height);
    } else {
        scale_into(p, encoder_->pix_fmt, false, p.width, p.height, frame_->data, frame_->linesize);
    }
    frame_->width = encoder_->width;
    frame_->height = encoder_->height;
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
