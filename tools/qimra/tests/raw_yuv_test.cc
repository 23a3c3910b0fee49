// Raw frames: the size and layout options, whole-file checks, truncation
// on a stream, and conversion between the four layouts.
#include <gtest/gtest.h>

#include <cstdio>

#include "error.h"
#include "raw_yuv.h"

namespace qimra::tool {
namespace {

FILE* stream_of(const std::vector<uint8_t>& bytes) {
    FILE* f = tmpfile();
    if (!bytes.empty()) fwrite(bytes.data(), 1, bytes.size(), f);
    rewind(f);
    return f;
}

int code_of(const std::function<void()>& fn, std::string* message = nullptr) {
    try {
        fn();
    } catch (const ToolError& e) {
        if (message) *message = e.what();
        return e.code();
    }
    return 0;
}

TEST(RawYuvOptions, SizesAndFormatsAreParsedOrRefused) {
    EXPECT_EQ(parse_size("1920x1080"), std::make_pair(1920, 1080));
    for (const char* bad : {"1920", "x1080", "1920x", "1920x1080p", "-2x4", "0x0", "axb"})
        EXPECT_EQ(code_of([&] { parse_size(bad); }), kExitUsage) << bad;
    EXPECT_EQ(parse_format("i420"), ColourFormat::i420);
    EXPECT_EQ(parse_format("yv12"), ColourFormat::yv12);
    EXPECT_EQ(parse_format("nv12"), ColourFormat::nv12);
    EXPECT_EQ(parse_format("nv21"), ColourFormat::nv21);
    std::string msg;
    EXPECT_EQ(code_of([&] { parse_format("NV12"); }, &msg), kExitUsage);
    EXPECT_NE(msg.find("use i420, yv12, nv12 or nv21"), std::string::npos);
}

TEST(RawYuvReader, AFileMustHoldWholeFrames) {
    const size_t frame = frame_bytes(16, 8);
    std::string msg;
    EXPECT_EQ(code_of(
                  [&] {
                      RawReader(stream_of(std::vector<uint8_t>(frame * 2 + 1)), "a.yuv", frame * 2 + 1, 16, 8,
                                ColourFormat::i420, {25, 1});
                  },
                  &msg),
              kExitError);
    EXPECT_NE(msg.find("a.yuv: 385 bytes is not a whole number of 16x8 i420 frames (192 bytes each)"),
              std::string::npos)
        << msg;
    EXPECT_EQ(code_of(
                  [&] {
                      RawReader(stream_of({}), "a.yuv", 0, 16, 8, ColourFormat::i420, {25, 1});
                  },
                  &msg),
              kExitError);
    EXPECT_NE(msg.find("empty file"), std::string::npos);

    RawReader r(stream_of(std::vector<uint8_t>(frame * 3, 9)), "a.yuv", frame * 3, 16, 8, ColourFormat::nv12, {30, 1});
    EXPECT_EQ(r.info().frame_count, 3);
    EXPECT_EQ(r.info().format, ColourFormat::nv12);
    Picture p;
    int n = 0;
    while (r.read(p)) EXPECT_EQ(p.pts, n++);
    EXPECT_EQ(n, 3);
    EXPECT_TRUE(r.truncation().empty());
}

TEST(RawYuvReader, AStreamEndingInsideAFrameReportsTheTruncation) {
    const size_t frame = frame_bytes(16, 8);
    RawReader r(stream_of(std::vector<uint8_t>(frame * 2 + 50)), "-", -1, 16, 8, ColourFormat::i420, {25, 1});
    Picture p;
    EXPECT_TRUE(r.read(p));
    EXPECT_TRUE(r.read(p));
    EXPECT_FALSE(r.read(p));
    EXPECT_EQ(r.truncation(), "frame 2 is truncated (50 of 192 bytes)");
}

TEST(RawYuvLayouts, ChromaSamplesLandWhereEachLayoutKeepsThem) {
    Picture i420;
    i420.reset(4, 2, ColourFormat::i420);  // 8 luma, 2 U, 2 V
    const uint8_t bytes[] = {0, 1, 2, 3, 4, 5, 6, 7, 10, 11, 20, 21};
    i420.bytes.assign(bytes, bytes + sizeof bytes);
    const std::pair<ColourFormat, std::vector<uint8_t>> expected[] = {
        {ColourFormat::yv12, {20, 21, 10, 11}},
        {ColourFormat::nv12, {10, 20, 11, 21}},
        {ColourFormat::nv21, {20, 10, 21, 11}},
    };
    for (const auto& [format, chroma] : expected) {
        Picture out, back;
        convert_layout(i420, format, out);
        EXPECT_EQ(std::vector<uint8_t>(out.bytes.begin() + 8, out.bytes.end()), chroma) << format_name(format);
        EXPECT_TRUE(std::equal(out.bytes.begin(), out.bytes.begin() + 8, i420.bytes.begin()));
        convert_layout(out, ColourFormat::i420, back);
        EXPECT_EQ(back.bytes, i420.bytes);
    }
}

TEST(RawYuvWriter, FramesAreWrittenInTheRequestedLayout) {
    Picture p;
    p.reset(4, 2, ColourFormat::i420);
    const uint8_t bytes[] = {0, 1, 2, 3, 4, 5, 6, 7, 10, 11, 20, 21};
    p.bytes.assign(bytes, bytes + sizeof bytes);
    FILE* f = tmpfile();
    RawWriter w(f, ColourFormat::nv21, "out.yuv");
    w.write(p);
    w.finish();
    rewind(f);
    std::vector<uint8_t> got(13);
    EXPECT_EQ(fread(got.data(), 1, got.size(), f), 12u);
    got.resize(12);
    EXPECT_EQ(got, (std::vector<uint8_t>{0, 1, 2, 3, 4, 5, 6, 7, 20, 10, 21, 11}));
    fclose(f);
}

}  // namespace
}  // namespace qimra::tool
