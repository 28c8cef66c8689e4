#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "PtyUart.h"
#include "serial/SerialPort.h"

namespace {

using PortCall = std::function<std::string(SerialPort&, PtyUart&)>;
const std::string kEdom = ": Numerical argument out of domain [EDOM]";
const std::string kNoTty = ": Inappropriate ioctl for device [ENOTTY]";
const std::string kEio = ": Input/output error [EIO]";

struct OpenRow {
    const char* name;
    const char* path;  // nullptr: the pty
    bool attributes;
    std::string function;
    std::vector<long> outcomes;
    std::string thrown;
};

class Open : public testing::TestWithParam<OpenRow> {};

TEST_P(Open, FailsWithoutLeavingADescriptorOpen) {
    PtyUart uart;
    uart.Script(GetParam().function, GetParam().outcomes);
    const int descriptors = OpenDescriptors();
    const char* path = GetParam().path != nullptr ? GetParam().path : uart.path.c_str();
    EXPECT_EQ(Thrown([&] { SerialPort port(path, GetParam().attributes); }), GetParam().thrown);
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Open,
    testing::Values(OpenRow{"NoDevice",
                            "/nonexistent",
                            true,
                            "",
                            {},
                            "Open Serial Port failed?: No such file or directory [ENOENT]"},
                    OpenRow{"NotATerminal",
                            "/dev/null",
                            true,
                            "",
                            {},
                            "Save the current settings for serial port failed?" + kNoTty},
                    OpenRow{"NotATerminalNorAttributes",
                            "/dev/null",
                            false,
                            "",
                            {},
                            "Flush of the input buffer failed?" + kNoTty},
                    OpenRow{"RawModeRefused",
                            nullptr,
                            true,
                            "tcsetattr",
                            {-EIO},
                            "Write new settings failed?" + kEio},
                    // By now the port counts as open, and no object is left to close it.
                    OpenRow{"WaitingBytesUncounted",
                            nullptr,
                            true,
                            "ioctl",
                            {-EIO},
                            "SerialPort::ReadAllAvailableData: FIONREAD failed!" + kEio}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SerialPort, OpensRawAndClosesBackToWhatItFound) {
    PtyUart uart;
    termios found = uart.Attributes();
    cfsetspeed(&found, B2400);
    tcsetattr(uart.slave, TCSANOW, &found);
    const int descriptors = OpenDescriptors();

    SerialPort port(uart.path, true);
    // Receiver on, modem lines ignored, 8 bits, no speed until one is set;
    // a read returns as soon as one byte is there.
    termios raw = uart.Attributes();
    EXPECT_EQ(raw.c_cflag, static_cast<tcflag_t>(CLOCAL | CREAD | CS8));
    EXPECT_EQ(raw.c_iflag | raw.c_oflag | raw.c_lflag, 0U);
    EXPECT_EQ(raw.c_cc[VMIN] * 10 + raw.c_cc[VTIME], 10);
    port.SetLoopback(true);
    errno = EDOM;
    EXPECT_EQ(Thrown([&] { port.Open(); }), "Serial port already open." + kEdom);
    EXPECT_EQ(Thrown([&] {
                  port.Open(B9600, CharSize::Bits8, Parity::None, StopBits::Two, FlowControl::None);
              }),
              "Serial port already open." + kEdom);
    EXPECT_EQ(port.GetNumOfStopBits(), StopBits::One);

    port.Close();
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(uart.modemWord, TIOCM_DTR | TIOCM_RTS);  // the loop-back alone switched off
    EXPECT_EQ(uart.Attributes().c_cflag, found.c_cflag);
    EXPECT_EQ(uart.Attributes().c_lflag, found.c_lflag);
    EXPECT_EQ(Thrown([&] { port.Close(); }), "Serial port not open." + kEdom);

    cfsetspeed(&found, B4800);  // each Open saves afresh
    tcsetattr(uart.slave, TCSANOW, &found);
    port.Open();
    port.Close();
    raw = uart.Attributes();
    EXPECT_EQ(cfgetospeed(&raw), static_cast<speed_t>(B4800));
}

TEST(SerialPort, HandsOutNothingThatWaitedBeforeOpen) {
    PtyUart uart;
    uart.Send("stale\n");  // the pty is in canonical mode still: whole lines only
    SerialPort port(uart.path, false);
    EXPECT_FALSE(port.HasBufferedData());
    EXPECT_FALSE(port.IsDataReceived(0));
}

TEST(SerialPort, RetriesCloseOnlyWhenInterrupted) {
    for (const auto& [error, calls] : {std::pair{EINTR, 2}, std::pair{EIO, 1}}) {
        PtyUart uart;
        SerialPort port(uart.path, true);
        uart.Script("close", {-error});
        port.Close();
        EXPECT_EQ(uart.calls["close"], calls) << error;
        EXPECT_FALSE(port.IsOpen());
        close(uart.port);  // what the failed close left open
    }
}

struct FailureRow {
    const char* name;
    bool modemLines;
    std::string function;  // fails with EIO once
    PortCall call;
    std::string thrown;  // "PTY": the device's path
};

class Failure : public testing::TestWithParam<FailureRow> {};

TEST_P(Failure, KeepsThePortUntilItIsDestroyed) {
    PtyUart uart(GetParam().modemLines);
    const int descriptors = OpenDescriptors();
    {
        SerialPort port(uart.path, true);
        uart.Script(GetParam().function, {-EIO});
        std::string thrown = GetParam().thrown;
        if (const auto at = thrown.find("PTY"); at != std::string::npos) {
            thrown.replace(at, 3, uart.path);
        }
        EXPECT_EQ(Thrown([&] { GetParam().call(port, uart); }), thrown);
        EXPECT_TRUE(port.IsOpen());
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_NE(uart.Attributes().c_lflag, 0U);  // restored from raw mode
}

const PortCall kClose = [](SerialPort& p, PtyUart&) { return p.Close(), ""; };
const PortCall kSetRts = [](SerialPort& p, PtyUart&) { return p.SetRts(true), ""; };
const PortCall kWrite = [](SerialPort& p, PtyUart& uart) {
    return p.Write("hello"), uart.Received();
};
const PortCall kRead = [](SerialPort& p, PtyUart& uart) {
    return uart.Send("x"), std::string(1, p.Read());
};

INSTANTIATE_TEST_SUITE_P(
    Rows, Failure,
    testing::Values(
        FailureRow{
            "RestoreRefused", true, "tcsetattr", kClose,
            "SerialPort::Close(): Setting the attributes of the serial port 'PTY' failed?" + kEio},
        FailureRow{"NoModemLines", false, "", kClose, " SetLoopback TIOCMGET failed!" + kNoTty},
        FailureRow{"LoopbackRefused", true, "TIOCMSET", kClose,
                   " SetLoopback TIOCMSET failed!" + kEio},
        FailureRow{"RtsUnreadable", false, "", kSetRts, "TIOCMGET failed?" + kNoTty},
        FailureRow{"RtsRefused", true, "TIOCMSET", kSetRts, "TIOCMSET failed?" + kEio},
        FailureRow{"WriteRefused", true, "write", kWrite,
                   "Error writing to file descriptor: " + kEio},
        FailureRow{"ReadRefused", true, "read", kRead,
                   "Error reading from file descriptor: " + kEio},
        FailureRow{"WaitInterrupted", true, "poll",
                   [](SerialPort& p, PtyUart&) { return std::to_string(p.IsDataReceived(-1)); },
                   "SerialPort::IsDataReceived: poll() failed!: Input/output error [EIO]"}),
    [](const auto& info) { return std::string(info.param.name); });

struct TransferRow {
    const char* name;
    std::string function;
    std::vector<long> outcomes;
    PortCall call;
    std::string result;  // what the call returns, or what it throws
};

class Transfer : public testing::TestWithParam<TransferRow> {};

TEST_P(Transfer, RetriesOnlyWhatIsTransient) {
    PtyUart uart;
    SerialPort port(uart.path, true);
    uart.Script(GetParam().function, GetParam().outcomes);
    errno = EDOM;  // what write and read leave alone when they move nothing
    std::string result;
    const std::string thrown = Thrown([&] { result = GetParam().call(port, uart); });
    EXPECT_EQ(thrown == "nothing" ? result : thrown, GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Transfer,
    testing::Values(TransferRow{"WriteInterrupted", "write", {-EINTR, -EAGAIN}, kWrite, "hello"},
                    TransferRow{"WriteInPieces", "write", {1, 2}, kWrite, "hello"},
                    TransferRow{"WriteTakesNothing",
                                "write",
                                {0},
                                kWrite,
                                "Error writing to file descriptor. writtenCount <= 0." + kEdom},
                    TransferRow{"ReadInterrupted", "read", {-EINTR, -EAGAIN}, kRead, "x"},
                    TransferRow{
                        "ReadEndOfFile", "read", {0}, kRead, "SerialPort ReadCount 0" + kEdom},
                    TransferRow{"WaitSeesInput",
                                "",
                                {},
                                [](SerialPort& p, PtyUart& uart) {
                                    return uart.Send("x"), std::to_string(p.IsDataReceived(-1));
                                },
                                "1"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SerialPort, ClosedPortRefusesWork) {
    const std::string notOpen = "Serial port not open." + kEdom;
    const std::string badDescriptor = ": Bad file descriptor [EBADF]";
    const std::pair<std::function<void(SerialPort&)>, std::string> rows[] = {
        // GetParity stands for every setter and getter that reads the device.
        {[](SerialPort& p) { (void)p.GetParity(); }, notOpen},
        {[](SerialPort& p) { p.SetLoopback(false); }, notOpen},
        {[](SerialPort& p) { p.Write(nullptr, 0); }, notOpen},
        {[](SerialPort& p) { (void)p.Read(); }, notOpen},
        {[](SerialPort& p) { (void)p.HasBufferedData(); }, notOpen},
        {[](SerialPort& p) {
             std::vector<std::uint8_t> data;
             p.ReadBufferedData(data, 0);
         },
         notOpen},
        // No open check of their own: they fail on descriptor -1.
        {[](SerialPort& p) { p.SetRts(true); }, "TIOCMGET failed?" + badDescriptor},
        {[](SerialPort& p) { p.FlushInputAndOutput(); },
         "SerialPort::FlushInputAndOutput: tcflush() failed!" + badDescriptor},
        {[](SerialPort& p) { (void)p.GetNumOfAvailableBytes(); },
         "SerialPort::ReadAllAvailableData: FIONREAD failed!" + badDescriptor},
        {[](SerialPort& p) { (void)p.GetBaudRate(); },
         "Get the current port settings failed?" + badDescriptor},
    };
    PtyUart uart;
    SerialPort port(uart.path, true);
    port.Close();
    for (const auto& [call, thrown] : rows) {
        errno = EDOM;
        EXPECT_EQ(Thrown([&] { call(port); }), thrown);
    }
    EXPECT_FALSE(port.IsDataReceived(-1));  // would wait for ever on a descriptor
}

TEST(SerialPort, ModemSwitchesChangeOnlyTheirOwnBit) {
    PtyUart uart;
    SerialPort port(uart.path, true);
    uart.modemWord = TIOCM_DTR | kLoop;
    port.SetRts(true);
    EXPECT_EQ(uart.modemWord, TIOCM_DTR | kLoop | TIOCM_RTS);
    port.SetLoopback(false);
    port.SetLoopback(false);
    port.SetRts(false);
    EXPECT_EQ(uart.modemWord, TIOCM_DTR);
    port.SetLoopback(true);
    EXPECT_EQ(uart.modemWord, TIOCM_DTR | kLoop);
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
    uart.Script("read", {1, 0});  // the drain stops quietly at the second read
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
}

}  // namespace
