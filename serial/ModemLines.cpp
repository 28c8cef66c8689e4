#include <sys/ioctl.h>
#include <unistd.h>

#include "serial/SerialPort.h"
#include "serial/SystemError.h"

namespace {

// The UART's internal loop-back bit of the modem status word. The kernel
// defines it (asm-generic/termios.h) but glibc's <sys/ioctl.h> does not.
constexpr int kTiocmLoop = 0x8000;

int WithBit(int status, int bit, bool on) { return on ? (status | bit) : (status & ~bit); }

}  // namespace

void SerialPort::SetLoopback(bool on) const {
    CheckOpen();
    int status = 0;
    if (ioctl(fileDescriptor, TIOCMGET, &status) == -1) {
        serial_error::Throw(" SetLoopback TIOCMGET failed!");
    }
    // Every other line goes back as the driver reported it.
    status = WithBit(status, kTiocmLoop, on);
    if (ioctl(fileDescriptor, TIOCMSET, &status) == -1) {
        serial_error::Throw(" SetLoopback TIOCMSET failed!");
    }
}

// No open check: a closed port's descriptor is -1, so TIOCMGET fails with EBADF.
void SerialPort::SetRts(bool on) const {
    int status = 0;
    if (ioctl(fileDescriptor, TIOCMGET, &status) < 0) {
        serial_error::Throw("TIOCMGET failed?");
    }
    status = WithBit(status, TIOCM_RTS, on);
    if (ioctl(fileDescriptor, TIOCMSET, &status) < 0) {
        serial_error::Throw("TIOCMSET failed?");
    }
}

void SerialPort::FlushInputAndOutput() const {
    // The second flush drops input that arrived while the first one ran.
    if (tcflush(fileDescriptor, TCIOFLUSH) < 0 || tcflush(fileDescriptor, TCIFLUSH) < 0) {
        serial_error::Throw("SerialPort::FlushInputAndOutput: tcflush() failed!");
    }
}

std::int32_t SerialPort::GetNumOfAvailableBytes() const {
    int count = 0;
    if (ioctl(fileDescriptor, FIONREAD, &count) < 0) {
        serial_error::Throw("SerialPort::ReadAllAvailableData: FIONREAD failed!");
    }
    return count;
}

void SerialPort::ReadAllAvailableData() {
    // Counted once: bytes that arrive during the loop wait for the next call.
    const std::int32_t count = GetNumOfAvailableBytes();
    for (std::int32_t appended = 0; appended < count; ++appended) {
        std::uint8_t byte = 0;
        // A read that brings nothing ends the drain quietly; what was appended
        // so far stays buffered and the rest stays in the driver.
        if (read(fileDescriptor, &byte, 1) <= 0) {
            return;
        }
        receiveBuffer.push_back(byte);
    }
}
