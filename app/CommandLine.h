#ifndef MEROVANE_APP_COMMANDLINE_H
#define MEROVANE_APP_COMMANDLINE_H

#include <termios.h>

#include <string>

// Process-wide switches set by the command line and read by the test run.
extern bool loopback;
extern bool send55;

// The settings that belong to the entry function.
struct RunSettings {
    speed_t speed;
    std::string inputFileName;
};

// Prints the example line, then reads the options from left to right. An
// option error writes its message to standard error and ends the process
// (status 1, or 255 for a baud rate the tool does not know); no device has
// been touched at that point.
RunSettings ReadCommandLine(int argc, char* argv[]);

#endif
