#include "PtyUart.h"

#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <iterator>
#include <optional>

namespace {

PtyUart* uart = nullptr;

bool OnPort(int fd) { return uart != nullptr && fd != -1 && fd == uart->port; }

// The result the script gives this call, or nothing when the call goes
// through (with at most the scripted number of bytes).
std::optional<long> Scripted(const char* function, int fd, size_t* count = nullptr) {
    if (!OnPort(fd)) {
        return std::nullopt;
    }
    ++uart->calls[function];
    auto& queue = uart->script[function];
    const long outcome = queue.empty() ? 1L << 30 : queue.front();
    if (!queue.empty()) {
        queue.pop_front();
    }
    if (outcome > 0 && count != nullptr) {
        *count = std::min(*count, static_cast<size_t>(outcome));
    }
    errno = outcome < 0 ? static_cast<int>(-outcome) : errno;
    return outcome > 0 ? std::nullopt : std::optional<long>(outcome < 0 ? -1 : 0);
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names.
extern "C" {
int __real_open(const char* path, int flags, ...);
int __real_close(int fd);
ssize_t __real_read(int fd, void* buffer, size_t count);
ssize_t __real_write(int fd, const void* buffer, size_t count);
int __real_poll(pollfd* fds, nfds_t count, int timeout);
int __real_ioctl(int fd, unsigned long request, ...);
int __real_tcgetattr(int fd, termios* record);
int __real_tcsetattr(int fd, int when, const termios* record);
int __real_tcflush(int fd, int queue);

int __wrap_open(const char* path, int flags, ...) {
    const int fd = __real_open(path, flags);  // the port passes no mode
    if (uart != nullptr && uart->path == path) {
        uart->port = fd;
    }
    return fd;
}

int __wrap_close(int fd) {
    if (const auto result = Scripted("close", fd)) {
        return static_cast<int>(*result);  // the descriptor stays open
    }
    if (OnPort(fd)) {
        uart->port = -1;
    }
    return __real_close(fd);
}

ssize_t __wrap_read(int fd, void* buffer, size_t count) {
    if (const auto result = Scripted("read", fd, &count)) {
        return *result;
    }
    if (OnPort(fd) && uart->echoed < uart->line.size()) {
        *static_cast<char*>(buffer) = uart->line[uart->echoed++];
        return 1;
    }
    return __real_read(fd, buffer, count);
}

ssize_t __wrap_write(int fd, const void* buffer, size_t count) {
    if (const auto result = Scripted("write", fd, &count)) {
        return *result;
    }
    if (OnPort(fd) && uart->echo) {
        uart->line.append(static_cast<const char*>(buffer), count);
        return static_cast<ssize_t>(count);
    }
    return __real_write(fd, buffer, count);
}

int __wrap_poll(pollfd* fds, nfds_t count, int timeout) {
    const auto result = Scripted("poll", fds->fd);
    return result ? static_cast<int>(*result) : __real_poll(fds, count, timeout);
}

int __wrap_tcgetattr(int fd, termios* record) {
    const int status = __real_tcgetattr(fd, record);
    if (OnPort(fd) && uart->charSize != 0) {
        record->c_cflag = (record->c_cflag & ~CSIZE) | uart->charSize;
    }
    return status;
}

int __wrap_tcsetattr(int fd, int when, const termios* record) {
    if (OnPort(fd)) {
        uart->applied.push_back(*record);
    }
    const auto result = Scripted("tcsetattr", fd);
    return result ? static_cast<int>(*result) : __real_tcsetattr(fd, when, record);
}

int __wrap_tcflush(int fd, int queue) {
    const auto result = Scripted("tcflush", fd);
    return result ? static_cast<int>(*result) : __real_tcflush(fd, queue);
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (const auto result = Scripted(request == TIOCMSET ? "TIOCMSET" : "ioctl", fd)) {
        return static_cast<int>(*result);
    }
    if (OnPort(fd) && request == TIOCMGET) {
        *static_cast<int*>(argument) = uart->modemWord;
    } else if (OnPort(fd) && request == TIOCMSET) {
        uart->modemWord = *static_cast<const int*>(argument);
    } else if (OnPort(fd) && request == TIOCGSERIAL) {
        *static_cast<serial_struct*>(argument) = uart->driverData;
    } else {
        return __real_ioctl(fd, request, argument);
    }
    return 0;
}

// 32-bit ARM on Debian 13 builds with 64-bit time and file offsets, where the
// serial code calls glibc's open64 and __ioctl_time64 instead: the same
// wrappers serve those names (no call of the port passes an offset or a time).
int __wrap_open64(const char* path, int flags, ...) __attribute__((alias("__wrap_open")));
int __wrap___ioctl_time64(int fd, unsigned long request, ...)
    __attribute__((alias("__wrap_ioctl")));
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

PtyUart::PtyUart() {
    std::array<char, 128> name{};
    if (openpty(&master, &slave, name.data(), nullptr, nullptr) != 0) {
        throw std::system_error(errno, std::system_category(), "openpty");
    }
    path = name.data();
    uart = this;
}

PtyUart::~PtyUart() {
    uart = nullptr;
    close(slave);
    close(master);
}

termios PtyUart::Attributes() const {
    termios record{};
    tcgetattr(slave, &record);
    return record;
}

void PtyUart::Send(const std::string& bytes) const {
    (void)write(master, bytes.data(), bytes.size());
    pollfd entry{slave, POLLIN, 0};
    (void)poll(&entry, 1, 1000);  // the pty hands them on a moment later
}

std::string PtyUart::Received() const {
    std::string bytes;
    std::array<char, 4096> chunk{};
    pollfd entry{master, POLLIN, 0};
    for (ssize_t got = 0;
         poll(&entry, 1, 100) > 0 && (got = read(master, chunk.data(), 4096)) > 0;) {
        bytes.append(chunk.data(), static_cast<size_t>(got));
    }
    return bytes;
}

int OpenDescriptors() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                          std::filesystem::directory_iterator()));
}
