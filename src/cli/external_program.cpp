#include "cli/external_program.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

extern char** environ;

namespace aggtree::cli {

namespace {

void WriteAll(int fd, const std::string& text) {
    size_t written = 0;
    while (written < text.size()) {
        ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        written += static_cast<size_t>(n);
    }
}

}  // namespace

int RunProgramWithInput(const std::string& program, const std::vector<std::string>& args,
                        const std::string& input, std::string& error) {
    int pipe_fds[2];
    if (::pipe(pipe_fds) != 0) {
        error = std::strerror(errno);
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[0], STDIN_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipe_fds[0]);
    posix_spawn_file_actions_addclose(&actions, pipe_fds[1]);
    std::vector<std::string> argv_strings = {program};
    argv_strings.insert(argv_strings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : argv_strings) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    int spawn_error = posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe_fds[0]);
    if (spawn_error != 0) {
        ::close(pipe_fds[1]);
        error = std::strerror(spawn_error);
        return -1;
    }
    struct sigaction ignore {};
    struct sigaction previous {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &previous);
    WriteAll(pipe_fds[1], input);
    ::close(pipe_fds[1]);
    sigaction(SIGPIPE, &previous, nullptr);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace aggtree::cli
