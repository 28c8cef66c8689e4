#ifndef MEROVANE_REPORT_PORTREPORT_H
#define MEROVANE_REPORT_PORTREPORT_H

#include <string>

#include "serial/SerialPort.h"

// Describes the port (device, speeds, flow control) and the serial driver's
// data for the line, one "\n"-terminated line each, and returns the text.
// An open port is closed and opened again with its stored line settings
// afterwards, which also switches its internal loop-back off. A port that is
// not open is only named. Throws when the driver's data can't be read; the
// port is then left as it was.
std::string PrintPortReport(SerialPort& port);

#endif
