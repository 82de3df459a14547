// Rendering of dot graphs to SVG or PNG with Graphviz's `dot`, found on PATH at run time.
#pragma once

#include <string>

namespace aggtree::cli {

// True when `dot` is on PATH.
bool HasGraphvizDot();

// Runs `dot -T<format> -o <output_path>` on `dot_text`; throws InputError naming the
// output file when dot is missing or fails.
void RenderWithDot(const std::string& dot_text, const std::string& format,
                   const std::string& output_path);

}  // namespace aggtree::cli
