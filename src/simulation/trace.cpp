#include "simulation/trace.h"

#include <charconv>
#include <string>

#include "simulation/trace_internal.h"
#include "topology/topology_internal.h"

namespace aggtree {

namespace internal {

void ForEachLine(std::string_view text,
                 const std::function<void(std::string_view, size_t)>& visit) {
    size_t number = 0;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        std::string_view line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        visit(line, ++number);
        start = end + 1;
    }
}

bool IsBlank(std::string_view line) {
    return line.find_first_not_of(" \t\r\f\v") == std::string_view::npos;
}

std::string TimeText(double seconds) {
    char buffer[64];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof(buffer), seconds);
    return ec == std::errc() ? std::string(buffer, end) : std::to_string(seconds);
}

}  // namespace internal

Trace ParseTrace(std::string_view text, const std::string& file, const TraceReadOptions& options) {
    size_t first = text.find_first_not_of(" \t\r\n\f\v");
    if (first == std::string_view::npos) {
        throw InputError(file, "",
                         "the file is empty: expected a trace in JSON lines or in the Standard "
                         "Workload Format");
    }
    if (text[first] == '{') {
        return ParseJsonLinesTrace(text, file);
    }
    return ParseSwfTrace(text, file, options);
}

Trace LoadTrace(const std::string& path, const TraceReadOptions& options) {
    return ParseTrace(internal::ReadTextFile(path), path, options);
}

}  // namespace aggtree
