// The tool under every instruction-set level this processor has
// (QIMRA_ISA): real photographs in modes 0 and 2 come out byte for byte the
// same at every level, --verbose names the level, and a value the library
// does not know is named with the accepted ones.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace qimra::tool {
namespace {

namespace fs = std::filesystem;

std::string read_file(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct ToolRun {
    int code;
    std::string err;
    std::string out;
};

class ToolIsa : public testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qimra-isa-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        // Four 720p photographs (quarter-size analysis and the upscale on the
        // frame path), dark and bright, as one raw clip.
        std::ofstream clip(dir_ / "in.yuv", std::ios::binary);
        for (const char* name : {"path", "evening", "darkest", "water"}) {
            const fs::path p = fs::path(QIMRA_MEDIA_DIR) / "yuv" / (std::string(name) + "_1280x720.yuv");
            const std::string frame = read_file(p);
            ASSERT_EQ(frame.size(), 1280u * 720 * 3 / 2) << p << " missing: run scripts/fetch-media";
            clip << frame;
        }
    }
    void TearDown() override { fs::remove_all(dir_); }

    ToolRun enhance(const std::string& isa, int mode) const {
        const std::string cmd = "cd " + dir_.string() + " && QIMRA_ISA=" + isa + " " + QIMRA_TOOL_PATH +
                                " enhance in.yuv --size 1280x720 -o out.yuv --quiet --verbose --mode " +
                                std::to_string(mode) + " 2> err.txt";
        const int status = std::system(cmd.c_str());
        ToolRun r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(dir_ / "err.txt"),
                  read_file(dir_ / "out.yuv")};
        fs::remove(dir_ / "out.yuv");
        return r;
    }

    fs::path dir_;
};

bool names_level(const std::string& err, const std::string& level) {
    return err.find("V/qimra: instruction set: " + level + "\n") != std::string::npos;
}

TEST_F(ToolIsa, EveryLevelGivesTheSameBytesAndNamesItself) {
    // An unknown value: named with the accepted ones, then the best level.
    const ToolRun unknown = enhance("sse5", 0);
    ASSERT_EQ(unknown.code, 0) << unknown.err;
    const std::string intro = "QIMRA_ISA=\"sse5\" is not an instruction set (accepted: ";
    const size_t at = unknown.err.find(intro);
    ASSERT_NE(at, std::string::npos) << unknown.err;
    const size_t list_end = unknown.err.find("); using ", at);
    ASSERT_NE(list_end, std::string::npos) << unknown.err;
    const std::string best = unknown.err.substr(list_end + 9, unknown.err.find('\n', list_end) - list_end - 9);
    EXPECT_TRUE(names_level(unknown.err, best)) << unknown.err;

    // The accepted levels from the lowest up to the processor's best.
    std::vector<std::string> levels;
    std::istringstream list(unknown.err.substr(at + intro.size(), list_end - at - intro.size()));
    for (std::string name; std::getline(list >> std::ws, name, ',');) {
        levels.push_back(name);
        if (name == best) break;
    }
    ASSERT_GE(levels.size(), 2u) << "c and at least one vector level";
    ASSERT_EQ(levels.front(), "c");
    ASSERT_EQ(levels.back(), best);

    for (int mode : {0, 2}) {
        std::string first;
        for (const std::string& level : levels) {
            const ToolRun r = enhance(level, mode);
            ASSERT_EQ(r.code, 0) << level << ": " << r.err;
            EXPECT_TRUE(names_level(r.err, level)) << level << ": " << r.err;
            ASSERT_EQ(r.out.size(), 4u * 1280 * 720 * 3 / 2) << level;
            if (first.empty()) first = r.out;
            EXPECT_TRUE(r.out == first) << "mode " << mode << ": " << level << " differs from c";
        }
        if (mode == 0) {
            EXPECT_TRUE(unknown.out == first) << "the unknown value's run differs";
        }
    }
}

}  // namespace
}  // namespace qimra::tool
