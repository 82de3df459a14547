#include "cli/replay_plot.h"

#include <algorithm>
#include <cstdio>

#include "cli/cli_support.h"
#include "cli/external_program.h"
#include "topology/input_error.h"

namespace aggtree::cli {

namespace {

// More points than a picture's width in pixels show nothing more.
constexpr size_t kMaxPlottedPoints = 4000;

// A text inside a gnuplot string in double quotes.
std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += (c == '\n' || c == '\r') ? ' ' : c;
    }
    return quoted + "\"";
}

std::string Number(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), "%.6g", value);
    return buffer;
}

// The timeline thinned to about kMaxPlottedPoints, keeping the last point and, within each
// stretch, the point where trees held peak.
std::vector<const TimelinePoint*> Thinned(const std::vector<TimelinePoint>& timeline) {
    std::vector<const TimelinePoint*> points;
    const size_t stride = std::max<size_t>(1, timeline.size() / kMaxPlottedPoints);
    for (size_t start = 0; start < timeline.size(); start += stride) {
        const size_t end = std::min(timeline.size(), start + stride);
        const TimelinePoint* highest = &timeline[start];
        for (size_t i = start; i < end; ++i) {
            if (timeline[i].trees_held > highest->trees_held) {
                highest = &timeline[i];
            }
        }
        points.push_back(highest);
        if (highest != &timeline[end - 1]) {
            points.push_back(&timeline[end - 1]);
        }
    }
    return points;
}

}  // namespace

bool HasGnuplot() {
    return IsOnPath("gnuplot");
}

std::string ReplayPlotScript(const std::vector<TimelinePoint>& timeline,
                             const ReplaySummary& summary, const std::string& title,
                             const std::string& png_path) {
    const double span = summary.last_time - summary.first_time;
    const bool hours = span >= 7200;
    const double unit = hours ? 3600.0 : 1.0;
    const std::string time_label = hours ? "trace time (hours)" : "trace time (seconds)";

    std::string script;
    script += "$timeline << EOD\n";
    for (const TimelinePoint* point : Thinned(timeline)) {
        script += Number(point->time / unit) + " " + std::to_string(point->trees_held) + " " +
                  std::to_string(point->tree_ids_in_use) + " " + std::to_string(point->served) +
                  " " + std::to_string(point->refused + point->internal_failures) + " " +
                  std::to_string(point->skipped) + "\n";
    }
    script += "EOD\n$load << EOD\n";
    const SwitchLoad& load = summary.switch_load;
    for (size_t k = 0; k < load.histogram.size(); ++k) {
        script += std::to_string(k) + " " + std::to_string(load.histogram[k]) + "\n";
    }
    if (load.histogram.empty()) {
        script += "0 0\n";  // no switch serves jobs: an empty bar keeps the panel drawable
    }
    script += "EOD\n";
    script +=
        "if (strstrt(GPVAL_TERMINALS, \"pngcairo\") > 0) {\n"
        "  set terminal pngcairo size 1000,1200 font \",10\"\n"
        "} else {\n"
        "  set terminal png size 1000,1200\n"
        "}\n";
    script += "set output " + Quoted(png_path) + "\n";
    script += "set multiplot layout 3,1 title " + Quoted(title) + "\n";
    script += "set grid\nset key top left\nset xlabel " + Quoted(time_label) + "\n";
    // Counts start at 0; a replay with nothing in it still gets axes to draw.
    uint64_t highest = 0;
    for (const TimelinePoint& point : timeline) {
        highest = std::max({highest, point.trees_held, uint64_t{point.tree_ids_in_use},
                            point.served, point.refused + point.internal_failures, point.skipped});
    }
    const std::string count_range = highest == 0 ? "[0:1]" : "[0:*]";
    script += "set yrange " + count_range + "\n";
    if (span <= 0) {
        const double at = summary.first_time / unit;
        script += "set xrange [" + Number(at - 1) + ":" + Number(at + 1) + "]\n";
    }
    script += "set title \"Trees held and tree ids in use\"\nset ylabel \"trees\"\n";
    script +=
        "plot $timeline using 1:2 with steps lw 2 title \"trees held\", "
        "$timeline using 1:3 with steps lw 1 title \"tree ids in use\"\n";
    script +=
        "set title \"Jobs served with a tree, refused, and skipped (cumulative)\"\n"
        "set ylabel \"jobs\"\n";
    script +=
        "plot $timeline using 1:4 with steps lw 2 title \"served\", "
        "$timeline using 1:5 with steps lw 2 title \"refused\", "
        "$timeline using 1:6 with steps lw 1 dt 2 title \"skipped (no hosts)\"\n";
    script += "set title " +
              Quoted("Active trees per switch at the peak (t=" + Number(load.at) + " s, " +
                     std::to_string(load.trees_held) + " trees held; max " +
                     std::to_string(load.max) + ", mean " + Number(load.mean) + ")") +
              "\n";
    script +=
        "set xlabel \"active trees on the switch\"\nset ylabel \"switches\"\n"
        "set style fill solid 0.6\nset boxwidth 0.8\nset xrange [-0.5:*]\nset yrange [0:*]\n"
        "plot $load using 1:2 with boxes notitle\n";
    script += "unset multiplot\nset output\n";
    return script;
}

void PlotReplay(const std::vector<TimelinePoint>& timeline, const ReplaySummary& summary,
                const std::string& title, const std::string& png_path) {
    if (!HasGnuplot()) {
        throw InputError(png_path, "",
                         "cannot draw the plot: gnuplot is not on PATH (install gnuplot-nox)");
    }
    std::string error;
    int status = RunProgramWithInput("gnuplot", {},
                                     ReplayPlotScript(timeline, summary, title, png_path), error);
    if (!error.empty()) {
        throw InputError(png_path, "", "cannot run gnuplot: " + error);
    }
    if (status != 0) {
        throw InputError(
            png_path, "",
            "gnuplot could not draw the plot (exit status " + std::to_string(status) + ")");
    }
}

}  // namespace aggtree::cli
