// The C++ API with random sizes, strides, formats, modes and frame
// sequences. Every plane lives in a buffer of exactly the bytes it is said
// to hold, so any read or write beyond what the caller handed over is
// caught; arguments the API refuses must end in qimra::Error.
//
// Making an engine costs far more than a small frame (its tables, its
// buffers, its worker thread), the library lets one live at a time, and each
// engine leaves its second analysis buffer allocated when it goes (the
// library's design). So one engine is kept across inputs, as the next frames
// of one stream would run: an input goes on with the engine alive, whatever
// kind it names, unless it asks for a fresh one (one input in sixteen) or
// none is alive (the first input, or after a refusal). Every input still
// names an engine (size, mode, format, gamma), so a crash input replayed
// alone runs on an engine of its own kind (fresh, without the frames before
// it).
#include <qimra/qimra.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "bytes.h"

namespace {

using qimra::fuzz::Bytes;

struct Planes {
    std::vector<std::vector<uint8_t>> store;
    qimra::FrameView view;
};

// One plane in its own exactly sized buffer; `short_by` bytes fewer than the
// contract asks for when the fuzzer wants to see the API refuse it.
std::span<uint8_t> plane(Planes& p, ptrdiff_t stride, int rows, int row_bytes, int short_by) {
    long long need = static_cast<long long>(stride) * (rows - 1) + row_bytes - short_by;
    if (need < 1) need = 1;
    p.store.emplace_back(static_cast<size_t>(need));
    return {p.store.back().data(), p.store.back().size()};
}

Planes make_frame(Bytes& b, int w, int h, qimra::ColourFormat f) {
    Planes p;
    p.store.reserve(3);
    const int extra = b.u8() % 40;  // stride beyond the row
    const int short_by = (b.u8() % 16 == 0) ? 1 + b.u8() % 4 : 0;
    const bool planar = qimra::is_planar(f);
    const ptrdiff_t ys = w + extra;
    const ptrdiff_t cs = (planar ? w / 2 : w) + extra / 2;
    p.view.y = {plane(p, ys, h, w, short_by), ys};
    if (planar) {
        p.view.c1 = {plane(p, cs, h / 2, w / 2, 0), cs};
        p.view.c2 = {plane(p, cs, h / 2, w / 2, 0), cs};
    } else {
        p.view.c1 = {plane(p, cs, h / 2, w, 0), cs};
    }
    for (auto& s : p.store) b.fill(s.data(), s.size());
    return p;
}

struct Key {
    int w, h;
    qimra::Mode mode;
    qimra::ColourFormat format;
    float gamma;
};

// Sizes most inputs choose from (few, so that engines are reused): below
// the core's smallest band split and its vector width, at it, the mark
// mode's 64 x 64 square, and widths off the 16-column step.
constexpr int kSizes[][2] = {{2, 2}, {16, 24}, {18, 10}, {32, 24}, {64, 64}, {100, 60}, {48, 36}, {130, 26}};
constexpr float kGammas[] = {0.5f, 1.0f, 0.25f, 2.2f};

// The engine an input names: from the short lists, or (one input in eight)
// any size up to 198 x 158 and any gamma, odd, zero and out-of-range ones
// included for the API to refuse.
Key read_key(Bytes& b) {
    const uint8_t pick = b.u8();
    const auto f = static_cast<qimra::ColourFormat>(b.u8() % 4);
    const auto m = static_cast<qimra::Mode>(b.u8() % 3);
    if (pick < 224) {
        const auto& s = kSizes[pick % 8];
        return {s[0], s[1], m, f, kGammas[(pick / 8) % 4]};
    }
    const int w = 2 * (b.u8() % 100) + (b.u8() % 32 == 0 ? 1 : 0);
    const int h = 2 * (b.u8() % 80);
    return {w, h, m, f, 0.1f + static_cast<float>(b.u8()) / 64.0f};
}

// The engine kept between inputs (at most one lives, as the library allows).
std::optional<qimra::Engine> g_engine;

qimra::Engine& engine_for(const Key& named, bool fresh) {
    if (g_engine && !fresh) return *g_engine;
    g_engine.reset();  // the old one goes first: the library refuses a second
    g_engine.emplace(named.w, named.h, named.gamma, named.mode, named.format);  // empty if refused
    return *g_engine;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes b(data, size);
    const bool fresh = b.u8() % 16 == 0;
    const Key named = read_key(b);
    // One frame mostly: the kept engine makes the inputs one stream.
    const uint8_t fb = b.u8();
    const int frames = fb % 16 == 0 ? 2 + fb / 16 % 3 : 1;
    try {
        qimra::Engine& e = engine_for(named, fresh);
        for (int n = 0; n < frames; ++n) {
            Planes in = make_frame(b, e.width(), e.height(), e.format());
            if (b.u8() % 4 == 0) {
                e.process(in.view);  // in place
            } else {
                Planes out = make_frame(b, e.width(), e.height(), e.format());
                e.process(qimra::ConstFrameView(in.view), out.view);
            }
            (void)e.report();
        }
    } catch (const qimra::Error&) {
    }
    return 0;
}
