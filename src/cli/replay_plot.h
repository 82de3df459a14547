// The picture of a replay: trees held over time, jobs served and refused over time, and
// the per-switch load at the peak, drawn by gnuplot into a PNG file.
#pragma once

#include <string>
#include <vector>

#include "simulation/replay_summary.h"

namespace aggtree::cli {

// True when gnuplot is on PATH.
bool HasGnuplot();

// The gnuplot script (data included) that draws the replay into `png_path`.
std::string ReplayPlotScript(const std::vector<TimelinePoint>& timeline,
                             const ReplaySummary& summary, const std::string& title,
                             const std::string& png_path);

// Draws the replay into `png_path`; throws InputError naming the file when gnuplot is
// missing or fails.
void PlotReplay(const std::vector<TimelinePoint>& timeline, const ReplaySummary& summary,
                const std::string& title, const std::string& png_path);

}  // namespace aggtree::cli
