#include "trace.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace qimra::tool {

namespace {

std::string fixed(double v, int decimals) {
    char text[64];
    snprintf(text, sizeof text, "%.*f", decimals, v);
    return text;
}

std::string escape_xml(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

// A tick spacing of 1, 2 or 5 times a power of ten giving about `count` ticks.
double nice_step(double span, int count) {
    const double raw = span / std::max(count, 1);
    const double p = std::pow(10.0, std::floor(std::log10(std::max(raw, 1e-9))));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (m * p >= raw) return m * p;
    return 10.0 * p;
}

}  // namespace

std::string trace_csv(const std::vector<FrameReport>& reports) {
    std::string out = "frame,decision,enhanced,mid,gamma,top_level,chroma_sigma\n";
    for (const FrameReport& r : reports)
        out += std::to_string(r.frame) + "," + (r.decision ? "1" : "0") + "," + (r.enhanced ? "1" : "0") + "," +
               std::to_string(r.mid) + "," + fixed(r.gamma, 4) + "," + std::to_string(r.top_level) + "," +
               fixed(r.chroma_sigma, 4) + "\n";
    return out;
}

std::string trace_svg(const std::vector<FrameReport>& reports, const std::string& title) {
    constexpr int kWidth = 960, kLeft = 80, kRight = 24, kTop = 48, kStrip = 110, kGap = 34;
    struct Series {
        const char* name;
        const char* colour;
        std::function<double(const FrameReport&)> value;
        double lo, hi;
        bool steps;
    };
    std::vector<Series> series = {
        {"decision", "#3a9d4a", [](const FrameReport& r) { return r.decision ? 1.0 : 0.0; }, 0.0, 1.0, true},
        {"mid", "#d9822b", [](const FrameReport& r) { return r.mid; }, 0.0, 0.0, false},
        {"gamma", "#2b6fd9", [](const FrameReport& r) { return r.gamma; }, 0.0, 1.0, false},
        {"top level", "#a33ad9", [](const FrameReport& r) { return r.top_level; }, 225.0, 256.0, false},
    };
    // The mid point's range follows the data, with a little room.
    double mid_lo = 255.0, mid_hi = 0.0;
    for (const FrameReport& r : reports) {
        mid_lo = std::min(mid_lo, static_cast<double>(r.mid));
        mid_hi = std::max(mid_hi, static_cast<double>(r.mid));
    }
    if (reports.empty()) mid_lo = 0.0, mid_hi = 255.0;
    series[1].lo = std::floor(mid_lo / 10.0) * 10.0 - 10.0;
    series[1].hi = std::ceil(mid_hi / 10.0) * 10.0 + 10.0;

    const int height = kTop + static_cast<int>(series.size()) * (kStrip + kGap) + 10;
    const int plot_w = kWidth - kLeft - kRight;
    const size_t n = reports.size();
    const double x_span = n > 1 ? static_cast<double>(n - 1) : 1.0;
    auto x_of = [&](double frame) { return kLeft + frame / x_span * plot_w; };

    std::string svg = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    svg += "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(kWidth) + "\" height=\"" +
           std::to_string(height) + "\" viewBox=\"0 0 " + std::to_string(kWidth) + " " + std::to_string(height) +
           "\" font-family=\"sans-serif\" font-size=\"12\">\n";
    svg += "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    svg += "<text x=\"" + std::to_string(kLeft) + "\" y=\"26\" font-size=\"16\" font-weight=\"bold\">" +
           escape_xml(title) + "</text>\n";

    const double frame_step = nice_step(x_span, 10);
    for (size_t s = 0; s < series.size(); ++s) {
        const Series& se = series[s];
        const int top = kTop + static_cast<int>(s) * (kStrip + kGap);
        const int bottom = top + kStrip;
        auto y_of = [&](double v) {
            const double t = (std::clamp(v, se.lo, se.hi) - se.lo) / (se.hi - se.lo);
            return bottom - t * kStrip;
        };
        svg += "<text x=\"" + std::to_string(kLeft) + "\" y=\"" + std::to_string(top - 6) +
               "\" font-weight=\"bold\" fill=\"" + se.colour + "\">" + se.name + "</text>\n";
        svg += "<rect x=\"" + std::to_string(kLeft) + "\" y=\"" + std::to_string(top) + "\" width=\"" +
               std::to_string(plot_w) + "\" height=\"" + std::to_string(kStrip) +
               "\" fill=\"#f7f7f7\" stroke=\"#999\"/>\n";
        // Value ticks.
        const double v_step = se.steps ? 1.0 : nice_step(se.hi - se.lo, 4);
        for (double v = std::ceil(se.lo / v_step) * v_step; v <= se.hi + 1e-9; v += v_step) {
            const double y = y_of(v);
            svg += "<line x1=\"" + std::to_string(kLeft) + "\" y1=\"" + fixed(y, 1) + "\" x2=\"" +
                   std::to_string(kLeft + plot_w) + "\" y2=\"" + fixed(y, 1) + "\" stroke=\"#e0e0e0\"/>\n";
            const std::string label = se.steps ? (v > 0.5 ? "on" : "off") : fixed(v, v_step < 1.0 ? 1 : 0);
            svg += "<text x=\"" + std::to_string(kLeft - 6) + "\" y=\"" + fixed(y + 4, 1) + "\" text-anchor=\"end\">" +
                   label + "</text>\n";
        }
        // Frame ticks.
        for (double f = 0.0; f <= x_span + 1e-9; f += frame_step) {
            const double x = x_of(f);
            svg += "<line x1=\"" + fixed(x, 1) + "\" y1=\"" + std::to_string(bottom) + "\" x2=\"" + fixed(x, 1) +
                   "\" y2=\"" + std::to_string(bottom + 4) + "\" stroke=\"#999\"/>\n";
            svg += "<text x=\"" + fixed(x, 1) + "\" y=\"" + std::to_string(bottom + 16) +
                   "\" text-anchor=\"middle\" fill=\"#555\">" + fixed(f, 0) + "</text>\n";
        }
        if (n == 0) continue;
        std::string points;
        for (size_t i = 0; i < n; ++i) {
            const double v = se.value(reports[i]);
            if (se.steps && i > 0)
                points += fixed(x_of(static_cast<double>(i)), 1) + "," + fixed(y_of(se.value(reports[i - 1])), 1) + " ";
            points += fixed(x_of(static_cast<double>(i)), 1) + "," + fixed(y_of(v), 1) + " ";
        }
        if (n == 1) points += fixed(x_of(x_span), 1) + "," + fixed(y_of(se.value(reports[0])), 1);
        svg += "<polyline fill=\"none\" stroke=\"" + std::string(se.colour) + "\" stroke-width=\"2\" points=\"" +
               points + "\"/>\n";
    }
    svg += "<text x=\"" + std::to_string(kLeft + plot_w) + "\" y=\"" + std::to_string(height - 4) +
           "\" text-anchor=\"end\" fill=\"#555\">frame</text>\n";
    svg += "</svg>\n";
    return svg;
}

}  // namespace qimra::tool
