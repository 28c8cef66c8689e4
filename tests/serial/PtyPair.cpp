#include "PtyPair.h"

#include <dirent.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace {

[[noreturn]] void ThrowErrno(const char* what) {
    throw std::system_error(errno, std::system_category(), what);
}

}  // namespace

PtyPair::PtyPair() {
    std::array<char, 128> name{};
    if (openpty(&master, &slave, name.data(), nullptr, nullptr) != 0) {
        ThrowErrno("openpty");
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
    if (tcgetattr(slave, &attributes) != 0) {
        ThrowErrno("tcgetattr");
    }
    return attributes;
}

void PtyPair::SetSlaveAttributes(const termios& attributes) const {
    if (tcsetattr(slave, TCSANOW, &attributes) != 0) {
        ThrowErrno("tcsetattr");
    }
}

void PtyPair::Send(const std::string& bytes) const {
    if (write(master, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        ThrowErrno("write to master");
    }
}

std::string PtyPair::Receive(std::size_t count, int timeoutMs) const {
    std::string bytes;
    std::array<char, 4096> chunk{};
    while (bytes.size() < count && MasterHasData(timeoutMs)) {
        const ssize_t got =
            read(master, chunk.data(), std::min(chunk.size(), count - bytes.size()));
        if (got <= 0) {
            break;
        }
        bytes.append(chunk.data(), static_cast<std::size_t>(got));
    }
    return bytes;
}

bool PtyPair::MasterHasData(int timeoutMs) const {
    pollfd entry{master, POLLIN, 0};
    return poll(&entry, 1, timeoutMs) > 0;
}

void PtyPair::CloseMaster() {
    close(master);
    master = -1;
}

int CountOpenDescriptors() {
    DIR* directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        ThrowErrno("opendir /proc/self/fd");
    }
    int count = 0;
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(directory);
    return count;
}

bool SameAttributes(const termios& lhs, const termios& rhs) {
    return lhs.c_iflag == rhs.c_iflag && lhs.c_oflag == rhs.c_oflag && lhs.c_cflag == rhs.c_cflag &&
           lhs.c_lflag == rhs.c_lflag && cfgetispeed(&lhs) == cfgetispeed(&rhs) &&
           cfgetospeed(&lhs) == cfgetospeed(&rhs) &&
           std::equal(std::begin(lhs.c_cc), std::end(lhs.c_cc), std::begin(rhs.c_cc));
}
