#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "PtyUart.h"
#include "serial/BaudRate.h"
#include "serial/LineSettings.h"
#include "serial/SerialPort.h"

namespace {

using namespace line_settings;

TEST(BaudRate, ConvertsExactlyTheRatesOfTheTable) {
    for (const std::int32_t rate :
         {9600, 19200, 38400, 57600, 115200, 230400, 460800, 500000, 576000, 921600, 1000000,
          1152000, 1500000, 2000000, 2500000, 3000000}) {
        EXPECT_EQ(SpeedToBaudRate(BaudRateToSpeed(rate)), static_cast<std::uint32_t>(rate));
    }
    EXPECT_EQ(BaudRateToSpeed(57600), static_cast<speed_t>(B57600));
    // A port may be found at these, but the command line does not offer them.
    const std::pair<std::int32_t, speed_t> reportOnly[] = {
        {0, B0},       {50, B50},     {75, B75},    {110, B110}, {134, B134},
        {150, B150},   {200, B200},   {300, B300},  {600, B600}, {1200, B1200},
        {1800, B1800}, {2400, B2400}, {4800, B4800}};
    for (const auto& [rate, speed] : reportOnly) {
        EXPECT_EQ(BaudRateToSpeed(rate), 0U) << rate;
        EXPECT_EQ(SpeedToBaudRate(speed), static_cast<std::uint32_t>(rate)) << rate;
    }
    EXPECT_EQ(BaudRateToSpeed(-9600) + BaudRateToSpeed(100000), 0U);
    EXPECT_EQ(SpeedToBaudRate(B4000000) + SpeedToBaudRate(0x10), 0U);  // 0x10: between codes
}

TEST(LineSetting, ChangesOnlyItsOwnBits) {
    // From these c_cflag and c_iflag bits the change must give those.
    const auto check = [](tcflag_t cflag, tcflag_t iflag, tcflag_t wantCflag, tcflag_t wantIflag,
                          const std::function<void(termios&)>& change,
                          const std::string& thrown = "nothing") {
        termios record{};
        record.c_cflag = cflag;
        record.c_iflag = iflag;
        EXPECT_EQ(Thrown([&] { change(record); }), thrown);
        EXPECT_EQ(record.c_cflag, wantCflag) << std::hex << cflag << " " << iflag;
        EXPECT_EQ(record.c_iflag, wantIflag) << std::hex << cflag << " " << iflag;
    };
    check(CS8, 0, CS8 | B57600, 0, [](termios& r) { ApplyBaudRate(r, B57600); });
    check(CS8 | CSTOPB, 0, CS7 | CSTOPB, 0, [](termios& r) { ApplyCharSize(r, CharSize::Bits7); });
    check(PARODD, 0, PARENB, INPCK, [](termios& r) { ApplyParity(r, Parity::Even); });
    check(0, IGNPAR, PARENB | PARODD, IGNPAR | INPCK,
          [](termios& r) { ApplyParity(r, Parity::Odd); });
    // The input checks stay once set, and PARODD is left alone.
    check(PARENB | PARODD, INPCK, PARODD, INPCK | IGNPAR,
          [](termios& r) { ApplyParity(r, Parity::None); });
    check(CS8 | CSTOPB, 0, CS8, 0, [](termios& r) { ApplyStopBits(r, StopBits::One); });
    check(CS8, 0, CS8 | CSTOPB, 0, [](termios& r) { ApplyStopBits(r, StopBits::Two); });
    // Flow control starts from raw mode: 8 bits, no parity, no IXON.
    check(CS7 | PARENB | CSTOPB, IXON | IXOFF, CS8 | CSTOPB | CRTSCTS, IXOFF,
          [](termios& r) { ApplyFlowControl(r, FlowControl::Hardware); });
    check(CS8 | CRTSCTS, 0, CS8 | CRTSCTS, IXON | IXOFF | IXANY,
          [](termios& r) { ApplyFlowControl(r, FlowControl::Software); });
    check(CS8 | CRTSCTS, IXANY, CS8, IXANY,
          [](termios& r) { ApplyFlowControl(r, FlowControl::None); });
    // A value outside its range changes nothing.
    const auto refused = [&](const std::string& thrown,
                             const std::function<void(termios&)>& change) {
        check(CS7, 0, CS7, 0, change, thrown);
    };
    refused("Invalid parity setting.", [](termios& r) { ApplyParity(r, Parity{3}); });
    refused("Invalid number of stop bits.", [](termios& r) { ApplyStopBits(r, StopBits{2}); });
    refused("Invalid flow control.", [](termios& r) { ApplyFlowControl(r, FlowControl{3}); });
    refused("Unsupported baud rate.: Invalid argument [EINVAL]",
            [](termios& r) { ApplyBaudRate(r, B38400 + 1); });
}

TEST(LineSetting, ReadsTheSettingsBack) {
    termios record{};
    // IXOFF and IXANY as an earlier Software setting leaves them.
    record.c_cflag = CS7 | PARENB | CSTOPB | CRTSCTS;
    record.c_iflag = IXOFF | IXANY;
    EXPECT_EQ(CharSizeOf(record), CharSize::Bits7);
    EXPECT_EQ(ParityOf(record), Parity::Even);
    EXPECT_EQ(StopBitsOf(record), StopBits::Two);
    EXPECT_EQ(FlowControlOf(record), FlowControl::Hardware);
    record.c_cflag |= PARODD;
    record.c_iflag |= IXON;
    EXPECT_EQ(ParityOf(record), Parity::Odd);
    EXPECT_EQ(FlowControlOf(record), FlowControl::Software);
}

TEST(SerialPort, RefusedSettingNamesItself) {
    PtyUart uart;
    SerialPort port(uart.path, true);
    const std::pair<std::function<void()>, std::string> setters[] = {
        {[&] { port.SetBaudRate(B9600); }, "Unsupported baud rate."},
        {[&] { port.SetCharSize(CharSize::Bits8); }, "Invalid character size setting."},
        {[&] { port.SetParity(Parity::None); }, "Invalid parity setting."},
        {[&] { port.SetNumOfStopBits(StopBits::One); }, "Invalid number of stop bits."},
        {[&] { port.SetFlowControl(FlowControl::None); }, "Invalid flow control."},
    };
    for (const auto& [set, context] : setters) {
        uart.script["tcsetattr"] = {-EIO};
        EXPECT_EQ(Thrown(set),
                  "SerialPort::SetPortSettings(): Setting the attributes of the serial "
                  "port '" +
                      uart.path + "' failed?" + context + ": Input/output error [EIO]");
    }
}

}  // namespace
