// Bad input: which file, where in it (JSON path, or line and column), and what is wrong.
#pragma once

#include <new>
#include <stdexcept>
#include <string>
#include <utility>

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

// Memory ran out while a file was loaded.  Says nothing about the file: callers report
// it apart from bad input (the tool exits 3, not 2).
class LoadingOutOfMemory : public std::bad_alloc {
public:
    explicit LoadingOutOfMemory(std::string file) : m_file(std::move(file)) {}

    const std::string& file() const { return m_file; }
    const char* what() const noexcept override { return "out of memory while loading the file"; }

private:
    std::string m_file;
};

// Runs `load`; a std::bad_alloc escaping it becomes LoadingOutOfMemory naming `file`
// (one that already names a file passes unchanged).
template <typename Load>
auto NameFileOnOutOfMemory(const std::string& file, Load&& load) -> decltype(load()) {
    try {
        return load();
    } catch (const LoadingOutOfMemory&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw LoadingOutOfMemory(file);
    }
}

}  // namespace aggtree
