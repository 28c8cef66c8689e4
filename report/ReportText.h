#ifndef MEROVANE_REPORT_REPORTTEXT_H
#define MEROVANE_REPORT_REPORTTEXT_H

#include <linux/serial.h>
#include <termios.h>

#include <string>

#include "serial/SerialPort.h"

// The text of the port report, kept apart from the device calls that gather
// its values so that every label and number format can be checked without a
// UART. Each function returns whole lines ending in "\n".

// Output rate, then input rate, as baud numbers (0 for a code with no name).
std::string FormatSpeeds(const termios& settings);

const char* FlowControlName(FlowControl flowControl);

// Flow control, the driver's data for the line, and the warning for a device
// whose terminal attributes are not used.
std::string FormatDriverData(FlowControl flowControl, const serial_struct& driverData,
                             bool terminalAttributesSupported);

#endif
