// Runs the built aggtree binary as a user would and captures what it says: standard
// output, standard error and the exit status.  Each test gets its own temporary
// directory for the files it writes.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#ifndef AGGTREE_BINARY
#error "AGGTREE_BINARY must name the aggtree binary under test"
#endif

namespace aggtree_cli_test {

struct RunResult {
    int exit_code = -1;  // the exit status, or 128 + signal when killed by a signal
    std::string out;
    std::string err;
};

// The repository root: AGGTREE_SOURCE_DIR when set (ctest sets it), else found from
// this file's place.
inline std::filesystem::path SourceDir() {
    if (const char* dir = std::getenv("AGGTREE_SOURCE_DIR"); dir != nullptr && *dir != '\0') {
        return dir;
    }
    return std::filesystem::path(__FILE__).parent_path().parent_path().parent_path();
}

inline std::string Example(const std::string& name) {
    return (SourceDir() / "examples" / name).string();
}

// Bounds of one run, so that a hang or a runaway allocation fails the test instead of
// stalling the suite.
struct RunLimits {
    unsigned seconds = 0;            // SIGALRM (exit code 142) after this long; 0: no bound
    size_t address_space_bytes = 0;  // RLIMIT_AS of the run; 0: no bound
};

// Runs aggtree with `args`; `env` entries replace or add environment variables.
inline RunResult RunAggtree(const std::vector<std::string>& args,
                            const std::map<std::string, std::string>& env = {},
                            const RunLimits& limits = {}) {
    RunResult result;
    int out_pipe[2];
    int err_pipe[2];
    if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) {
        ADD_FAILURE() << "pipe failed: " << errno;
        return result;
    }
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out_pipe[1], STDOUT_FILENO);
        dup2(err_pipe[1], STDERR_FILENO);
        close(out_pipe[0]);
        close(out_pipe[1]);
        close(err_pipe[0]);
        close(err_pipe[1]);
        int null_fd = open("/dev/null", O_RDONLY);
        if (null_fd >= 0) {
            dup2(null_fd, STDIN_FILENO);
            close(null_fd);
        }
        for (const auto& [name, value] : env) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        if (limits.address_space_bytes != 0) {
            rlimit bound{limits.address_space_bytes, limits.address_space_bytes};
            setrlimit(RLIMIT_AS, &bound);
        }
        if (limits.seconds != 0) {
            alarm(limits.seconds);
        }
        std::vector<std::string> argv_strings = {AGGTREE_BINARY};
        argv_strings.insert(argv_strings.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& arg : argv_strings) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        execv(AGGTREE_BINARY, argv.data());
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open_fds = 2;
    while (open_fds > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
                continue;
            }
            char buffer[65536];
            ssize_t n = read(fds[i].fd, buffer, sizeof(buffer));
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_fds;
            }
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exit_code = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.exit_code = 128 + WTERMSIG(status);
    }
    return result;
}

// The lines of a text, without their line ends.
inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// A test with its own empty temporary directory, removed afterwards.
class CliTest : public ::testing::Test {
protected:
    void SetUp() override {
        const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = std::string(info->test_suite_name()) + "." + info->name();
        for (char& c : name) {
            if (c == '/') {
                c = '_';
            }
        }
        m_dir = std::filesystem::path(::testing::TempDir()) /
                ("aggtree_cli_" + std::to_string(getpid()) + "_" + name);
        std::filesystem::remove_all(m_dir);
        std::filesystem::create_directories(m_dir);
    }

    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }

    // A path in the test's directory.
    std::string Path(const std::string& name) const { return (m_dir / name).string(); }

    // Writes a file into the test's directory and returns its path.
    std::string WriteFile(const std::string& name, const std::string& text) const {
        std::ofstream out(m_dir / name, std::ios::binary);
        out << text;
        return Path(name);
    }

    std::filesystem::path m_dir;
};

}  // namespace aggtree_cli_test
