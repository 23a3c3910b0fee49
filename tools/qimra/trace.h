// The per-frame report of a run: one CSV row per frame, and a plot of the
// decision, mid point, gamma and top level over the frames as SVG.
#pragma once

#include <cstdio>
#include <qimra/qimra.hpp>
#include <string>
#include <vector>

namespace qimra::tool {

std::string trace_csv(const std::vector<FrameReport>& reports);
std::string trace_svg(const std::vector<FrameReport>& reports, const std::string& title);

}  // namespace qimra::tool
