#include "PortTestSupport.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

namespace {
unsigned long failingRequest = 0;
int failingError = 0;
}  // namespace

void FailNextIoctl(unsigned long request, int error) {
    failingRequest = request;
    failingError = error;
}

// The serial library binds to this definition, the next one is the simulated
// UART's or glibc's. glibc names its parameters with reserved identifiers.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (failingError != 0 && request == failingRequest) {
        errno = std::exchange(failingError, 0);
        return -1;
    }
    using Ioctl = int (*)(int, unsigned long, ...);
    static const auto next = reinterpret_cast<Ioctl>(dlsym(RTLD_NEXT, "ioctl"));
    return next(fd, request, argument);
}

PtyPair::PtyPair() {
    std::array<char, 128> name{};
    if (openpty(&master, &slave, name.data(), nullptr, nullptr) != 0) {
        throw std::system_error(errno, std::system_category(), "openpty");
    }
    slavePath = name.data();
}

PtyPair::~PtyPair() {
    close(slave);
    if (master != -1) {
        close(master);
    }
}

termios PtyPair::SlaveAttributes() const {
    termios attributes{};
    EXPECT_EQ(tcgetattr(slave, &attributes), 0);
    return attributes;
}

void PtyPair::Send(const std::string& bytes) const {
    EXPECT_EQ(write(master, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string PtyPair::Receive(std::size_t count, int timeoutMs) const {
    std::string bytes;
    std::array<char, 4096> chunk{};
    pollfd entry{master, POLLIN, 0};
    while (bytes.size() < count && poll(&entry, 1, timeoutMs) > 0) {
        const ssize_t got =
            read(master, chunk.data(), std::min(chunk.size(), count - bytes.size()));
        if (got <= 0) {
            break;
        }
        bytes.append(chunk.data(), static_cast<std::size_t>(got));
    }
    return bytes;
}

void PtyPair::CloseMaster() {
    close(master);
    master = -1;
}

SimulatedUart::SimulatedUart() {
    // Without the preload the path could name a real port of the host.
    const char* preload = std::getenv("LD_PRELOAD");
    if (preload == nullptr || std::strstr(preload, "simuart") == nullptr) {
        throw std::runtime_error("run with the simulated UART preloaded (tests/simuart)");
    }
    fd = open(kPath, O_RDWR | O_NOCTTY);
    if (fd == -1) {
        throw std::system_error(errno, std::system_category(), kPath);
    }
    found = Attributes();
    foundModem = Modem();
}

SimulatedUart::~SimulatedUart() {
    SetAttributes(found);
    SetModem(foundModem);
    close(fd);
}

termios SimulatedUart::Attributes() const {
    termios attributes{};
    EXPECT_EQ(tcgetattr(fd, &attributes), 0);
    return attributes;
}

int SimulatedUart::Modem() const {
    int status = 0;
    EXPECT_EQ(ioctl(fd, TIOCMGET, &status), 0);
    return status;
}

bool SameAttributes(const termios& lhs, const termios& rhs) {
    return lhs.c_iflag == rhs.c_iflag && lhs.c_oflag == rhs.c_oflag && lhs.c_cflag == rhs.c_cflag &&
           lhs.c_lflag == rhs.c_lflag && cfgetispeed(&lhs) == cfgetispeed(&rhs) &&
           cfgetospeed(&lhs) == cfgetospeed(&rhs) &&
           std::equal(std::begin(lhs.c_cc), std::end(lhs.c_cc), std::begin(rhs.c_cc));
}
