// The Thumb-2 form of blc_scale_y_2x2nn. Each pixel is one look-up in the
// 64 KiB tone-and-gain table, and NEON has no gather, so the work is the
// scalar loop around the look-ups; GCC spends 25 instructions on a 2 x 2
// block, this loop just under 17.
//
// Four blocks (8 columns) per round:
// - the four base samples come in one word; clearing bit 0 of each byte
//   (base values 2k and 2k + 1 share an entry) makes it twice the entry's
//   low index bits, so one UXTAB per block gives the block's own table
//   pointer lut + (b & 0xFE) (in bytes);
// - luma comes in words, four pixels of a row at a time; one AND with a
//   shifted operand extracts a pixel as y << 8, the byte offset of its
//   entry from the block's pointer, which the load then adds;
// - the pixel's output is the entry's low byte (LDRB), its gain the high
//   byte: the top-left pixel of each block loads the whole entry (LDRH);
// - every store post-increments its pointer, so two rounds end with one
//   compare and branch.
// Words are read unaligned, which ARMv7 (Linux and Android) allows for LDR.
// The blocks past the last whole round go through the per-pixel loop.
#include "filters/scale_y.h"
#include "simd/arm.h"

#if QIMRA_ARM_FORMS

namespace qimra {
namespace {

// One row of blocks, as the loop takes it (from r0; base_end is the base
// pointer after the last round, base + 4 * rounds, rounds >= 1).
struct BlockRow {
    const uint8_t* s0;
    const uint8_t* s1;
    uint8_t* d0;
    uint8_t* d1;
    const uint8_t* base;
    uint8_t* gain;
    const uint16_t* lut;
    const uint8_t* base_end;
};

// Registers: r0 s0, r1 s1, r2 d0, r3 d1, r4 base, r5 gain, r6 lut; r8 the
// base word; r9, r7 the table pointers of the two blocks in hand; r10 a luma
// word; r11 a byte offset; r12 a table entry; lr the mask 0xFF00. base_end
// waits on the stack.
#define QIMRA_LUMA_TWO_BLOCKS(ROT_A, ROT_B)                                    \
    "uxtab  r9, r6, r8" ROT_A                                                  \
    "\n\t"                                                                     \
    "uxtab  r7, r6, r8" ROT_B                                                  \
    "\n\t"                                                                     \
    "ldr    r10, [r0], #4\n\t" /* row 0: y0 y1 of block a, y2 y3 of block b */ \
    "and    r11, lr, r10, lsl #8\n\t"                                          \
    "ldrh   r12, [r9, r11]\n\t"                                                \
    "strb   r12, [r2], #1\n\t"                                                 \
    "lsr    r12, r12, #8\n\t"                                                  \
    "strb   r12, [r5], #1\n\t"                                                 \
    "and    r11, r10, #0xFF00\n\t"                                             \
    "ldrb   r12, [r9, r11]\n\t"                                                \
    "strb   r12, [r2], #1\n\t"                                                 \
    "and    r11, lr, r10, lsr #8\n\t"                                          \
    "ldrh   r12, [r7, r11]\n\t"                                                \
    "strb   r12, [r2], #1\n\t"                                                 \
    "lsr    r12, r12, #8\n\t"                                                  \
    "strb   r12, [r5], #1\n\t"                                                 \
    "and    r11, lr, r10, lsr #16\n\t"                                         \
    "ldrb   r12, [r7, r11]\n\t"                                                \
    "strb   r12, [r2], #1\n\t"                                                 \
    "ldr    r10, [r1], #4\n\t" /* row 1 */                                     \
    "and    r11, lr, r10, lsl #8\n\t"                                          \
    "ldrb   r12, [r9, r11]\n\t"                                                \
    "strb   r12, [r3], #1\n\t"                                                 \
    "and    r11, r10, #0xFF00\n\t"                                             \
    "ldrb   r12, [r9, r11]\n\t"                                                \
    "strb   r12, [r3], #1\n\t"                                                 \
    "and    r11, lr, r10, lsr #8\n\t"                                          \
    "ldrb   r12, [r7, r11]\n\t"                                                \
    "strb   r12, [r3], #1\n\t"                                                 \
    "and    r11, lr, r10, lsr #16\n\t"                                         \
    "ldrb   r12, [r7, r11]\n\t"                                                \
    "strb   r12, [r3], #1\n\t"

#define QIMRA_LUMA_FOUR_BLOCKS                                             \
    "ldr    r8, [r4], #4\n\t"                                              \
    "and    r8, r8, #0xFEFEFEFE\n\t" QIMRA_LUMA_TWO_BLOCKS("", ", ror #8") \
        QIMRA_LUMA_TWO_BLOCKS(", ror #16", ", ror #24")

__attribute__((naked, noipa, target("thumb"))) void scale_y_rounds_2x2nn(const BlockRow*) {
    __asm__(
        ".syntax unified\n\t"
        "push   {r4-r11, lr}\n\t"
        "ldm    r0, {r0-r7}\n\t"
        "push   {r7}\n\t"
        "mov    lr, #0xFF00\n\t"
        // Two rounds per compare; an odd count enters at the second.
        "sub    r11, r7, r4\n\t"
        "tst    r11, #4\n\t"
        "bne    2f\n"
        "1:\n\t" QIMRA_LUMA_FOUR_BLOCKS "2:\n\t" QIMRA_LUMA_FOUR_BLOCKS
        "ldr    r11, [sp]\n\t"
        "cmp    r4, r11\n\t"
        "bne    1b\n\t"
        "add    sp, sp, #4\n\t"
        "pop    {r4-r11, pc}\n\t");
}

#undef QIMRA_LUMA_FOUR_BLOCKS
#undef QIMRA_LUMA_TWO_BLOCKS

}  // namespace

void scale_y_2x2nn_arm(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride, const uint8_t* base,
                       uint8_t* gain, int32_t width, int32_t height, const uint16_t* lut) {
    walk_block_rows_2x2nn(src, src_stride, dst, dst_stride, base, gain, width, height,
                          [lut](const uint8_t* s0, const uint8_t* s1, uint8_t* d0, uint8_t* d1, const uint8_t* b,
                                uint8_t* g, int32_t blocks) {
                              const int32_t whole = blocks / 4 * 4;
                              if (whole > 0) {
                                  const BlockRow row{s0, s1, d0, d1, b, g, lut, b + whole};
                                  scale_y_rounds_2x2nn(&row);
                              }
                              scale_blocks_2x2nn(s0, s1, d0, d1, b, g, lut, whole, blocks);
                          });
}

}  // namespace qimra

#endif  // QIMRA_ARM_FORMS
