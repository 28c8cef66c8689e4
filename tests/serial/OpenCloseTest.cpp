#include <cerrno>
#include <string>
#include <vector>

#include "PortTestSupport.h"
#include "serial/SerialPort.h"

namespace {

struct OpenFailureRow {
    const char* name;
    const char* path;  // nullptr: the slave of a pseudo-terminal
    bool terminalAttributesSupported;
    int drainError;  // Open's FIONREAD fails with it; 0: it does not
    const char* what;
    int code;
};

class SerialPortOpenFailure : public testing::TestWithParam<OpenFailureRow> {};

TEST_P(SerialPortOpenFailure, LeavesNoDescriptorBehind) {
    const OpenFailureRow& row = GetParam();
    PtyPair pty;
    const std::string path = row.path != nullptr ? row.path : pty.SlavePath();
    const int before = CountOpenDescriptors();
    FailNextIoctl(FIONREAD, row.drainError);

    EXPECT_TRUE(Throws([&] { SerialPort port(path, row.terminalAttributesSupported); }, row.what,
                       row.code));

    EXPECT_EQ(CountOpenDescriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortOpenFailure,
    testing::Values(
        OpenFailureRow{"NoSuchDevice", "/dev/merovane-no-such-device", true, 0,
                       "Open Serial Port failed?: No such file or directory", ENOENT},
        OpenFailureRow{"NotATerminal", "/dev/null", true, 0,
                       "Save the current settings for serial port failed?: Inappropriate ioctl "
                       "for device",
                       ENOTTY},
        // Without terminal attributes the flush is the first call that needs a terminal.
        OpenFailureRow{"NotATerminalWithoutAttributes", "/dev/null", false, 0,
                       "Flush of the input buffer failed?: Inappropriate ioctl for device", ENOTTY},
        // Past its flushes Open counts the port as open; no object is left to close it.
        OpenFailureRow{"LateFailure", nullptr, true, EIO,
                       "SerialPort::ReadAllAvailableData: FIONREAD failed!: Input/output error",
                       EIO}),
    [](const testing::TestParamInfo<OpenFailureRow>& info) { return info.param.name; });

TEST(SerialPortOnUart, OpenAppliesRawRecordAndCloseRestoresWhatOpenFound) {
    SimulatedUart uart;
    const termios found = uart.Attributes();
    const int descriptors = CountOpenDescriptors();

    SerialPort port(SimulatedUart::kPath, true);

    // Raw, receiver on, modem lines ignored, 8 bits, B0; reads return each byte.
    termios raw{};
    raw.c_cflag = CLOCAL | CREAD | CS8;
    raw.c_cc[VMIN] = 1;
    EXPECT_TRUE(SameAttributes(uart.Attributes(), raw));

    port.SetBaudRate(B115200);
    const char* const alreadyOpen = "Serial port already open.: Numerical argument out of domain";
    errno = EDOM;
    EXPECT_TRUE(Throws([&] { port.Open(); }, alreadyOpen, EDOM));
    errno = EDOM;
    EXPECT_TRUE(Throws(
        [&] {
            port.Open(B57600, CharSize::Bits7, Parity::Odd, StopBits::Two, FlowControl::Hardware);
        },
        alreadyOpen, EDOM));
    EXPECT_EQ(port.GetBaudRate(), static_cast<speed_t>(B115200));
    port.SetLoopback(true);
    port.Write("abc");  // comes back through the loop-back, which Close switches off
    port.ReadAllAvailableData();
    ASSERT_TRUE(port.HasBufferedData());
    port.Close();

    EXPECT_TRUE(SameAttributes(uart.Attributes(), found));
    EXPECT_EQ(CountOpenDescriptors(), descriptors);
    // poll() would wait for ever on descriptor -1.
    EXPECT_FALSE(port.IsDataReceived(-1));

    // Each Open saves afresh, and the receive buffer starts empty again.
    termios changed = found;
    cfsetspeed(&changed, B2400);
    uart.SetAttributes(changed);
    port.Open();
    EXPECT_FALSE(port.HasBufferedData());
    port.Close();
    EXPECT_TRUE(SameAttributes(uart.Attributes(), changed));
}

// On a pseudo-terminal Close always fails at the loop-back step, so the
// destructor is the only way such a port lets go.
TEST(SerialPortOnPty, RejectedLoopbackKeepsThePortOpenAndTheDestructorReleasesIt) {
    PtyPair pty;
    const termios found = pty.SlaveAttributes();
    const int descriptors = CountOpenDescriptors();
    {
        SerialPort port(pty.SlavePath(), true);
        const char* const rejected =
            " SetLoopback TIOCMGET failed!: Inappropriate ioctl for device";
        EXPECT_TRUE(Throws([&] { port.SetLoopback(true); }, rejected, ENOTTY));
        EXPECT_TRUE(Throws([&] { port.Close(); }, rejected, ENOTTY));

        EXPECT_TRUE(port.IsOpen());
        EXPECT_EQ(CountOpenDescriptors(), descriptors + 1);
    }
    EXPECT_EQ(CountOpenDescriptors(), descriptors);
    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), found));
}

struct ClosedPortRow {
    const char* name;
    PortCall call;
    const char* what = "Serial port not open.: Numerical argument out of domain";
    int code = EDOM;  // errno as the test left it: no system call failed first
};

class SerialPortClosed : public testing::TestWithParam<ClosedPortRow> {};

TEST_P(SerialPortClosed, FailsWithoutTouchingTheDevice) {
    SimulatedUart uart;
    SerialPort port(SimulatedUart::kPath, true);
    port.Close();

    errno = EDOM;
    EXPECT_TRUE(Throws([&] { GetParam().call(port); }, GetParam().what, GetParam().code));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortClosed,
    testing::Values(
        ClosedPortRow{"Close", [](SerialPort& p) { p.Close(); }},
        ClosedPortRow{"SetBaudRate", SetBaud(B115200)},
        ClosedPortRow{"SetCharSize", Set(CharSize::Bits7)},
        ClosedPortRow{"SetParity", Set(Parity::Odd)},
        // The open check comes before the value check.
        ClosedPortRow{"SetInvalidParity", Set(Parity{3})},
        ClosedPortRow{"SetNumOfStopBits", Set(StopBits::Two)},
        ClosedPortRow{"SetFlowControl", Set(FlowControl::Hardware)},
        ClosedPortRow{"GetCharSize", [](SerialPort& p) { (void)p.GetCharSize(); }},
        ClosedPortRow{"GetParity", [](SerialPort& p) { (void)p.GetParity(); }},
        ClosedPortRow{"GetNumOfStopBits", [](SerialPort& p) { (void)p.GetNumOfStopBits(); }},
        ClosedPortRow{"GetFlowControl", [](SerialPort& p) { (void)p.GetFlowControl(); }},
        ClosedPortRow{"SetLoopback", [](SerialPort& p) { p.SetLoopback(false); }},
        ClosedPortRow{"WriteNothing", [](SerialPort& p) { p.Write(nullptr, 0); }},
        ClosedPortRow{"Read", [](SerialPort& p) { (void)p.Read(); }},
        ClosedPortRow{"HasBufferedData", [](SerialPort& p) { (void)p.HasBufferedData(); }},
        ClosedPortRow{"ReadBufferedData",
                      [](SerialPort& p) {
                          std::vector<std::uint8_t> data;
                          p.ReadBufferedData(data, 0);
                      }},
        // These have no open check of their own and fail on descriptor -1.
        ClosedPortRow{"SetRts", [](SerialPort& p) { p.SetRts(true); },
                      "TIOCMGET failed?: Bad file descriptor", EBADF},
        ClosedPortRow{"FlushInputAndOutput", [](SerialPort& p) { p.FlushInputAndOutput(); },
                      "SerialPort::FlushInputAndOutput: tcflush() failed!: Bad file descriptor",
                      EBADF},
        ClosedPortRow{"ReadAllAvailableData", [](SerialPort& p) { p.ReadAllAvailableData(); },
                      "SerialPort::ReadAllAvailableData: FIONREAD failed!: Bad file descriptor",
                      EBADF},
        ClosedPortRow{"GetBaudRate", [](SerialPort& p) { (void)p.GetBaudRate(); },
                      "Get the current port settings failed?: Bad file descriptor", EBADF}),
    [](const testing::TestParamInfo<ClosedPortRow>& info) { return info.param.name; });

}  // namespace
