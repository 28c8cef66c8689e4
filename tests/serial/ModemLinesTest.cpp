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

struct ModemBitRow {
    const char* name;
    bool loopback;  // else RTS
    int status;     // as the driver reports it
    bool on;
    int expected;  // as written back
};

class SerialPortModemBit : public testing::TestWithParam<ModemBitRow> {};

TEST_P(SerialPortModemBit, ChangesOnlyItsOwnBit) {
    const ModemBitRow& row = GetParam();
    PtyPair pty;
    DeviceFake fake(pty.SlavePath());
    fake.EmulateModem(row.status);
    SerialPort port(pty.SlavePath(), true);
    const int writesBefore = fake.ModemWrites();

    if (row.loopback) {
        port.SetLoopback(row.on);
    } else {
        port.SetRts(row.on);
    }

    EXPECT_EQ(fake.ModemStatus(), row.expected);
    EXPECT_EQ(fake.ModemWrites(), writesBefore + 1);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortModemBit,
    testing::Values(
        ModemBitRow{"LoopbackOn", true, TIOCM_DTR | TIOCM_RTS | TIOCM_CTS, true,
                    TIOCM_DTR | TIOCM_RTS | TIOCM_CTS | kLoopBit},
        ModemBitRow{"LoopbackOff", true, kLoopBit | TIOCM_DTR | TIOCM_CD, false,
                    TIOCM_DTR | TIOCM_CD},
        ModemBitRow{"LoopbackOnWhenOn", true, kLoopBit | TIOCM_RTS, true, kLoopBit | TIOCM_RTS},
        ModemBitRow{"LoopbackOffWhenOff", true, TIOCM_RTS, false, TIOCM_RTS},
        ModemBitRow{"RtsOn", false, TIOCM_DTR | kLoopBit, true, TIOCM_DTR | kLoopBit | TIOCM_RTS},
        ModemBitRow{"RtsOff", false, TIOCM_RTS | TIOCM_DTR | kLoopBit, false,
                    TIOCM_DTR | kLoopBit}),
    [](const testing::TestParamInfo<ModemBitRow>& info) { return info.param.name; });

struct ModemFailureRow {
    const char* name;
    std::function<void(SerialPort&)> call;
    unsigned long failedRequest;
    const char* what;
    int modemWrites;  // TIOCMSET calls made
};

class SerialPortModemFailure : public testing::TestWithParam<ModemFailureRow> {};

TEST_P(SerialPortModemFailure, ThrowsItsOwnMessageAndKeepsThePortOpen) {
    const ModemFailureRow& row = GetParam();
    PtyPair pty;
    DeviceFake fake(pty.SlavePath());
    fake.EmulateModem(TIOCM_DTR);
    SerialPort port(pty.SlavePath(), true);
    const int writesBefore = fake.ModemWrites();
    fake.FailNextIoctl(row.failedRequest, EIO);

    EXPECT_TRUE(ThrowsSystemError([&] { row.call(port); }, row.what, EIO));

    EXPECT_EQ(fake.ModemWrites(), writesBefore + row.modemWrites);
    EXPECT_EQ(fake.ModemStatus(), TIOCM_DTR);
    EXPECT_TRUE(port.IsOpen());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortModemFailure,
    testing::Values(ModemFailureRow{"LoopbackGet", [](SerialPort& p) { p.SetLoopback(true); },
                                    TIOCMGET, " SetLoopback TIOCMGET failed!: Input/output error",
                                    0},
                    ModemFailureRow{"LoopbackSet", [](SerialPort& p) { p.SetLoopback(true); },
                                    TIOCMSET, " SetLoopback TIOCMSET failed!: Input/output error",
                                    1},
                    ModemFailureRow{"RtsGet", [](SerialPort& p) { p.SetRts(true); }, TIOCMGET,
                                    "TIOCMGET failed?: Input/output error", 0},
                    ModemFailureRow{"RtsSet", [](SerialPort& p) { p.SetRts(true); }, TIOCMSET,
                                    "TIOCMSET failed?: Input/output error", 1}),
    [](const testing::TestParamInfo<ModemFailureRow>& info) { return info.param.name; });

// The real driver of a pseudo-terminal has no modem lines at all.
TEST(SerialPortModemLines, PtyRejectsLoopbackAndThePortStaysUsable) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);

    EXPECT_TRUE(ThrowsSystemError([&] { port.SetLoopback(true); },
                                  " SetLoopback TIOCMGET failed!: Inappropriate ioctl for device",
                                  ENOTTY));

    ASSERT_TRUE(port.IsOpen());
    port.Write("up");
    EXPECT_EQ(pty.Receive(2), "up");
    pty.Send("k");
    EXPECT_EQ(port.Read(), 'k');
}

TEST(SerialPortModemLines, FlushEmptiesTheDriverButNotTheReceiveBuffer) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    pty.Send("ab");
    WaitForAvailable(port, 2);
    port.ReadAllAvailableData();
    pty.Send("cd");
    WaitForAvailable(port, 2);

    port.FlushInputAndOutput();

    EXPECT_EQ(port.GetNumOfAvailableBytes(), 0);
    std::vector<std::uint8_t> data;
    port.ReadBufferedData(data, 0);
    EXPECT_EQ(std::string(data.begin(), data.end()), "ab");
}

}  // namespace
