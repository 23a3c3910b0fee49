// The Y4M reader and writer: header tags, the 4:2:0 variants, frames,
// truncation and malformed streams.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "error.h"
#include "y4m.h"

namespace qimra::tool {
namespace {

// A stream in a temporary file, rewound for reading.
FILE* stream_of(const std::string& bytes) {
    FILE* f = tmpfile();
    if (!bytes.empty()) fwrite(bytes.data(), 1, bytes.size(), f);
    rewind(f);
    return f;
}

std::string frame_bytes_of(int w, int h, uint8_t base) {
    std::string s(frame_bytes(w, h), '\0');
    for (size_t i = 0; i < s.size(); ++i) s[i] = static_cast<char>(base + i * 7);
    return s;
}

std::string error_of(const std::function<void()>& fn) {
    try {
        fn();
    } catch (const ToolError& e) {
        return e.what();
    }
    return "";
}

TEST(Y4mHeader, TagsAreReadAndKeptForTheOutput) {
    const std::string line = "YUV4MPEG2 W640 H480 F30000:1001 It A4:3 C420mpeg2 XYSCSS=420MPEG2";
    const Y4mHeader h = parse_y4m_header(line, "in.y4m");
    EXPECT_EQ(h.width, 640);
    EXPECT_EQ(h.height, 480);
    EXPECT_EQ(h.frame_rate.num, 30000);
    EXPECT_EQ(h.frame_rate.den, 1001);
    EXPECT_EQ(h.aspect.num, 4);
    EXPECT_EQ(h.aspect.den, 3);

    StreamInfo info;
    info.width = h.width;
    info.height = h.height;
    info.frame_rate = h.frame_rate;
    info.y4m_tags = h.kept_tags;
    EXPECT_EQ(format_y4m_header(info), line + "\n");

    // Without tags of its own a stream is written progressive, 4:2:0 jpeg siting.
    info.y4m_tags.clear();
    EXPECT_EQ(format_y4m_header(info), "YUV4MPEG2 W640 H480 F30000:1001 Ip A0:0 C420jpeg\n");
}

TEST(Y4mHeader, EveryEightBit420VariantIsTaken) {
    for (const char* c : {"C420", "C420jpeg", "C420paldv", "C420mpeg2"})
        EXPECT_NO_THROW(parse_y4m_header(std::string("YUV4MPEG2 W16 H16 ") + c, "x.y4m")) << c;
    EXPECT_NO_THROW(parse_y4m_header("YUV4MPEG2 W16 H16", "x.y4m"));  // 4:2:0 is the default
}

TEST(Y4mHeader, OtherChromaLayoutsAreRefused) {
    for (const char* c : {"C444", "C422", "Cmono", "C420p10", "C444alpha"}) {
        const std::string msg = error_of([&] { parse_y4m_header(std::string("YUV4MPEG2 W16 H16 ") + c, "x.y4m"); });
        EXPECT_NE(msg.find(std::string("x.y4m: unsupported chroma layout ") + c), std::string::npos) << msg;
    }
}

TEST(Y4mHeader, MalformedHeadersAreRefusedWithTheReason) {
    const std::pair<const char*, const char*> cases[] = {
        {"YUV4MPEG W16 H16", "not a Y4M stream"},
        {"YUV4MPEG2 H16", "no W (width) tag"},
        {"YUV4MPEG2 W16", "no H (height) tag"},
        {"YUV4MPEG2 W1x H16", "W tag 'W1x' is not a number"},
        {"YUV4MPEG2 W-4 H16", "width -4 is not a frame size"},
        {"YUV4MPEG2 W16 H16 F25", "frame rate 'F25'"},
        {"YUV4MPEG2 W16 H16 F25:0", "frame rate 'F25:0'"},
        {"YUV4MPEG2 W16 H16 Q9", "unknown tag 'Q9'"},
    };
    for (const auto& [line, reason] : cases) {
        const std::string msg = error_of([&] { parse_y4m_header(line, "bad.y4m"); });
        EXPECT_EQ(msg.rfind("bad.y4m: ", 0), 0u) << msg;
        EXPECT_NE(msg.find(reason), std::string::npos) << line << " -> " << msg;
    }
}

TEST(Y4mReader, FramesComeOutInOrderUntilTheEnd) {
    const std::string a = frame_bytes_of(16, 8, 1), b = frame_bytes_of(16, 8, 2);
    Y4mReader r(stream_of("YUV4MPEG2 W16 H8 F25:1\nFRAME\n" + a + "FRAME Ixyz\n" + b), "in.y4m", -1);
    Picture p;
    ASSERT_TRUE(r.read(p));
    EXPECT_EQ(std::string(p.bytes.begin(), p.bytes.end()), a);
    EXPECT_EQ(p.pts, 0);
    ASSERT_TRUE(r.read(p));  // frame parameters after FRAME are allowed
    EXPECT_EQ(std::string(p.bytes.begin(), p.bytes.end()), b);
    EXPECT_EQ(p.pts, 1);
    EXPECT_FALSE(r.read(p));
    EXPECT_TRUE(r.truncation().empty());
}

TEST(Y4mReader, TheFrameCountFollowsFromTheFileSize) {
    const std::string body =
        "YUV4MPEG2 W16 H8\n" + ("FRAME\n" + frame_bytes_of(16, 8, 0)) + ("FRAME\n" + frame_bytes_of(16, 8, 0));
    Y4mReader r(stream_of(body), "in.y4m", static_cast<long long>(body.size()));
    EXPECT_EQ(r.info().frame_count, 2);
}

TEST(Y4mReader, ATruncatedLastFrameIsReportedAfterTheCompleteOnes) {
    const std::string full = frame_bytes_of(16, 8, 3);
    for (const std::string& tail :
         {std::string("FRAME\n") + full.substr(0, 100), std::string("FRA"), std::string("FRAME")}) {
        Y4mReader r(stream_of("YUV4MPEG2 W16 H8\nFRAME\n" + full + tail), "in.y4m", -1);
        Picture p;
        EXPECT_TRUE(r.read(p));
        EXPECT_FALSE(r.read(p));
        EXPECT_NE(r.truncation().find("frame 1"), std::string::npos) << r.truncation();
    }
}

TEST(Y4mReader, GarbageBetweenFramesIsMalformed) {
    Y4mReader r(stream_of("YUV4MPEG2 W16 H8\nFRAME\n" + frame_bytes_of(16, 8, 0) + "FRAMX\n"), "in.y4m", -1);
    Picture p;
    EXPECT_TRUE(r.read(p));
    const std::string msg = error_of([&] { r.read(p); });
    EXPECT_NE(msg.find("frame 1 does not start with FRAME"), std::string::npos) << msg;
}

TEST(Y4mReader, SizesAreCheckedBeforeAnyFrameIsRead) {
    EXPECT_NE(error_of([] { Y4mReader(stream_of("YUV4MPEG2 W17 H8\n"), "o.y4m", -1); }).find("odd dimensions 17x8"),
              std::string::npos);
    EXPECT_NE(error_of([] {
                  Y4mReader(stream_of("YUV4MPEG2 W99999 H99999\n"), "o.y4m", -1);
              }).find("absurd frame size 99999x99999"),
              std::string::npos);
    EXPECT_NE(error_of([] { Y4mReader(stream_of(""), "o.y4m", -1); }).find("empty input"), std::string::npos);
}

TEST(Y4mWriter, EveryLayoutIsWrittenAsI420AndReadsBack) {
    Picture nv;
    nv.reset(16, 8, ColourFormat::nv21);
    for (size_t i = 0; i < nv.bytes.size(); ++i) nv.bytes[i] = static_cast<uint8_t>(i * 13 + 5);
    StreamInfo info;
    info.width = 16;
    info.height = 8;
    FILE* f = tmpfile();
    {
        Y4mWriter w(f, info, "out.y4m");
        w.write(nv);
        w.finish();
    }
    rewind(f);
    Y4mReader r(f, "out.y4m", -1);
    Picture back;
    ASSERT_TRUE(r.read(back));
    Picture want;
    convert_layout(nv, ColourFormat::i420, want);
    EXPECT_EQ(back.bytes, want.bytes);
    EXPECT_FALSE(r.read(back));
}

}  // namespace
}  // namespace qimra::tool
