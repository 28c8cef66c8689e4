#ifndef MEROVANE_TESTS_PTYUART_H
#define MEROVANE_TESTS_PTYUART_H

#include <linux/serial.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <cstring>
#include <deque>
#include <exception>
#include <map>
#include <string>
#include <system_error>
#include <vector>

// A pseudo-terminal in the place of the UART: termios, reads, writes and
// flushes are a real tty's. What a pty lacks (modem lines, the driver's data,
// failures on demand) comes from wrapping the serial code's C library calls
// (-Wl,--wrap, PtyUart.cpp), on the descriptor the port opened on the pty.
struct PtyUart {
    PtyUart();
    ~PtyUart();
    PtyUart(const PtyUart&) = delete;
    PtyUart& operator=(const PtyUart&) = delete;

    [[nodiscard]] termios Attributes() const;
    void Send(const std::string& bytes) const;  // from the far end
    [[nodiscard]] std::string Received() const;

    std::string path;
    int master = -1;
    int slave = -1;  // keeps the pty, and its attributes, between opens
    int port = -1;
    int modemWord = TIOCM_DTR | TIOCM_RTS;  // what TIOCMGET and TIOCMSET work on
    serial_struct driverData{};             // what TIOCGSERIAL gives
    tcflag_t charSize = 0;                  // non-zero: tcgetattr reports these CSIZE bits
    bool echo = false;                      // a far end that returns each byte at once:
    std::string line;                       // what the port wrote,
    size_t echoed = 0;                      // and how much of it came back
    // What the next calls of a function on the port do, in turn: -errno fails
    // with that errno; 0 returns 0 and does nothing; n > 0 goes through,
    // reading or writing at most n bytes.
    std::map<std::string, std::deque<long>> script;
    std::map<std::string, int> calls;  // on the port, by function
    std::vector<termios> applied;      // every record the port set
};

// The UART's internal loop-back bit, which glibc's headers leave out.
constexpr int kLoop = 0x8000;

// What call throws, as its text and, for a system error, its errno's name.
template <typename Call>
std::string Thrown(const Call& call) {
    try {
        call();
    } catch (const std::system_error& error) {
        return std::string(error.what()) + " [" + strerrorname_np(error.code().value()) + "]";
    } catch (const std::exception& error) {
        return error.what();
    }
    return "nothing";
}

int OpenDescriptors();

#endif
