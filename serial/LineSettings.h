#ifndef MEROVANE_SERIAL_LINESETTINGS_H
#define MEROVANE_SERIAL_LINESETTINGS_H

#include <termios.h>

#include "serial/SerialPort.h"

// Each line setting as a change to, or a reading of, a termios record. They
// touch no device; SerialPort reads the record, applies one of these and
// writes it back. A value outside its enumeration throws
// std::invalid_argument and leaves the record as it was.
namespace line_settings {

// What Open applies: raw mode, receiver on, modem lines ignored, 8 bits, no
// parity, and no speed bits (B0) until a baud rate is set.
termios MakeRawRecord();

// Sets both directions; throws std::system_error "Unsupported baud rate." for
// a code the platform rejects.
void ApplyBaudRate(termios& record, speed_t speed);
void ApplyCharSize(termios& record, CharSize charSize);
void ApplyParity(termios& record, Parity parity);
void ApplyStopBits(termios& record, StopBits numOfStopBits);
// Starts from cfmakeraw, so it also resets the character size to 8 bits and
// switches parity off.
void ApplyFlowControl(termios& record, FlowControl flowControl);

CharSize CharSizeOf(const termios& record);
Parity ParityOf(const termios& record);
StopBits StopBitsOf(const termios& record);
FlowControl FlowControlOf(const termios& record);

}  // namespace line_settings

#endif
