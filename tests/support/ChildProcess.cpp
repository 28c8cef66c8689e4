#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <array>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace {

void ThrowErrno(const char* what) { throw std::system_error(errno, std::system_category(), what); }

// Appends what one read returns; false once the pipe has reached its end.
bool Drain(int fd, std::string& sink) {
    std::array<char, 4096> chunk{};
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count > 0) {
        sink.append(chunk.data(), static_cast<std::size_t>(count));
        return true;
    }
    return count < 0 && errno == EINTR;
}

#ifdef MEROVANE_TEST_EMULATOR
// A cross build's programs are target binaries: they run under the emulator
// that runs the tests. Variables for the dynamic loader (LD_PRELOAD and the
// like) are meant for the target's loader, so they go to the emulator's
// guest environment; in the emulator's own environment the host's loader
// would try to preload a target library into the emulator.
std::vector<std::string> EmulatedCommand(const std::vector<std::string>& argv,
                                         std::vector<std::string>& environment) {
    std::vector<std::string> command{MEROVANE_TEST_EMULATOR};
    std::vector<std::string> hostEnvironment;
    for (const auto& entry : environment) {
        if (entry.rfind("LD_", 0) != 0) {
            hostEnvironment.push_back(entry);
        } else if (entry.find(',') != std::string::npos) {
            // The emulator splits the value of -E at commas.
            throw std::invalid_argument("loader variable with a comma: " + entry);
        } else {
            command.emplace_back("-E");
            command.push_back(entry);
        }
    }
    environment = std::move(hostEnvironment);
    command.insert(command.end(), argv.begin(), argv.end());
    return command;
}
#endif

}  // namespace

ChildResult RunChild(const std::vector<std::string>& argv, const ChildOptions& options) {
#ifdef MEROVANE_TEST_EMULATOR
    std::vector<std::string> environment = options.environment;
    const std::vector<std::string> command = EmulatedCommand(argv, environment);
#else
    const std::vector<std::string>& environment = options.environment;
    const std::vector<std::string>& command = argv;
#endif
    std::array<int, 2> outPipe{};
    std::array<int, 2> errPipe{};
    if (pipe2(outPipe.data(), O_CLOEXEC) != 0 || pipe2(errPipe.data(), O_CLOEXEC) != 0) {
        ThrowErrno("pipe2");
    }

    std::vector<char*> args;
    args.reserve(command.size() + 1);
    for (const auto& arg : command) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);

    const pid_t pid = fork();
    if (pid < 0) {
        ThrowErrno("fork");
    }
    if (pid == 0) {
        // Only async-signal-safe calls from here on, apart from putenv,
        // which touches nothing but this child's copy of the environment.
        const int devNull = open("/dev/null", O_RDONLY);
        dup2(devNull, STDIN_FILENO);
        dup2(outPipe[1], STDOUT_FILENO);
        dup2(options.mergeStreams ? outPipe[1] : errPipe[1], STDERR_FILENO);
        for (const auto& entry : environment) {
            putenv(const_cast<char*>(entry.c_str()));
        }
        execv(args[0], args.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);

    ChildResult result;
    std::array<pollfd, 2> fds{{{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}}};
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(options.timeoutMs);
    int openPipes = 2;
    while (openPipes > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timedOut = true;
            kill(pid, SIGKILL);
            break;
        }
        if (poll(fds.data(), fds.size(), static_cast<int>(left.count())) < 0 && errno != EINTR) {
            ThrowErrno("poll");
        }
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if (fds[i].fd >= 0 && fds[i].revents != 0) {
                if (!Drain(fds[i].fd, i == 0 ? result.out : result.err)) {
                    close(fds[i].fd);
                    fds[i].fd = -1;
                    --openPipes;
                }
            }
        }
    }
    for (const auto& entry : fds) {
        if (entry.fd >= 0) {
            close(entry.fd);
        }
    }

    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            ThrowErrno("waitpid");
        }
    }
    if (WIFEXITED(status)) {
        result.exitStatus = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.termSignal = WTERMSIG(status);
    }
    return result;
}
