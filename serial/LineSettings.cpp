#include "serial/LineSettings.h"

#include <cerrno>
#include <sstream>
#include <stdexcept>

#include "serial/SerialPort.h"
#include "serial/SystemError.h"

namespace line_settings {

termios MakeRawRecord() {
    termios record{};
    // CLOCAL: the modem lines do not gate the port; CREAD: the receiver is on.
    record.c_cflag |= CLOCAL | CREAD;
    record.c_cc[VMIN] = 0;
    record.c_cc[VTIME] = 0;
    // Also sets VMIN 1 and VTIME 0: a read returns as soon as one byte is there,
    // with no inter-character timer.
    cfmakeraw(&record);
    return record;
}

void ApplyBaudRate(termios& record, speed_t speed) {
    if (cfsetispeed(&record, speed) < 0 || cfsetospeed(&record, speed) < 0) {
        serial_error::Throw("Unsupported baud rate.");
    }
}

void ApplyCharSize(termios& record, CharSize charSize) {
    record.c_cflag &= ~CSIZE;
    record.c_cflag |= static_cast<tcflag_t>(charSize);
}

void ApplyParity(termios& record, Parity parity) {
    // INPCK and IGNPAR are only ever added: a port switched from parity to none
    // keeps checking input, which is harmless once PARENB is off.
    switch (parity) {
        case Parity::Even:
            record.c_cflag |= PARENB;
            record.c_cflag &= ~PARODD;
            record.c_iflag |= INPCK;
            return;
        case Parity::Odd:
            record.c_cflag |= PARENB | PARODD;
            record.c_iflag |= INPCK;
            return;
        case Parity::None:
            record.c_cflag &= ~PARENB;
            record.c_iflag |= IGNPAR;
            return;
    }
    throw std::invalid_argument("Invalid parity setting.");
}

void ApplyStopBits(termios& record, StopBits numOfStopBits) {
    switch (numOfStopBits) {
        case StopBits::One:
            record.c_cflag &= ~CSTOPB;
            return;
        case StopBits::Two:
            record.c_cflag |= CSTOPB;
            return;
    }
    throw std::invalid_argument("Invalid number of stop bits.");
}

void ApplyFlowControl(termios& record, FlowControl flowControl) {
    // Checked before cfmakeraw so that a bad value leaves the record alone.
    if (flowControl != FlowControl::Hardware && flowControl != FlowControl::Software &&
        flowControl != FlowControl::None) {
        throw std::invalid_argument("Invalid flow control.");
    }
    cfmakeraw(&record);
    switch (flowControl) {
        case FlowControl::Hardware:
            record.c_cflag |= CRTSCTS;
            break;
        case FlowControl::Software:
            record.c_iflag |= IXON | IXOFF | IXANY;
            break;
        case FlowControl::None:
            record.c_cflag &= ~CRTSCTS;
            break;
    }
}

CharSize CharSizeOf(const termios& record) { return static_cast<CharSize>(record.c_cflag & CSIZE); }

Parity ParityOf(const termios& record) {
    if ((record.c_cflag & PARENB) == 0) {
        return Parity::None;
    }
    return (record.c_cflag & PARODD) != 0 ? Parity::Odd : Parity::Even;
}

StopBits StopBitsOf(const termios& record) {
    return (record.c_cflag & CSTOPB) != 0 ? StopBits::Two : StopBits::One;
}

FlowControl FlowControlOf(const termios& record) {
    // IXON alone decides for software flow control: every flow-control setting
    // starts with cfmakeraw, which clears IXON, and only Software sets it again,
    // whereas IXOFF and IXANY outlive a later Hardware or None setting.
    if ((record.c_iflag & IXON) != 0) {
        return FlowControl::Software;
    }
    return (record.c_cflag & CRTSCTS) != 0 ? FlowControl::Hardware : FlowControl::None;
}

}  // namespace line_settings

void SerialPort::GetPortSettings(termios& settings) const {
    if (!terminalAttributesSupported) {
        return;
    }
    if (tcgetattr(fileDescriptor, &settings) != 0) {
        serial_error::Throw("Get the current port settings failed?");
    }
}

void SerialPort::SetPortSettings(const termios& settings, const std::string& context) const {
    if (!terminalAttributesSupported) {
        return;
    }
    if (tcsetattr(fileDescriptor, TCSANOW, &settings) != 0) {
        const int error = errno;
        std::ostringstream message;
        message << "SerialPort::SetPortSettings(): Setting the attributes of the serial port '"
                << deviceName << "' failed?" << context;
        serial_error::Throw(error, message.str());
    }
}

termios SerialPort::CurrentSettings() const {
    CheckOpen();
    termios record{};
    GetPortSettings(record);
    return record;
}

void SerialPort::SetBaudRate(speed_t newBaudRate) {
    termios record = CurrentSettings();
    line_settings::ApplyBaudRate(record, newBaudRate);
    SetPortSettings(record, "Unsupported baud rate.");
    baudRate = newBaudRate;
}

// No open check: on a closed port the read of the attributes fails instead.
speed_t SerialPort::GetBaudRate() const {
    termios record{};
    GetPortSettings(record);
    return cfgetispeed(&record);
}

void SerialPort::SetCharSize(CharSize newCharSize) {
    termios record = CurrentSettings();
    line_settings::ApplyCharSize(record, newCharSize);
    SetPortSettings(record, "Invalid character size setting.");
    charSize = newCharSize;
}

CharSize SerialPort::GetCharSize() const { return line_settings::CharSizeOf(CurrentSettings()); }

void SerialPort::SetParity(Parity newParity) {
    termios record = CurrentSettings();
    line_settings::ApplyParity(record, newParity);
    SetPortSettings(record, "Invalid parity setting.");
    parity = newParity;
}

Parity SerialPort::GetParity() const { return line_settings::ParityOf(CurrentSettings()); }

void SerialPort::SetNumOfStopBits(StopBits newNumOfStopBits) {
    termios record = CurrentSettings();
    line_settings::ApplyStopBits(record, newNumOfStopBits);
    SetPortSettings(record, "Invalid number of stop bits.");
    numOfStopBits = newNumOfStopBits;
}

StopBits SerialPort::GetNumOfStopBits() const {
    return line_settings::StopBitsOf(CurrentSettings());
}

void SerialPort::SetFlowControl(FlowControl newFlowControl) {
    termios record = CurrentSettings();
    line_settings::ApplyFlowControl(record, newFlowControl);
    SetPortSettings(record, "Invalid flow control.");
    flowControl = newFlowControl;
}

FlowControl SerialPort::GetFlowControl() const {
    return line_settings::FlowControlOf(CurrentSettings());
}

void SerialPort::Open(speed_t newBaudRate, CharSize newCharSize, Parity newParity,
                      StopBits newNumOfStopBits, FlowControl newFlowControl) {
    Open();
    // Flow control last: it resets the character size and parity bits.
    SetBaudRate(newBaudRate);
    SetCharSize(newCharSize);
    SetParity(newParity);
    SetNumOfStopBits(newNumOfStopBits);
    SetFlowControl(newFlowControl);
}
