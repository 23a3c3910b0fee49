// The exported image functions, each driven with random sizes and data that
// meet its stated preconditions, in buffers of exactly the size its
// contract names (each buffer a separate allocation, so the address
// sanitizer catches any access beyond it).
#include <qimra/qimra.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "bytes.h"

namespace {

using qimra::fuzz::Bytes;

size_t extent(int stride, int rows, int row_bytes) {
    return static_cast<size_t>(stride) * static_cast<size_t>(rows - 1) + static_cast<size_t>(row_bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes b(data, size);
    const int which = b.u8() % 10;
    const int w = 1 + b.u8() % 96;
    const int h = 1 + b.u8() % 64;
    const int extra = b.u8() % 24;
    const int stride = w + extra;
    switch (which) {
        case 0: {  // histogram of a block
            std::vector<uint8_t> src = b.buf(extent(stride, h, w));
            std::vector<int32_t> hist(256);
            blc_create_hist(hist.data(), src.data(), stride, w, h);
            break;
        }
        case 1: {  // summed-area tables: (height + 1) rows of ii_stride entries
            std::vector<uint8_t> src = b.buf(extent(stride, h, w));
            const int ii_stride = w + 1 + b.u8() % 8;
            std::vector<uint32_t> s(static_cast<size_t>(ii_stride) * (h + 1)), q(s.size());
            blc_gen_ii(src.data(), stride, ii_stride, w, h, s.data(), q.data());
            break;
        }
        case 2: {  // padded tables: stride width + 17, height + 17 rows
            std::vector<uint8_t> src = b.buf(extent(stride, h, w));
            const int ii_stride = w + 17;
            std::vector<uint32_t> s(static_cast<size_t>(ii_stride) * (h + 17)), q(s.size());
            blc_gen_ii_pad(src.data(), stride, ii_stride, w, h, s.data(), q.data());
            break;
        }
        case 3: {  // histogram equalisation in place, stride width
            std::vector<uint8_t> img = b.buf(static_cast<size_t>(w) * h);
            blc_hist_equ(img.data(), w, h);
            break;
        }
        case 4:
        case 5: {  // border padding around an image inside a larger buffer
            const int px = b.u8() % 9, py = b.u8() % 9;
            const int s = w + 2 * px + b.u8() % 8;
            std::vector<uint8_t> buf = b.buf(static_cast<size_t>(s) * (h + 2 * py));
            uint8_t* img = buf.data() + static_cast<size_t>(py) * s + px;
            if (which == 4)
                pad_with_replication(img, w, h, px, py, s);
            else if (px < w && py < h)
                pad_with_reflection(img, w, h, px, py, s);  // reflection needs the pixels it mirrors
            break;
        }
        case 6:
        case 7: {  // halving: (width / 2) x (height / 2) out, work (width / 2) * height
            if (w < 2 || h < 2) break;
            std::vector<uint8_t> src = b.buf(extent(stride, h, w));
            const int ds = w / 2 + b.u8() % 8;
            std::vector<uint8_t> dst(extent(ds, h / 2, w / 2)), work(static_cast<size_t>(w / 2) * h);
            if (which == 6)
                downscale_by_2_gaussian(src.data(), dst.data(), work.data(), w, h, stride, ds);
            else
                downscale_by_2_lanczos(src.data(), dst.data(), work.data(), w, h, stride, ds);
            break;
        }
        case 8: {  // Lanczos with a 4-pixel border read on both ends of each row
            if (w < 2 || h < 2) break;
            const int s = w + 8 + extra;
            std::vector<uint8_t> src = b.buf(extent(s, h, w + 8));
            const int ds = w / 2;
            std::vector<uint8_t> dst(extent(ds, h / 2, w / 2)), work(static_cast<size_t>(w / 2 + 16) * (h + 16));
            downscale_by_2_lanczos_w_pad(src.data() + 4, dst.data(), work.data(), w, h, s, ds);
            break;
        }
        case 9: {  // matrix resize, packed rows
            const int dw = 1 + b.u8() % 96, dh = 1 + b.u8() % 64;
            std::vector<uint8_t> src = b.buf(static_cast<size_t>(w) * h), dst(static_cast<size_t>(dw) * dh);
            call_resize(src.data(), dst.data(), w, h, dw, dh);
            break;
        }
    }
    return 0;
}
