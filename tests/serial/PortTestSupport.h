#ifndef MEROVANE_TESTS_SERIAL_PORTTESTSUPPORT_H
#define MEROVANE_TESTS_SERIAL_PORTTESTSUPPORT_H

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <iterator>
#include <ostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "serial/SerialPort.h"

// The test files keep their table rows in this same unnamed namespace, where
// gtest finds this: a row shows as its name instead of as a dump of its bytes.
namespace {
template <typename Row, typename = decltype(std::declval<const Row&>().name)>
std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.name;
}
}  // namespace

constexpr int kInvalidArgument = -1;  // std::invalid_argument has no error code

// Passes when call throws exactly this text: std::invalid_argument for
// kInvalidArgument, else std::system_error with this system error code.
template <typename Call>
testing::AssertionResult Throws(Call call, const std::string& what, int code) {
    std::string thrown = "nothing";
    try {
        call();
    } catch (const std::system_error& error) {
        if (error.code() == std::error_code(code, std::system_category()) && what == error.what()) {
            return testing::AssertionSuccess();
        }
        thrown = std::string(error.what()) + ", code " + std::to_string(error.code().value());
    } catch (const std::invalid_argument& error) {
        if (code == kInvalidArgument && what == error.what()) {
            return testing::AssertionSuccess();
        }
        thrown = error.what();
    }
    return testing::AssertionFailure() << "threw " << thrown;
}

// Setter calls for the tables.
using PortCall = std::function<void(SerialPort&)>;
inline PortCall SetBaud(speed_t value) {
    return [value](SerialPort& p) { p.SetBaudRate(value); };
}
inline PortCall Set(CharSize value) {
    return [value](SerialPort& p) { p.SetCharSize(value); };
}
inline PortCall Set(Parity value) {
    return [value](SerialPort& p) { p.SetParity(value); };
}
inline PortCall Set(StopBits value) {
    return [value](SerialPort& p) { p.SetNumOfStopBits(value); };
}
inline PortCall Set(FlowControl value) {
    return [value](SerialPort& p) { p.SetFlowControl(value); };
}

// A serial line: the port opens the slave, the master plays the far end. The
// driver has no modem lines, so a port on it can never pass Close.
class PtyPair {
  public:
    PtyPair();
    ~PtyPair();
    PtyPair(const PtyPair&) = delete;
    PtyPair& operator=(const PtyPair&) = delete;

    [[nodiscard]] const std::string& SlavePath() const { return slavePath; }
    [[nodiscard]] termios SlaveAttributes() const;
    void Send(const std::string& bytes) const;
    // What comes out at the far end, until count bytes have come or none has
    // come for timeoutMs.
    [[nodiscard]] std::string Receive(std::size_t count, int timeoutMs = 10000) const;
    [[nodiscard]] int Master() const { return master; }
    // Hangs the line up: the slave side sees the far end gone.
    void CloseMaster();

  private:
    int master = -1;
    int slave = -1;
    std::string slavePath;
};

// The simulated UART this program runs with (tests/simuart, preloaded): it has
// modem lines and keeps every attribute. A descriptor of the test's own reads
// and sets it, and gives back at the end what it had: it outlives the test.
class SimulatedUart {
  public:
    static constexpr const char* kPath = "/dev/ttyS2";

    SimulatedUart();
    ~SimulatedUart();
    SimulatedUart(const SimulatedUart&) = delete;
    SimulatedUart& operator=(const SimulatedUart&) = delete;

    [[nodiscard]] termios Attributes() const;
    void SetAttributes(const termios& set) const { EXPECT_EQ(tcsetattr(fd, TCSANOW, &set), 0); }
    [[nodiscard]] int Modem() const;
    void SetModem(int status) const { EXPECT_EQ(ioctl(fd, TIOCMSET, &status), 0); }

  private:
    int fd = -1;
    termios found{};
    int foundModem = 0;
};

// The next ioctl of this request fails with this error (0: none), which no
// healthy terminal does on demand. This program defines ioctl for it.
void FailNextIoctl(unsigned long request, int error);

// Entries in /proc/self/fd, the directory stream's own one included.
inline int CountOpenDescriptors() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                          std::filesystem::directory_iterator()));
}

// Compares the parts of two records that a device keeps.
bool SameAttributes(const termios& lhs, const termios& rhs);

#endif
