// The C++ API with random sizes, strides, formats, modes and frame
// sequences. Every plane lives in a buffer of exactly the bytes it is said
// to hold, so any read or write beyond what the caller handed over is
// caught; arguments the API refuses must end in qimra::Error.
#include <qimra/qimra.hpp>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

class Bytes {
public:
    Bytes(const uint8_t* d, size_t n) : d_(d), n_(n) {}
    uint8_t u8() { return n_ ? (--n_, *d_++) : 0; }
    int u16() { return u8() | u8() << 8; }
    void fill(uint8_t* p, size_t n) {
        // Frame content: the remaining input, repeated (zeros when none).
        for (size_t i = 0; i < n; ++i) p[i] = n_ ? d_[i % n_] : static_cast<uint8_t>(i * 31);
    }

private:
    const uint8_t* d_;
    size_t n_;
};

struct Planes {
    std::vector<std::vector<uint8_t>> store;
    qimra::FrameView view;
};

// One plane in its own exactly sized buffer; `slack` bytes fewer than the
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes b(data, size);
    // Sizes mostly small (fast), occasionally odd or zero to be refused.
    int w = 2 * (b.u8() % 100) + (b.u8() % 32 == 0 ? 1 : 0);
    int h = 2 * (b.u8() % 80);
    const auto f = static_cast<qimra::ColourFormat>(b.u8() % 4);
    const auto m = static_cast<qimra::Mode>(b.u8() % 3);
    const float gamma = 0.1f + static_cast<float>(b.u8()) / 64.0f;
    const int frames = 1 + b.u8() % 4;
    try {
        qimra::Engine e(w, h, gamma, m, f);
        for (int n = 0; n < frames; ++n) {
            Planes in = make_frame(b, w, h, f);
            if (b.u8() % 4 == 0) {
                e.process(in.view);  // in place
            } else {
                Planes out = make_frame(b, w, h, f);
                e.process(qimra::ConstFrameView(in.view), out.view);
            }
            (void)e.report();
        }
    } catch (const qimra::Error&) {
    }
    return 0;
}
