#ifndef MEROVANE_APP_LOOPBACKRUN_H
#define MEROVANE_APP_LOOPBACKRUN_H

#include <istream>

#include "app/CommandLine.h"
#include "serial/SerialPort.h"

// Runs the test on "/dev/ttyS2" and returns the process's exit status: 0
// when the input is used up (or can't be opened), 1 when the port fails.
// A byte that comes back different, and the single byte of the 0x55 mode,
// end the process at once with status 0, leaving the port as the test set it
// so that it can be examined afterwards.
int RunLoopback(const RunSettings& settings);

// The byte loop of file mode: sends the bytes of input one at a time and
// reads each back, printing a dot for every 100 that match and a line end
// for every 30000. The first byte that comes back different ends the process
// the same way as above.
void SendFile(SerialPort& port, std::istream& input);

#endif
