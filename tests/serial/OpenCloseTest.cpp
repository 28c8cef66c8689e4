#include <sys/ioctl.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "DeviceFake.h"
#include "PortTestSupport.h"
#include "PtyPair.h"
#include "serial/SerialPort.h"

namespace {

// The kernel's loop-back bit of the modem status word (absent from glibc).
constexpr int kLoopBit = 0x8000;

TEST(SerialPortOpen, AppliesRawRecordAndKeepsStoredDefaults) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);

    const termios applied = pty.SlaveAttributes();
    EXPECT_EQ(applied.c_iflag, 0U);
    EXPECT_EQ(applied.c_oflag, 0U);
    EXPECT_EQ(applied.c_lflag, 0U);
    EXPECT_EQ(applied.c_cflag, static_cast<tcflag_t>(CLOCAL | CREAD | CS8));
    EXPECT_EQ(cfgetispeed(&applied), static_cast<speed_t>(B0));
    EXPECT_EQ(cfgetospeed(&applied), static_cast<speed_t>(B0));
    EXPECT_EQ(applied.c_cc[VMIN], 1);
    EXPECT_EQ(applied.c_cc[VTIME], 0);
    // The stored settings are what was asked for, not what the device holds.
    EXPECT_EQ(StoredSettingsOf(port), DefaultSettings());
}

struct OpenFailureRow {
    const char* name;
    const char* path;  // nullptr: the slave of a pseudo-terminal
    bool terminalAttributesSupported;
    bool failAttributeWrite;
    unsigned long failedRequest;  // 0: none
    bool modemLines;
    const char* what;
    int code;
};

class SerialPortOpenFailure : public testing::TestWithParam<OpenFailureRow> {};

// Whatever step fails, no descriptor survives the failed construction and a
// terminal gets its attributes back.
TEST_P(SerialPortOpenFailure, LeavesNoDescriptorBehind) {
    const OpenFailureRow& row = GetParam();
    PtyPair pty;
    const termios original = pty.SlaveAttributes();
    DeviceFake fake(pty.SlavePath());
    if (row.modemLines) {
        fake.EmulateModem(0);
    }
    if (row.failAttributeWrite) {
        fake.FailNextAttributeWrite(EIO);
    }
    if (row.failedRequest != 0) {
        fake.FailNextIoctl(row.failedRequest, EIO);
    }
    const std::string path = row.path == nullptr ? pty.SlavePath() : row.path;
    const int before = CountOpenDescriptors();

    EXPECT_TRUE(ThrowsSystemError([&] { SerialPort port(path, row.terminalAttributesSupported); },
                                  row.what, row.code));

    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), original));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortOpenFailure,
    testing::Values(
        OpenFailureRow{"NoSuchDevice", "/dev/merovane-no-such-device", true, false, 0, false,
                       "Open Serial Port failed?: No such file or directory", ENOENT},
        OpenFailureRow{"NotATerminal", "/dev/null", true, false, 0, false,
                       "Save the current settings for serial port failed?: Inappropriate ioctl "
                       "for device",
                       ENOTTY},
        OpenFailureRow{"NotATerminalWithoutAttributes", "/dev/null", false, false, 0, false,
                       "Flush of the input buffer failed?: Inappropriate ioctl for device", ENOTTY},
        OpenFailureRow{"RawModeRefused", nullptr, true, true, 0, false,
                       "Write new settings failed?: Input/output error", EIO},
        // From here on the port counts as open; only the constructor can let go.
        OpenFailureRow{"DrainFailsOnUart", nullptr, true, false, FIONREAD, true,
                       "SerialPort::ReadAllAvailableData: FIONREAD failed!: Input/output error",
                       EIO},
        OpenFailureRow{"DrainFailsWhereCloseFailsToo", nullptr, true, false, FIONREAD, false,
                       "SerialPort::ReadAllAvailableData: FIONREAD failed!: Input/output error",
                       EIO}),
    [](const testing::TestParamInfo<OpenFailureRow>& info) { return info.param.name; });

class SerialPortStaleInput : public testing::TestWithParam<bool> {};

TEST_P(SerialPortStaleInput, BytesWaitingBeforeOpenAreNeverHandedOut) {
    PtyPair pty;
    // A whole line, so that the terminal's canonical mode makes it readable.
    pty.Send("stale\n");
    SerialPort port(pty.SlavePath(), GetParam());

    EXPECT_FALSE(port.IsDataReceived(0));
    EXPECT_FALSE(port.HasBufferedData());
    pty.Send("fresh\n");
    EXPECT_EQ(port.Read(), 'f');
}

INSTANTIATE_TEST_SUITE_P(Modes, SerialPortStaleInput, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) {
                             return info.param ? "WithAttributes" : "WithoutAttributes";
                         });

TEST(SerialPortOpen, OnOpenPortThrowsAndAppliesNothing) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    const termios before = pty.SlaveAttributes();

    errno = EDOM;
    EXPECT_TRUE(ThrowsSystemError(
        [&] {
            port.Open(B115200, CharSize::Bits7, Parity::Odd, StopBits::Two, FlowControl::Hardware);
        },
        "Serial port already open.: Numerical argument out of domain", EDOM));
    errno = EDOM;
    EXPECT_TRUE(ThrowsSystemError(
        [&] { port.Open(); }, "Serial port already open.: Numerical argument out of domain", EDOM));

    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), before));
    EXPECT_EQ(StoredSettingsOf(port), DefaultSettings());
    ASSERT_TRUE(port.IsOpen());
    port.Write("ok");
    EXPECT_EQ(pty.Receive(2), "ok");
}

TEST(SerialPortClose, RestoresAttributesAndSwitchesLoopbackOff) {
    PtyPair pty;
    termios original = pty.SlaveAttributes();
    cfsetispeed(&original, B1200);
    cfsetospeed(&original, B1200);
    original.c_cflag |= CSTOPB;
    pty.SetSlaveAttributes(original);
    original = pty.SlaveAttributes();
    DeviceFake fake(pty.SlavePath());
    fake.EmulateModem(TIOCM_DTR | TIOCM_RTS);
    const int before = CountOpenDescriptors();

    SerialPort port(pty.SlavePath(), true);
    port.SetBaudRate(B115200);
    port.SetLoopback(true);
    ASSERT_EQ(fake.ModemStatus(), TIOCM_DTR | TIOCM_RTS | kLoopBit);
    port.Close();

    EXPECT_FALSE(port.IsOpen());
    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), original));
    EXPECT_EQ(fake.ModemStatus(), TIOCM_DTR | TIOCM_RTS);
    EXPECT_EQ(CountOpenDescriptors(), before);
    errno = EDOM;
    EXPECT_TRUE(ThrowsSystemError([&] { port.Close(); },
                                  "Serial port not open.: Numerical argument out of domain", EDOM));
}

TEST(SerialPortClose, ReopenDiscardsWhatWasBuffered) {
    PtyPair pty;
    DeviceFake fake(pty.SlavePath());
    fake.EmulateModem(0);
    SerialPort port(pty.SlavePath(), true);
    pty.Send("abc");
    WaitForAvailable(port, 3);
    port.ReadAllAvailableData();
    ASSERT_TRUE(port.HasBufferedData());
    port.Close();
    // Someone else changes the device while the port is closed.
    termios changed = pty.SlaveAttributes();
    cfsetispeed(&changed, B2400);
    cfsetospeed(&changed, B2400);
    pty.SetSlaveAttributes(changed);
    changed = pty.SlaveAttributes();

    port.Open();

    EXPECT_TRUE(port.IsOpen());
    EXPECT_FALSE(port.HasBufferedData());
    // Each Open saves afresh: the next Close restores what the reopen found.
    port.Close();
    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), changed));
}

TEST(SerialPortClose, RefusedRestoreKeepsThePortOpen) {
    PtyPair pty;
    const termios original = pty.SlaveAttributes();
    DeviceFake fake(pty.SlavePath());
    fake.EmulateModem(0);
    SerialPort port(pty.SlavePath(), true);
    const termios raw = pty.SlaveAttributes();
    fake.FailNextAttributeWrite(EIO);

    EXPECT_TRUE(
        ThrowsSystemError([&] { port.Close(); },
                          "SerialPort::Close(): Setting the attributes of the serial port '" +
                              pty.SlavePath() + "' failed?: Input/output error",
                          EIO));

    ASSERT_TRUE(port.IsOpen());
    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), raw));
    port.Close();
    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), original));
}

// On a pseudo-terminal Close always fails at the loop-back step (no modem
// lines: ENOTTY), so the destructor is the only way such a port lets go.
TEST(SerialPortClose, PtyPortFailsToCloseAndItsDestructorStillReleasesIt) {
    PtyPair pty;
    const termios original = pty.SlaveAttributes();
    const int before = CountOpenDescriptors();
    {
        SerialPort port(pty.SlavePath(), true);
        EXPECT_TRUE(ThrowsSystemError(
            [&] { port.Close(); }, " SetLoopback TIOCMGET failed!: Inappropriate ioctl for device",
            ENOTTY));
        EXPECT_TRUE(port.IsOpen());
        EXPECT_EQ(CountOpenDescriptors(), before + 1);
        port.Write("still open");
        EXPECT_EQ(pty.Receive(10), "still open");
    }
    EXPECT_EQ(CountOpenDescriptors(), before);
    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), original));
}

struct ClosedPortRow {
    const char* name;
    std::function<void(SerialPort&)> call;
    const char* what;
    int code;  // EDOM: errno as the test left it, so no system call failed first
};

class SerialPortClosed : public testing::TestWithParam<ClosedPortRow> {};

TEST_P(SerialPortClosed, FailsWithoutTouchingTheDevice) {
    PtyPair pty;
    DeviceFake fake(pty.SlavePath());
    fake.EmulateModem(0);
    SerialPort port(pty.SlavePath(), true);
    port.Close();

    errno = EDOM;
    EXPECT_TRUE(
        ThrowsSystemError([&] { GetParam().call(port); }, GetParam().what, GetParam().code));
    EXPECT_FALSE(port.IsOpen());
}

const char* const kNotOpen = "Serial port not open.: Numerical argument out of domain";

INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortClosed,
    testing::Values(
        ClosedPortRow{"SetBaudRate", [](SerialPort& p) { p.SetBaudRate(B115200); }, kNotOpen, EDOM},
        ClosedPortRow{"SetCharSize", [](SerialPort& p) { p.SetCharSize(CharSize::Bits7); },
                      kNotOpen, EDOM},
        ClosedPortRow{"SetParity", [](SerialPort& p) { p.SetParity(Parity::Odd); }, kNotOpen, EDOM},
        // The open check comes before the value check.
        ClosedPortRow{"SetInvalidParity", [](SerialPort& p) { p.SetParity(Parity{3}); }, kNotOpen,
                      EDOM},
        ClosedPortRow{"SetNumOfStopBits", [](SerialPort& p) { p.SetNumOfStopBits(StopBits::Two); },
                      kNotOpen, EDOM},
        ClosedPortRow{"SetFlowControl",
                      [](SerialPort& p) { p.SetFlowControl(FlowControl::Hardware); }, kNotOpen,
                      EDOM},
        ClosedPortRow{"GetCharSize", [](SerialPort& p) { (void)p.GetCharSize(); }, kNotOpen, EDOM},
        ClosedPortRow{"GetParity", [](SerialPort& p) { (void)p.GetParity(); }, kNotOpen, EDOM},
        ClosedPortRow{"GetNumOfStopBits", [](SerialPort& p) { (void)p.GetNumOfStopBits(); },
                      kNotOpen, EDOM},
        ClosedPortRow{"GetFlowControl", [](SerialPort& p) { (void)p.GetFlowControl(); }, kNotOpen,
                      EDOM},
        ClosedPortRow{"SetLoopback", [](SerialPort& p) { p.SetLoopback(false); }, kNotOpen, EDOM},
        ClosedPortRow{"WriteNothing", [](SerialPort& p) { p.Write(nullptr, 0); }, kNotOpen, EDOM},
        ClosedPortRow{"WriteString", [](SerialPort& p) { p.Write("x"); }, kNotOpen, EDOM},
        ClosedPortRow{"Read", [](SerialPort& p) { (void)p.Read(); }, kNotOpen, EDOM},
        ClosedPortRow{"HasBufferedData", [](SerialPort& p) { (void)p.HasBufferedData(); }, kNotOpen,
                      EDOM},
        ClosedPortRow{"ReadBufferedData",
                      [](SerialPort& p) {
                          std::vector<std::uint8_t> data;
                          p.ReadBufferedData(data, 0);
                      },
                      kNotOpen, EDOM},
        // These have no open check of their own and fail on descriptor -1.
        ClosedPortRow{"SetRts", [](SerialPort& p) { p.SetRts(true); },
                      "TIOCMGET failed?: Bad file descriptor", EBADF},
        ClosedPortRow{"FlushInputAndOutput", [](SerialPort& p) { p.FlushInputAndOutput(); },
                      "SerialPort::FlushInputAndOutput: tcflush() failed!: Bad file descriptor",
                      EBADF},
        ClosedPortRow{
            "GetNumOfAvailableBytes", [](SerialPort& p) { (void)p.GetNumOfAvailableBytes(); },
            "SerialPort::ReadAllAvailableData: FIONREAD failed!: Bad file descriptor", EBADF},
        ClosedPortRow{"ReadAllAvailableData", [](SerialPort& p) { p.ReadAllAvailableData(); },
                      "SerialPort::ReadAllAvailableData: FIONREAD failed!: Bad file descriptor",
                      EBADF},
        ClosedPortRow{"GetBaudRate", [](SerialPort& p) { (void)p.GetBaudRate(); },
                      "Get the current port settings failed?: Bad file descriptor", EBADF}),
    [](const testing::TestParamInfo<ClosedPortRow>& info) { return info.param.name; });

TEST(SerialPortClosed, IsDataReceivedIsFalseWithoutThrowing) {
    PtyPair pty;
    DeviceFake fake(pty.SlavePath());
    fake.EmulateModem(0);
    SerialPort port(pty.SlavePath(), true);
    port.Close();

    errno = EDOM;
    EXPECT_FALSE(port.IsDataReceived(0));
    EXPECT_EQ(errno, EDOM);
}

}  // namespace
