// Bad input: which file, where in it (JSON path, or line and column), and what is wrong.
#pragma once

#include <stdexcept>
#include <string>

namespace aggtree {

class InputError : public std::runtime_error {
public:
    // `where` is a JSON path ("/switches/3/guid"), "line N" or "line N, column M", or
    // empty when the whole file is meant.
    InputError(std::string file, std::string where, std::string problem);

    const std::string& file() const { return m_file; }
    const std::string& where() const { return m_where; }
    const std::string& problem() const { return m_problem; }

private:
    std::string m_file;
    std::string m_where;
    std::string m_problem;
};

}  // namespace aggtree
