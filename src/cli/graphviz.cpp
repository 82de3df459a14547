#include "cli/graphviz.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

#include "cli/cli_support.h"
#include "topology/input_error.h"

extern char** environ;

namespace aggtree::cli {

bool HasGraphvizDot() {
    return IsOnPath("dot");
}

void RenderWithDot(const std::string& dot_text, const std::string& format,
                   const std::string& output_path) {
    if (!HasGraphvizDot()) {
        throw InputError(output_path, "",
                         "cannot render " + format +
                             ": Graphviz 'dot' is not on PATH (install graphviz, or write "
                             "the graph with --dot FILE and render it elsewhere)");
    }
    int pipe_fds[2];
    if (::pipe(pipe_fds) != 0) {
        throw InputError(output_path, "", std::string("cannot run dot: ") + std::strerror(errno));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[0], STDIN_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipe_fds[0]);
    posix_spawn_file_actions_addclose(&actions, pipe_fds[1]);
    std::string type = "-T" + format;
    std::vector<std::string> args = {"dot", type, "-o", output_path};
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    int spawn_error = posix_spawnp(&pid, "dot", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe_fds[0]);
    if (spawn_error != 0) {
        ::close(pipe_fds[1]);
        throw InputError(output_path, "",
                         std::string("cannot run dot: ") + std::strerror(spawn_error));
    }
    // dot may exit early (a bad output path): a broken pipe must not end the tool.
    struct sigaction ignore {};
    struct sigaction previous {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &previous);
    size_t written = 0;
    while (written < dot_text.size()) {
        ssize_t n = ::write(pipe_fds[1], dot_text.data() + written, dot_text.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        written += static_cast<size_t>(n);
    }
    ::close(pipe_fds[1]);
    sigaction(SIGPIPE, &previous, nullptr);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw InputError(output_path, "",
                         "dot could not render the graph (exit status " +
                             std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + ")");
    }
}

}  // namespace aggtree::cli
