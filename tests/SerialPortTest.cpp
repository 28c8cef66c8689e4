#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "PtyUart.h"
#include "serial/SerialPort.h"

namespace {

using PortCall = std::function<std::string(SerialPort&, PtyUart&)>;
const std::string kEdom = ": Numerical argument out of domain [EDOM]";
const std::string kNoTty = ": Inappropriate ioctl for device [ENOTTY]";
const std::string kEio = ": Input/output error [EIO]";

const PortCall kClose = [](SerialPort& port, PtyUart&) { return port.Close(), ""; };
const PortCall kSetRts = [](SerialPort& port, PtyUart&) { return port.SetRts(true), ""; };
const PortCall kWrite = [](SerialPort& port, PtyUart& uart) {
    return port.Write("hello"), uart.Received();
};
const PortCall kRead = [](SerialPort& port, PtyUart& uart) {
    return uart.Send("x"), std::string(1, static_cast<char>(port.Read()));
};
const PortCall kWait = [](SerialPort& port, PtyUart& uart) {
    return uart.Send("x"), std::to_string(port.IsDataReceived(-1));
};

TEST(SerialPort, FailedOpenLeavesNoDescriptorOpen) {
    const auto check = [](const char* path, bool attributes, const char* function,
                          std::deque<long> outcomes, const std::string& thrown) {
        SCOPED_TRACE(thrown);
        PtyUart uart;
        uart.script[function] = std::move(outcomes);
        const int descriptors = OpenDescriptors();
        EXPECT_EQ(Thrown([&] { const SerialPort port(path ? path : uart.path, attributes); }),
                  thrown);
        EXPECT_EQ(OpenDescriptors(), descriptors);
    };
    check("/nonexistent", true, "", {},
          "Open Serial Port failed?: No such file or directory [ENOENT]");
    check("/dev/null", true, "", {}, "Save the current settings for serial port failed?" + kNoTty);
    check("/dev/null", false, "", {}, "Flush of the input buffer failed?" + kNoTty);
    check(nullptr, true, "tcsetattr", {-EIO}, "Write new settings failed?" + kEio);
    // By now the port counts as open, and no object is left to close it.
    check(nullptr, true, "tcflush", {1, 1, -EIO},
          "SerialPort::FlushInputAndOutput: tcflush() failed!" + kEio);
    check(nullptr, true, "ioctl", {-EIO},
          "SerialPort::ReadAllAvailableData: FIONREAD failed!" + kEio);
}

TEST(SerialPort, OpensRawAndClosesBackToWhatItFound) {
    const PtyUart uart;
    termios found = uart.Attributes();
    cfsetspeed(&found, B2400);
    tcsetattr(uart.slave, TCSANOW, &found);
    const int descriptors = OpenDescriptors();

    SerialPort port(uart.path, true);
    // Receiver on, modem lines ignored, 8 bits, no speed until one is set;
    // a read returns as soon as one byte is there.
    const termios raw = uart.Attributes();
    EXPECT_EQ(raw.c_cflag, static_cast<tcflag_t>(CLOCAL | CREAD | CS8));
    EXPECT_EQ(raw.c_iflag | raw.c_oflag | raw.c_lflag, 0U);
    EXPECT_EQ((raw.c_cc[VMIN] * 10) + raw.c_cc[VTIME], 10);
    port.SetLoopback(true);
    EXPECT_EQ(uart.modemWord, TIOCM_DTR | TIOCM_RTS | kLoop);
    errno = EDOM;
    EXPECT_EQ(Thrown([&] { port.Open(); }), "Serial port already open." + kEdom);
    EXPECT_EQ(Thrown([&] {
                  port.Open(B9600, CharSize::Bits8, Parity::None, StopBits::Two, FlowControl::None);
              }),
              "Serial port already open." + kEdom);
    EXPECT_EQ(port.GetNumOfStopBits(), StopBits::One);

    port.SetRts(false);
    port.Close();
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(uart.modemWord, TIOCM_DTR);  // each switch changes its own bit alone
    EXPECT_EQ(uart.Attributes().c_cflag, found.c_cflag);
    EXPECT_EQ(uart.Attributes().c_lflag, found.c_lflag);
    EXPECT_EQ(Thrown([&] { port.Close(); }), "Serial port not open." + kEdom);
}

TEST(SerialPort, WithoutTerminalAttributesHandsOutNothingThatWaited) {
    PtyUart uart;
    uart.Send("stale\n");                // the pty is in canonical mode still: whole lines only
    uart.script["tcflush"] = {0, 0, 0};  // flushes that miss bytes still on their way
    SerialPort port(uart.path, false);
    EXPECT_FALSE(port.HasBufferedData());
    EXPECT_FALSE(port.IsDataReceived(0));
    // The settings are only stored, and the getters see an all-zero record.
    port.Close();
    port.Open(B57600, CharSize::Bits7, Parity::Odd, StopBits::Two, FlowControl::Hardware);
    EXPECT_EQ(port.GetBaudRate() + static_cast<speed_t>(port.GetCharSize()), 0U);
    EXPECT_EQ(port.GetFlowControl(), FlowControl::None);
    EXPECT_EQ(port.GetParity(), Parity::None);
    port.Close();
    EXPECT_TRUE(uart.applied.empty());
}

TEST(SerialPort, RetriesCloseOnlyWhenInterrupted) {
    for (const auto& [error, calls] : {std::pair{EINTR, 2}, std::pair{EIO, 1}}) {
        PtyUart uart;
        SerialPort port(uart.path, true);
        uart.script["close"] = {-error};
        port.Close();
        EXPECT_EQ(uart.calls["close"], calls) << error;
        EXPECT_FALSE(port.IsOpen());
        close(uart.port);  // what the failed close left open
    }
}

TEST(SerialPort, FailsOrRetriesAndKeepsThePortUntilItIsDestroyed) {
    // The function's next calls on the port have these outcomes; the call
    // must then give this result or throw it ("PTY" stands for the device).
    const auto check = [](const char* function, std::deque<long> outcomes, const PortCall& call,
                          std::string result) {
        SCOPED_TRACE(result);
        PtyUart uart;
        const int descriptors = OpenDescriptors();
        {
            SerialPort port(uart.path, true);
            uart.script[function] = std::move(outcomes);
            if (const auto at = result.find("PTY"); at != std::string::npos) {
                result.replace(at, 3, uart.path);
            }
            errno = EDOM;  // what write and read leave alone when they move nothing
            std::string returned;
            const std::string thrown = Thrown([&] { returned = call(port, uart); });
            EXPECT_EQ(thrown == "nothing" ? returned : thrown, result);
            EXPECT_TRUE(port.IsOpen());
        }
        EXPECT_EQ(OpenDescriptors(), descriptors);
        EXPECT_NE(uart.Attributes().c_lflag, 0U);  // out of raw mode again
    };
    check("tcsetattr", {-EIO}, kClose,
          "SerialPort::Close(): Setting the attributes of the serial port 'PTY' failed?" + kEio);
    // Without modem lines the destructor's Close fails as well.
    check("ioctl", {-ENOTTY, -ENOTTY}, kClose, " SetLoopback TIOCMGET failed!" + kNoTty);
    check("TIOCMSET", {-EIO}, kClose, " SetLoopback TIOCMSET failed!" + kEio);
    check("ioctl", {-ENOTTY, -ENOTTY}, kSetRts, "TIOCMGET failed?" + kNoTty);
    check("TIOCMSET", {-EIO}, kSetRts, "TIOCMSET failed?" + kEio);
    check("write", {-EIO}, kWrite, "Error writing to file descriptor: " + kEio);
    check("write", {-EINTR, -EAGAIN}, kWrite, "hello");
    check("write", {1, 2}, kWrite, "hello");
    check("write", {0}, kWrite, "Error writing to file descriptor. writtenCount <= 0." + kEdom);
    check("read", {-EIO}, kRead, "Error reading from file descriptor: " + kEio);
    check("read", {-EINTR, -EAGAIN}, kRead, "x");
    check("read", {0}, kRead, "SerialPort ReadCount 0" + kEdom);
    check("poll", {-EIO}, kWait, "SerialPort::IsDataReceived: poll() failed!" + kEio);
    check("", {}, kWait, "1");
}

TEST(SerialPort, ClosedPortRefusesWork) {
    const PtyUart uart;
    SerialPort port(uart.path, true);
    port.Close();
    const auto check = [&](const std::function<void()>& call, const std::string& thrown) {
        errno = EDOM;
        EXPECT_EQ(Thrown(call), thrown);
    };
    const std::string notOpen = "Serial port not open." + kEdom;
    std::vector<std::uint8_t> data;
    check([&] { (void)port.GetParity(); }, notOpen);  // stands for every setter and getter
    check([&] { port.SetLoopback(false); }, notOpen);
    check([&] { port.Write(nullptr, 0); }, notOpen);
    check([&] { (void)port.Read(); }, notOpen);
    check([&] { (void)port.HasBufferedData(); }, notOpen);
    check([&] { port.ReadBufferedData(data, 0); }, notOpen);
    // No open check of their own: they fail on descriptor -1.
    const std::string badDescriptor = ": Bad file descriptor [EBADF]";
    check([&] { port.SetRts(true); }, "TIOCMGET failed?" + badDescriptor);
    check([&] { port.FlushInputAndOutput(); },
          "SerialPort::FlushInputAndOutput: tcflush() failed!" + badDescriptor);
    check([&] { (void)port.GetNumOfAvailableBytes(); },
          "SerialPort::ReadAllAvailableData: FIONREAD failed!" + badDescriptor);
    check([&] { (void)port.GetBaudRate(); },
          "Get the current port settings failed?" + badDescriptor);
    EXPECT_FALSE(port.IsDataReceived(-1));  // would wait for ever on a descriptor
}

TEST(SerialPort, BuffersWaitingBytesInOrder) {
    PtyUart uart;
    SerialPort port(uart.path, true);
    port.Write(nullptr, 0);
    EXPECT_FALSE(port.IsDataReceived(0));
    port.ReadAllAvailableData();
    EXPECT_EQ(uart.calls["read"] + uart.calls["write"], 0);

    uart.Send("abcd");
    EXPECT_EQ(port.GetNumOfAvailableBytes(), 4);
    uart.script["read"] = {1, 0};  // the drain stops quietly at the second read
    port.ReadAllAvailableData();
    EXPECT_EQ(port.Read(), 'b');
    port.ReadAllAvailableData();
    std::vector<std::uint8_t> data{'?'};
    port.ReadBufferedData(data, 1);
    EXPECT_EQ(std::string(data.begin(), data.end()), "a");
    port.ReadBufferedData(data, 0);
    EXPECT_EQ(std::string(data.begin(), data.end()), "cd");
    EXPECT_FALSE(port.HasBufferedData());
    port.ReadBufferedData(data, 3);  // more than there is: stops at the end
    EXPECT_TRUE(data.empty());
    EXPECT_GE(data.capacity(), 3U);
}

}  // namespace
