// Helpers shared by the trace readers and writer.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace aggtree::internal {

// Calls `visit(line, number)` for every line of `text` (numbers from 1), without the
// line end ("\n" or "\r\n").
void ForEachLine(std::string_view text, const std::function<void(std::string_view, size_t)>& visit);

// True when the line holds nothing but blanks.
bool IsBlank(std::string_view line);

// A time in seconds as the shortest text that reads back the same ("9.5", "12").
std::string TimeText(double seconds);

}  // namespace aggtree::internal
