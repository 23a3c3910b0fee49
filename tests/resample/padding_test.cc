// Border padding in place: mirrored or replicated sides, replicated lines.
#include <gtest/gtest.h>

#include <vector>

#include "qimra/qimra.h"

namespace qimra::test {
namespace {

// A buffer of `lines` lines of `stride` bytes, filled with a sentinel.
struct Padded {
    int stride;
    std::vector<uint8_t> bytes;
    Padded(int s, int lines) : stride(s), bytes(static_cast<size_t>(s) * lines, 0xEE) {}
    std::vector<uint8_t> line(int i) const {
        return std::vector<uint8_t>(bytes.begin() + i * stride, bytes.begin() + (i + 1) * stride);
    }
};

TEST(PaddingReflection, MirrorsAcrossWithoutTheEdgeAndReplicatesDown) {
    Padded buf(7, 6);
    uint8_t* img = buf.bytes.data() + 2 * 7 + 2;
    const uint8_t rows[2][3] = {{10, 20, 30}, {40, 50, 60}};
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x) img[y * 7 + x] = rows[y][x];
    pad_with_reflection(img, 3, 2, 2, 2, 7);
    const std::vector<uint8_t> first = {30, 20, 10, 20, 30, 20, 10};
    const std::vector<uint8_t> last = {60, 50, 40, 50, 60, 50, 40};
    for (int i : {0, 1, 2}) EXPECT_EQ(buf.line(i), first) << "line " << i;
    for (int i : {3, 4, 5}) EXPECT_EQ(buf.line(i), last) << "line " << i;
}

TEST(PaddingReplication, FillsSidesThenCopiesWholeLinesIntoTheCorners) {
    Padded buf(7, 5);  // one byte beyond the right border in every line
    uint8_t* img = buf.bytes.data() + 2 * 7 + 1;
    img[0] = 1, img[1] = 2, img[2] = 3, img[3] = 4;
    pad_with_replication(img, 4, 1, 1, 2, 7);
    // The copied lines carry the untouched trailing byte as well.
    for (int i = 0; i < 5; ++i) EXPECT_EQ(buf.line(i), (std::vector<uint8_t>{1, 1, 2, 3, 4, 4, 0xEE})) << i;
}

TEST(PaddingReplication, ZeroSidePadCopiesLinesOnly) {
    Padded buf(5, 4);
    uint8_t* img = buf.bytes.data() + 5;
    for (int y = 0; y < 2; ++y) img[y * 5] = 7, img[y * 5 + 1] = 8, img[y * 5 + 2] = static_cast<uint8_t>(9 + y);
    pad_with_replication(img, 3, 2, 0, 1, 5);
    EXPECT_EQ(buf.line(0), (std::vector<uint8_t>{7, 8, 9, 0xEE, 0xEE}));
    EXPECT_EQ(buf.line(3), (std::vector<uint8_t>{7, 8, 10, 0xEE, 0xEE}));
}

TEST(PaddingReplication, ZeroLinePadFillsRowEndsOnly) {
    Padded buf(7, 4);
    uint8_t* img = buf.bytes.data() + 7 + 2;
    img[0] = 5, img[1] = 6, img[2] = 7;
    pad_with_replication(img, 3, 1, 2, 0, 7);
    EXPECT_EQ(buf.line(0), std::vector<uint8_t>(7, 0xEE));
    EXPECT_EQ(buf.line(1), (std::vector<uint8_t>{5, 5, 5, 6, 7, 7, 7}));
    EXPECT_EQ(buf.line(2), std::vector<uint8_t>(7, 0xEE));
}

}  // namespace
}  // namespace qimra::test
