// Enhances one frame through the C++ layer of an installed qimra.
#include <qimra/qimra.hpp>

#include <cstdio>
#include <vector>

int main() {
    std::vector<uint8_t> frame(qimra::frame_bytes(64, 64), 40);
    qimra::Engine engine(64, 64, 0.5f, qimra::Mode::fixed);
    engine.process(qimra::packed_frame(std::span<uint8_t>(frame), 64, 64, qimra::ColourFormat::i420));
    const qimra::FrameReport& r = engine.report();
    std::printf("consumer: frame %d enhanced %d mid %d\n", r.frame, r.enhanced ? 1 : 0, r.mid);
    return r.enhanced && r.mid == 128 ? 0 : 1;
}
