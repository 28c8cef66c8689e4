#include "serial/SerialPort.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <utility>

#include "serial/LineSettings.h"
#include "serial/SystemError.h"

namespace {

// Linux may report EINTR from close; the descriptor is retried until the
// call says something else. Any other failure leaves nothing to undo.
void CloseDescriptor(int descriptor) noexcept {
    while (close(descriptor) == -1 && errno == EINTR) {
    }
}

// Gives up a descriptor that Open has not yet handed to the object, keeping
// the errno of the call that failed.
[[noreturn]] void AbandonOpen(int descriptor, const char* message) {
    const int error = errno;
    CloseDescriptor(descriptor);
    serial_error::Throw(error, message);
}

}  // namespace

SerialPort::SerialPort(std::string deviceName, bool terminalAttributesSupported)
    : deviceName(std::move(deviceName)), terminalAttributesSupported(terminalAttributesSupported) {
    try {
        Open();
    } catch (...) {
        // A failure after the port counts as open would otherwise leak the
        // descriptor: no object is left to close it.
        CloseWithoutThrowing();
        throw;
    }
}

SerialPort::~SerialPort() { CloseWithoutThrowing(); }

void SerialPort::Open() {
    if (isOpen) {
        serial_error::Throw("Serial port already open.");
    }
    const int descriptor = open(deviceName.c_str(), O_RDWR | O_NOCTTY);
    if (descriptor == -1) {
        serial_error::Throw("Open Serial Port failed?");
    }
    // Clears every file status flag, O_NONBLOCK included, so that reads and
    // writes block. Nothing depends on it succeeding.
    (void)fcntl(descriptor, F_SETFL, 0);

    if (terminalAttributesSupported) {
        if (tcgetattr(descriptor, &savedSettings) != 0) {
            AbandonOpen(descriptor, "Save the current settings for serial port failed?");
        }
        const termios raw = line_settings::MakeRawRecord();
        // TCSAFLUSH: the switch to raw mode also drops input read in the old mode.
        if (tcsetattr(descriptor, TCSAFLUSH, &raw) != 0) {
            AbandonOpen(descriptor, "Write new settings failed?");
        }
    }
    if (tcflush(descriptor, TCIFLUSH) != 0) {
        AbandonOpen(descriptor, "Flush of the input buffer failed?");
    }

    fileDescriptor = descriptor;
    isOpen = true;

    FlushInputAndOutput();
    ReadAllAvailableData();
    // Whatever was on the line before the port was opened is never handed out.
    receiveBuffer = std::deque<std::uint8_t>();
}

void SerialPort::Close() {
    CheckOpen();
    SetLoopback(false);
    if (terminalAttributesSupported && tcsetattr(fileDescriptor, TCSANOW, &savedSettings) != 0) {
        const int error = errno;
        std::ostringstream message;
        message << "SerialPort::Close(): Setting the attributes of the serial port '" << deviceName
                << "' failed?";
        serial_error::Throw(error, message.str());
    }
    ReleaseDescriptor();
}

bool SerialPort::IsOpen() const { return isOpen; }

void SerialPort::CheckOpen() const {
    if (!isOpen) {
        serial_error::Throw("Serial port not open.");
    }
}

void SerialPort::ReleaseDescriptor() noexcept {
    CloseDescriptor(fileDescriptor);
    isOpen = false;
    fileDescriptor = -1;
}

void SerialPort::CloseWithoutThrowing() noexcept {
    if (!isOpen) {
        return;
    }
    try {
        Close();
    } catch (...) {
        // Nobody is left to report to. A device whose driver rejects the
        // loop-back ioctls (a pseudo-terminal, say) can never pass Close, so the
        // object still owes the device its attributes and must give up the
        // descriptor, or every such port would leak one.
        if (terminalAttributesSupported) {
            (void)tcsetattr(fileDescriptor, TCSANOW, &savedSettings);
        }
        ReleaseDescriptor();
    }
}
