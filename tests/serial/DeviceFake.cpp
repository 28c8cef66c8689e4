#include "DeviceFake.h"

#include <dlfcn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>

#include <cerrno>
#include <cstdarg>
#include <stdexcept>

struct DeviceFake::State {
    dev_t device = 0;
    bool modem = false;
    int status = 0;
    int modemWrites = 0;
    unsigned long failedRequest = 0;
    int requestError = 0;
    int attributeWriteError = 0;
};

namespace {

// The state of the fake that is attached, if any.
DeviceFake::State* fake = nullptr;

bool IsFakedDevice(int descriptor) {
    struct stat info {};
    return fake != nullptr && fstat(descriptor, &info) == 0 && S_ISCHR(info.st_mode) &&
           info.st_rdev == fake->device;
}

// The next definition after this binary's: glibc's, or a sanitizer's wrapper
// around it.
template <typename Function>
Function Next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

bool TakeFailure(int& error) {
    if (error == 0) {
        return false;
    }
    errno = error;
    error = 0;
    return true;
}

}  // namespace

// Every request the serial library makes passes an address, so the variadic
// argument is taken as a pointer.
// glibc's declaration names its parameters with reserved identifiers.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);

    if (IsFakedDevice(descriptor)) {
        if (request == TIOCMSET) {
            ++fake->modemWrites;
        }
        if (request == fake->failedRequest && TakeFailure(fake->requestError)) {
            return -1;
        }
        if (fake->modem && request == TIOCMGET) {
            *static_cast<int*>(argument) = fake->status;
            return 0;
        }
        if (fake->modem && request == TIOCMSET) {
            fake->status = *static_cast<const int*>(argument);
            return 0;
        }
    }
    using IoctlFunction = int (*)(int, unsigned long, ...);
    static const auto real = Next<IoctlFunction>("ioctl");
    return real(descriptor, request, argument);
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int tcsetattr(int descriptor, int when, const termios* record) noexcept {
    if (IsFakedDevice(descriptor) && TakeFailure(fake->attributeWriteError)) {
        return -1;
    }
    using TcsetattrFunction = int (*)(int, int, const termios*);
    static const auto real = Next<TcsetattrFunction>("tcsetattr");
    return real(descriptor, when, record);
}

DeviceFake::DeviceFake(const std::string& devicePath) : state(std::make_unique<State>()) {
    struct stat info {};
    if (fake != nullptr || stat(devicePath.c_str(), &info) != 0) {
        throw std::runtime_error("DeviceFake: cannot attach to " + devicePath);
    }
    state->device = info.st_rdev;
    fake = state.get();
}

DeviceFake::~DeviceFake() { fake = nullptr; }

void DeviceFake::EmulateModem(int status) const {
    state->modem = true;
    state->status = status;
}

int DeviceFake::ModemStatus() const { return state->status; }

int DeviceFake::ModemWrites() const { return state->modemWrites; }

void DeviceFake::FailNextIoctl(unsigned long request, int error) const {
    state->failedRequest = request;
    state->requestError = error;
}

void DeviceFake::FailNextAttributeWrite(int error) const { state->attributeWriteError = error; }
