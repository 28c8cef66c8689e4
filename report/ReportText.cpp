#include "report/ReportText.h"

#include <sstream>

#include "serial/BaudRate.h"

std::string FormatSpeeds(const termios& settings) {
    std::ostringstream text;
    text << "Output Baudrate: " << SpeedToBaudRate(cfgetospeed(&settings)) << "\n"
         << "Input  Baudrate: " << SpeedToBaudRate(cfgetispeed(&settings)) << "\n";
    return text.str();
}

const char* FlowControlName(FlowControl flowControl) {
    switch (flowControl) {
        case FlowControl::Hardware:
            return "Hardware";
        case FlowControl::Software:
            return "Software";
        case FlowControl::None:
            return "None";
    }
    return "Invalid";
}

std::string FormatDriverData(FlowControl flowControl, const serial_struct& driverData,
                             bool terminalAttributesSupported) {
    std::ostringstream text;
    // The flags are a bit mask (ASYNC_*), so they read best in hex; the cast
    // shows a negative mask as its 32 bits rather than with a sign.
    text << "Flowcontrol: " << FlowControlName(flowControl) << "\n"
         << "Baud Base:     " << driverData.baud_base << "\n"
         << "FIFO Size:     " << driverData.xmit_fifo_size << "\n"
         << "Flags:       0x" << std::hex << static_cast<unsigned>(driverData.flags) << std::dec
         << "\n"
         << "IRQ:           " << driverData.irq << "\n"
         << "Divisor:       " << driverData.custom_divisor << "\n";
    if (!terminalAttributesSupported) {
        text << "Terminal Attributes are NOT supported!\n";
    }
    return text.str();
}
