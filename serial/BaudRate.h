#ifndef MEROVANE_SERIAL_BAUDRATE_H
#define MEROVANE_SERIAL_BAUDRATE_H

#include <termios.h>

#include <cstdint>

// Conversions between baud numbers (what users type and read) and the
// termios speed codes that cfsetispeed()/cfgetispeed() deal in.

// Returns the speed code for one of the rates a test may be run at, or 0 for
// any other number. 0 is B0 ("hang up"), which is never a valid test speed,
// so it doubles as the "unknown" mark.
speed_t BaudRateToSpeed(std::int32_t baudRate);

// Returns the baud number of a speed code, or 0 for a code it does not know.
// Knows more codes than BaudRateToSpeed so that a port left at a low rate by
// someone else can still be reported.
std::uint32_t SpeedToBaudRate(speed_t speed);

#endif
