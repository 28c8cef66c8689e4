#ifndef MEROVANE_SERIAL_SYSTEMERROR_H
#define MEROVANE_SERIAL_SYSTEMERROR_H

#include <cerrno>
#include <string>
#include <system_error>

namespace serial_error {

// Throws the error code the caller captured right after the failed call; for
// messages that have to be composed first, since composing may touch errno.
[[noreturn]] inline void Throw(int error, const std::string& message) {
    throw std::system_error(error, std::system_category(), message);
}

// Throws with errno as it is on entry, before anything else can change it.
[[noreturn]] inline void Throw(const char* message) {
    const int error = errno;
    throw std::system_error(error, std::system_category(), message);
}

}  // namespace serial_error

#endif
