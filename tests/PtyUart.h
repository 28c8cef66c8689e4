#ifndef MEROVANE_TESTS_PTYUART_H
#define MEROVANE_TESTS_PTYUART_H

#include <linux/serial.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <cstring>
#include <exception>
#include <map>
#include <ostream>
#include <queue>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

// A pseudo-terminal in the place of the UART. Its termios, reads, writes and
// flushes are a real tty's; what a pty lacks (modem lines, the serial
// driver's data, failures on demand) comes from wrapping the C library calls
// of the serial code (-Wl,--wrap, PtyUart.cpp). Only calls on the descriptor
// that the port opened on the pty are touched.
struct PtyUart {
    // modemLines: TIOCMGET/TIOCMSET work on modemWord and TIOCGSERIAL gives
    // driverData, as on a UART; otherwise the pty's own ENOTTY.
    explicit PtyUart(bool modemLines = true);
    ~PtyUart();
    PtyUart(const PtyUart&) = delete;
    PtyUart& operator=(const PtyUart&) = delete;

    // What the next calls of a function on the port do, in turn: -errno fails
    // with that errno; 0 returns 0 and does nothing; n > 0 goes through,
    // reading or writing at most n bytes.
    void Script(const std::string& function, const std::vector<long>& outcomes);
    [[nodiscard]] termios Attributes() const;
    void Send(const std::string& bytes) const;  // from the far end
    [[nodiscard]] std::string Received() const;

    std::string path;
    int master = -1;
    int slave = -1;  // keeps the pty, and its attributes, between opens
    int port = -1;
    bool modemLines;
    int modemWord = TIOCM_DTR | TIOCM_RTS;
    serial_struct driverData{};
    tcflag_t charSize = 0;  // non-zero: tcgetattr reports these CSIZE bits
    bool echo = false;      // a far end that returns each byte at once
    std::string line;       // what it is to return
    std::map<std::string, std::queue<long>> script;
    std::map<std::string, int> calls;  // on the port, by function
    std::vector<termios> applied;      // every record the port set
};

// The UART's internal loop-back bit, which glibc's headers leave out.
constexpr int kLoop = 0x8000;

// What call throws, as its text and, for a system error, its errno's name.
template <typename Call>
std::string Thrown(Call call) {
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

// Table rows show as their names.
namespace {
template <typename Row, typename = decltype(std::declval<const Row&>().name)>
std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.name;
}
}  // namespace

#endif
