// qimra._qimra: numpy frames through qimra::Engine.
//
// The module only turns arrays into plane views; the C++ layer does every
// check that concerns the frame itself (sizes, strides against the rows,
// overlapping planes, one engine per process) and its messages reach Python
// unchanged as qimra.Error. Arrays are never copied: each plane view points
// into the caller's array, and the C++ layer decides whether the core can
// take it as it is.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <qimra/qimra.hpp>

#include <atomic>
#include <mutex>
#include <optional>
#include <string>

namespace py = pybind11;

namespace {

using qimra::ColourFormat;
using qimra::Error;
using qimra::Mode;

const char* mode_name(Mode m) {
    switch (m) {
        case Mode::fixed: return "fixed";
        case Mode::mark: return "mark";
        case Mode::adaptive: return "adaptive";
    }
    return "unknown";
}

Mode parse_mode(const std::string& s) {
    for (Mode m : {Mode::fixed, Mode::mark, Mode::adaptive})
        if (s == mode_name(m)) return m;
    throw Error("qimra: mode '" + s + "' is unknown; use 'fixed', 'mark' or 'adaptive'");
}

ColourFormat parse_format(const std::string& s) {
    for (ColourFormat f : {ColourFormat::i420, ColourFormat::yv12, ColourFormat::nv12, ColourFormat::nv21})
        if (s == qimra::format_name(f)) return f;
    throw Error("qimra: format '" + s + "' is unknown; use 'i420', 'yv12', 'nv12' or 'nv21'");
}

// An array's shape or strides as Python prints them.
std::string tuple_text(const py::array& a, const py::ssize_t* values) {
    std::string s = "(";
    for (py::ssize_t k = 0; k < a.ndim(); ++k) s += (k ? ", " : "") + std::to_string(values[k]);
    return s + (a.ndim() == 1 ? ",)" : ")");
}
std::string shape_text(const py::array& a) { return tuple_text(a, a.shape()); }
std::string strides_text(const py::array& a) { return tuple_text(a, a.strides()); }

class Parser {
public:
    Parser(int width, int height, ColourFormat format) : w_(width), h_(height), format_(format) {}

    // Plane views into the caller's arrays. `role` is "input" or "output";
    // outputs must be writable.
    qimra::FrameView parse(const py::handle& obj, const char* role) const {
        const bool writable = std::string(role) == "output";
        if (py::isinstance<py::tuple>(obj) || py::isinstance<py::list>(obj))
            return planes_of(py::reinterpret_borrow<py::sequence>(obj), role, writable);
        return whole(array_of(obj, std::string("the ") + role + " frame", writable), role);
    }

    // A new array, or tuple of arrays, of the same shapes as `frame`.
    static py::object allocate_like(const py::handle& frame) {
        try {
            if (py::isinstance<py::array>(frame)) return fresh(py::reinterpret_borrow<py::array>(frame));
            py::tuple src(py::reinterpret_borrow<py::sequence>(frame));
            py::tuple out(src.size());
            for (size_t i = 0; i < src.size(); ++i) out[i] = fresh(py::reinterpret_borrow<py::array>(src[i]));
            return out;
        } catch (py::error_already_set& e) {
            if (!e.matches(PyExc_MemoryError)) throw;
            throw Error("qimra: out of memory for the new output frame; free memory or pass out= to reuse one");
        }
    }

private:
    static py::array fresh(const py::array& like) {
        return py::array(py::dtype::of<uint8_t>(), std::vector<py::ssize_t>(like.shape(), like.shape() + like.ndim()));
    }

    static py::array array_of(const py::handle& obj, const std::string& what, bool writable) {
        if (!py::isinstance<py::array>(obj))
            throw Error("qimra: " + what + " is of type " +
                        std::string(py::str(py::type::handle_of(obj).attr("__name__"))) +
                        "; it must be a numpy uint8 array (or, for a frame, a tuple of plane arrays)");
        auto a = py::reinterpret_borrow<py::array>(obj);
        if (a.dtype().kind() != 'u' || a.itemsize() != 1)
            throw Error("qimra: " + what + " has dtype " + std::string(py::str(a.dtype())) +
                        "; frames are uint8 arrays (convert with .astype(numpy.uint8) if the values fit)");
        if (writable && !a.writeable())
            throw Error("qimra: " + what + " is read-only; pass a writable array as out, or no out for a new one");
        return a;
    }

    static uint8_t* data_of(const py::array& a) { return static_cast<uint8_t*>(const_cast<void*>(a.data())); }

    // `rows` rows of `row_bytes` bytes: a 1-D array of exactly that many
    // contiguous bytes, or an array whose first axis is the rows and whose
    // other axes are contiguous and hold one row (e.g. (H/2, W/2, 2) for
    // interleaved pairs). Rows may lie any distance apart, not closer than
    // their length.
    static qimra::Plane plane(const py::array& a, int rows, int row_bytes, const std::string& what) {
        const auto need = std::to_string(rows) + " rows of " + std::to_string(row_bytes) + " bytes";
        if (a.ndim() == 1) {
            if (a.shape(0) != static_cast<py::ssize_t>(rows) * row_bytes)
                throw Error("qimra: " + what + " has shape " + shape_text(a) + "; it needs " + need + " (shape (" +
                            std::to_string(rows) + ", " + std::to_string(row_bytes) + "), or " +
                            std::to_string(static_cast<long long>(rows) * row_bytes) + " bytes in one dimension)");
            if (a.strides(0) != 1)
                throw Error("qimra: " + what + " has a stride of " + std::to_string(a.strides(0)) +
                            " bytes between its elements; a 1-D plane must be contiguous");
            return {{data_of(a), static_cast<size_t>(a.shape(0))}, row_bytes};
        }
        py::ssize_t per_row = 1;
        for (py::ssize_t k = 1; k < a.ndim(); ++k) per_row *= a.shape(k);
        if (a.ndim() == 0 || a.shape(0) != rows || per_row != row_bytes)
            throw Error("qimra: " + what + " has shape " + shape_text(a) + "; it needs " + need + ", shape (" +
                        std::to_string(rows) + ", " + std::to_string(row_bytes) + ")");
        py::ssize_t inner = 1;
        for (py::ssize_t k = a.ndim() - 1; k >= 1; --k) {
            if (a.shape(k) != 1 && a.strides(k) != inner)
                throw Error("qimra: " + what + " has strides " + strides_text(a) +
                            "; the bytes of each row must be contiguous (only the rows may lie apart)");
            inner *= a.shape(k);
        }
        const py::ssize_t stride = rows > 1 ? a.strides(0) : row_bytes;
        if (stride < row_bytes)
            throw Error("qimra: " + what + " has strides " + strides_text(a) + "; its rows must lie at least " +
                        std::to_string(row_bytes) + " bytes apart, in increasing order");
        const size_t extent = static_cast<size_t>(stride) * (rows - 1) + row_bytes;
        return {{data_of(a), extent}, stride};
    }

    bool planar() const { return qimra::is_planar(format_); }
    int chroma_row_bytes() const { return planar() ? w_ / 2 : w_; }

    // One array holding the whole frame: packed (1-D), or OpenCV's
    // (H * 3 / 2, W) layout. Interleaved frames of that shape may have rows
    // further apart than W (a crop of a larger frame): luma and chroma rows
    // share one stride. Planar ones may not: two chroma rows share each row.
    qimra::FrameView whole(const py::array& a, const char* role) const {
        const std::string what = std::string("the ") + role + " frame";
        const int rows = h_ * 3 / 2;
        const auto packed_bytes = static_cast<py::ssize_t>(qimra::frame_bytes(w_, h_));
        const bool shape_ok =
            (a.ndim() == 1 && a.shape(0) == packed_bytes) || (a.ndim() == 2 && a.shape(0) == rows && a.shape(1) == w_);
        if (!shape_ok)
            throw Error("qimra: " + what + " has shape " + shape_text(a) + "; a " + std::to_string(w_) + "x" +
                        std::to_string(h_) + " " + qimra::format_name(format_) + " frame has shape (" +
                        std::to_string(rows) + ", " + std::to_string(w_) + ") or (" + std::to_string(packed_bytes) +
                        ",), or is a tuple of " + (planar() ? "(y, u, v)" : "(y, uv)") + " planes");
        if (a.ndim() == 1)
            return qimra::packed_frame(plane(a, 1, static_cast<int>(packed_bytes), what).data, w_, h_, format_);
        const qimra::Plane all = plane(a, rows, w_, what);
        if (all.stride == w_) return qimra::packed_frame(all.data, w_, h_, format_);
        if (planar())
            throw Error("qimra: " + what + " has strides " + strides_text(a) +
                        "; a planar frame in one array "
                        "must be packed (rows " +
                        std::to_string(w_) +
                        " bytes apart), since its chroma rows "
                        "share array rows; pass a tuple of (y, u, v) planes for other strides");
        const auto luma = static_cast<size_t>(all.stride) * h_;
        return {{all.data.subspan(0, luma), all.stride}, {all.data.subspan(luma), all.stride}};
    }

    qimra::FrameView planes_of(const py::sequence& seq, const char* role, bool writable) const {
        const std::string names = planar() ? "(y, u, v)" : "(y, uv)";
        const size_t count = planar() ? 3 : 2;
        if (seq.size() != count)
            throw Error(std::string("qimra: the ") + role + " frame is a sequence of " + std::to_string(seq.size()) +
                        " planes; " + qimra::format_name(format_) + " takes " + std::to_string(count) + ", " + names);
        auto plane_at = [&](size_t i, const char* name, int rows, int row_bytes) {
            const std::string what = std::string("the ") + role + " " + name + " plane";
            return plane(array_of(seq[i], what, writable), rows, row_bytes, what);
        };
        const qimra::Plane y = plane_at(0, "y", h_, w_);
        if (!planar()) return {y, plane_at(1, "uv", h_ / 2, w_)};
        const qimra::Plane u = plane_at(1, "u", h_ / 2, w_ / 2);
        const qimra::Plane v = plane_at(2, "v", h_ / 2, w_ / 2);
        // The C++ layer takes the chroma planes in memory order: V first in YV12.
        return format_ == ColourFormat::yv12 ? qimra::FrameView{y, v, u} : qimra::FrameView{y, u, v};
    }

    int w_;
    int h_;
    ColourFormat format_;
};

// The Python engine: the C++ engine, closed on demand, used by one thread
// at a time. Frames run without the GIL; the lock makes a second thread
// wait for the frame in progress rather than race the engine's state.
class PyEngine {
public:
    PyEngine(long long width, long long height, const std::string& mode, const std::string& format, double gamma)
        : mode_(parse_mode(mode)), format_(parse_format(format)) {
        qimra::detail::check_dimension("width", width);
        qimra::detail::check_dimension("height", height);
        engine_.emplace(static_cast<int>(width), static_cast<int>(height), static_cast<float>(gamma), mode_, format_);
        width_ = engine_->width();
        height_ = engine_->height();
        gamma_ = engine_->gamma();
    }

    py::object process(const py::object& frame, const py::object& out) {
        const Parser parser(width(), height(), format_);  // raises when closed
        // These hold the arrays behind both views while the GIL is released;
        // a list of planes is held as a tuple, which no other thread can
        // empty meanwhile.
        const py::object src = pinned(frame);
        const qimra::FrameView in = parser.parse(src, "input");
        // Only a frame that parsed is an array or a tuple of arrays to copy the shapes of.
        const py::object result = out.is_none() ? Parser::allocate_like(src) : out;
        const py::object dst_planes = pinned(result);
        const qimra::FrameView dst = parser.parse(dst_planes, "output");
        {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> lock(busy_);
            live().process(in, dst);
        }
        return result;
    }

    qimra::FrameReport report() {
        py::gil_scoped_release unlocked;
        std::lock_guard<std::mutex> lock(busy_);
        return live().report();
    }

    void close() {
        py::gil_scoped_release unlocked;
        std::lock_guard<std::mutex> lock(busy_);
        engine_.reset();
        closed_ = true;
    }

    // The properties are read without the lock, so they never touch the
    // engine another thread may be closing.
    bool closed() const { return closed_; }
    int width() const { return open(width_); }
    int height() const { return open(height_); }
    float gamma() const { return open(gamma_); }
    const char* mode() const { return mode_name(mode_); }
    const char* format() const { return qimra::format_name(format_); }

private:
    static py::object pinned(const py::object& o) { return py::isinstance<py::list>(o) ? py::tuple(o) : o; }

    template <class T>
    T open(T value) const {
        if (closed_) throw Error("qimra: this engine is closed; create a new qimra.Engine to process more frames");
        return value;
    }
    // Under the lock: closed_ and engine_ change together in close().
    qimra::Engine& live() {
        open(0);
        return *engine_;
    }

    Mode mode_;
    ColourFormat format_;
    int width_ = 0;
    int height_ = 0;
    float gamma_ = 0.0f;
    std::optional<qimra::Engine> engine_;
    std::atomic<bool> closed_{false};
    std::mutex busy_;
};

py::array tone_curve(const qimra::FrameReport& r) {
    return py::array_t<uint8_t>(static_cast<py::ssize_t>(r.tone_curve.size()), r.tone_curve.data());
}

}  // namespace

PYBIND11_MODULE(_qimra, m) {
    m.doc() = "Compiled core of the qimra package; use the qimra package itself.";
    py::register_exception<Error>(m, "Error", PyExc_ValueError);

    py::class_<qimra::FrameReport>(m, "Report", "What the engine did with the last frame.")
        .def_readonly("frame", &qimra::FrameReport::frame, "Index of the frame, counted from 0.")
        .def_readonly("decision", &qimra::FrameReport::decision, "The scene was judged worth enhancing.")
        .def_readonly("enhanced", &qimra::FrameReport::enhanced, "The frame was enhanced (never in mode 'mark').")
        .def_readonly("mid", &qimra::FrameReport::mid, "Normalisation point of the tone curve (the strength).")
        .def_readonly("gamma", &qimra::FrameReport::gamma, "Exponent of the tone curve.")
        .def_readonly("top_level", &qimra::FrameReport::top_level, "The decision's top output level, 230-255.")
        .def_readonly("chroma_sigma", &qimra::FrameReport::chroma_sigma, "Width of the chroma gain curve.")
        .def_property_readonly("tone_curve", &tone_curve, "The frame's 256-entry tone table, a (256,) uint8 array.")
        .def(
            "as_dict",
            [](const qimra::FrameReport& r) {
                return py::dict(py::arg("frame") = r.frame, py::arg("decision") = r.decision,
                                py::arg("enhanced") = r.enhanced, py::arg("mid") = r.mid, py::arg("gamma") = r.gamma,
                                py::arg("top_level") = r.top_level, py::arg("chroma_sigma") = r.chroma_sigma,
                                py::arg("tone_curve") = tone_curve(r));
            },
            "The report as a dict of its fields.")
        .def("__repr__", [](const qimra::FrameReport& r) {
            return "qimra.Report(frame=" + std::to_string(r.frame) + ", decision=" + (r.decision ? "True" : "False") +
                   ", enhanced=" + (r.enhanced ? "True" : "False") + ", mid=" + std::to_string(r.mid) +
                   ", gamma=" + std::string(py::str(py::float_(r.gamma))) +
                   ", top_level=" + std::to_string(r.top_level) + ")";
        });

    py::class_<PyEngine>(m, "Engine")
        .def(py::init<long long, long long, const std::string&, const std::string&, double>(), py::arg("width"),
             py::arg("height"), py::kw_only(), py::arg("mode") = "adaptive", py::arg("format") = "i420",
             py::arg("gamma") = 0.5)
        .def("process", &PyEngine::process, py::arg("frame"), py::arg("out") = py::none())
        .def_property_readonly("report", &PyEngine::report)
        .def("close", &PyEngine::close)
        .def_property_readonly("closed", &PyEngine::closed)
        .def_property_readonly("width", &PyEngine::width)
        .def_property_readonly("height", &PyEngine::height)
        .def_property_readonly("gamma", &PyEngine::gamma)
        .def_property_readonly("mode", &PyEngine::mode)
        .def_property_readonly("format", &PyEngine::format)
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](PyEngine& e, py::args) { e.close(); });
}
