#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "serial/SerialPort.h"
#include "serial/SystemError.h"

namespace {

// EINTR: a signal came before the call moved any data. EAGAIN: only a
// non-blocking descriptor reports it, and Open makes the descriptor block.
bool IsTransient(int error) { return error == EINTR || error == EAGAIN; }

}  // namespace

void SerialPort::Write(const std::uint8_t* data, std::size_t length) const {
    CheckOpen();
    std::size_t remaining = length;
    while (remaining > 0) {
        const ssize_t writtenCount = write(fileDescriptor, data, remaining);
        if (writtenCount == -1) {
            if (IsTransient(errno)) {
                continue;
            }
            serial_error::Throw("Error writing to file descriptor: ");
        }
        if (writtenCount <= 0) {
            serial_error::Throw("Error writing to file descriptor. writtenCount <= 0.");
        }
        // A driver may take part of the block; the rest goes in the next call.
        remaining -= static_cast<std::size_t>(writtenCount);
        std::advance(data, writtenCount);
    }
}

void SerialPort::Write(const std::string& data) const {
    Write(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
}

std::uint8_t SerialPort::Read() const {
    CheckOpen();
    std::uint8_t byte = 0;
    for (;;) {
        const ssize_t readCount = read(fileDescriptor, &byte, 1);
        if (readCount > 0) {
            return byte;
        }
        if (readCount == 0) {
            serial_error::Throw("SerialPort ReadCount 0");
        }
        if (!IsTransient(errno)) {
            serial_error::Throw("Error reading from file descriptor: ");
        }
    }
}

bool SerialPort::IsDataReceived(std::int32_t timeoutMs) const {
    if (!isOpen) {
        return false;
    }
    pollfd entry{fileDescriptor, POLLIN, 0};
    // An error or hang-up also ends the wait and counts as data: the Read that
    // follows reports what is wrong.
    const int ready = poll(&entry, 1, timeoutMs);
    if (ready < 0) {
        serial_error::Throw("SerialPort::IsDataReceived: poll() failed!");
    }
    return ready > 0;
}

bool SerialPort::HasBufferedData() const {
    CheckOpen();
    return !receiveBuffer.empty();
}

void SerialPort::ReadBufferedData(std::vector<std::uint8_t>& data, std::size_t count) {
    CheckOpen();
    data.clear();
    if (count > 0) {
        data.reserve(count);
    }
    // Asking for more than is buffered hands out what there is: the copy stops
    // at the end of the queue rather than reading past it.
    const std::size_t moveCount =
        count == 0 ? receiveBuffer.size() : std::min(count, receiveBuffer.size());
    const auto end = std::next(receiveBuffer.begin(), static_cast<std::ptrdiff_t>(moveCount));
    data.insert(data.end(), receiveBuffer.begin(), end);
    receiveBuffer.erase(receiveBuffer.begin(), end);
}
