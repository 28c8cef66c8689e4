#include <sys/ioctl.h>

#include "PortTestSupport.h"
#include "serial/SerialPort.h"

namespace {

constexpr int kLoop = 0x8000;  // TIOCM_LOOP, which glibc leaves out
// The output lines among them; the driver keeps its inputs whatever is written.
constexpr int kOutputs = TIOCM_DTR | TIOCM_RTS | kLoop;

struct ModemBitRow {
    const char* name;
    PortCall call;
    int before;  // output lines
    int after;
};

class SerialPortModemBit : public testing::TestWithParam<ModemBitRow> {};

// The whole run sees the loop-back go on and off with the other lines kept.
TEST_P(SerialPortModemBit, ChangesOnlyItsOwnBit) {
    SimulatedUart uart;
    SerialPort port(SimulatedUart::kPath, true);
    uart.SetModem(GetParam().before);
    GetParam().call(port);
    EXPECT_EQ(uart.Modem() & kOutputs, GetParam().after);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortModemBit,
    testing::Values(ModemBitRow{"LoopbackOnWhenOn", [](SerialPort& p) { p.SetLoopback(true); },
                                kLoop | TIOCM_RTS, kLoop | TIOCM_RTS},
                    ModemBitRow{"RtsOn", [](SerialPort& p) { p.SetRts(true); }, TIOCM_DTR | kLoop,
                                TIOCM_DTR | kLoop | TIOCM_RTS},
                    ModemBitRow{"RtsOff", [](SerialPort& p) { p.SetRts(false); },
                                TIOCM_RTS | TIOCM_DTR | kLoop, TIOCM_DTR | kLoop}),
    [](const testing::TestParamInfo<ModemBitRow>& info) { return info.param.name; });

}  // namespace
