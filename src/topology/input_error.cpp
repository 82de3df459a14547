#include "topology/input_error.h"

#include <utility>

namespace aggtree {

namespace {

std::string Compose(const std::string& file, const std::string& where, const std::string& problem) {
    std::string text = file;
    if (!where.empty()) {
        text += ": " + where;
    }
    text += ": " + problem;
    return text;
}

}  // namespace

InputError::InputError(std::string file, std::string where, std::string problem)
    : std::runtime_error(Compose(file, where, problem)),
      m_file(std::move(file)),
      m_where(std::move(where)),
      m_problem(std::move(problem)) {}

}  // namespace aggtree
