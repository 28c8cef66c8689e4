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
    const std::pair<std::int32_t, speed_t> selectable[] = {
        {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
        {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
        {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000},
        {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000}};
    for (const auto& [rate, speed] : selectable) {
        EXPECT_EQ(BaudRateToSpeed(rate), speed) << rate;
        EXPECT_EQ(SpeedToBaudRate(speed), static_cast<std::uint32_t>(rate)) << rate;
    }
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
    EXPECT_EQ(SpeedToBaudRate(B4000000), 0U);
    EXPECT_EQ(SpeedToBaudRate(0x10), 0U);  // between the codes
}

struct ChangeRow {
    const char* name;
    tcflag_t cflag;
    tcflag_t iflag;
    std::function<void(termios&)> change;
    tcflag_t wantCflag;
    tcflag_t wantIflag;
};

class LineSetting : public testing::TestWithParam<ChangeRow> {};

TEST_P(LineSetting, ChangesOnlyItsBits) {
    termios record{};
    record.c_cflag = GetParam().cflag;
    record.c_iflag = GetParam().iflag;
    (void)Thrown([&] { GetParam().change(record); });
    EXPECT_EQ(record.c_cflag, GetParam().wantCflag);
    EXPECT_EQ(record.c_iflag, GetParam().wantIflag);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, LineSetting,
    testing::Values(
        ChangeRow{"Speed", CS8, 0, [](termios& r) { ApplyBaudRate(r, B57600); }, CS8 | B57600, 0},
        ChangeRow{"SevenBits", CS8 | CSTOPB, 0,
                  [](termios& r) { ApplyCharSize(r, CharSize::Bits7); }, CS7 | CSTOPB, 0},
        ChangeRow{"Even", PARODD, 0, [](termios& r) { ApplyParity(r, Parity::Even); }, PARENB,
                  INPCK},
        ChangeRow{"Odd", 0, IGNPAR, [](termios& r) { ApplyParity(r, Parity::Odd); },
                  PARENB | PARODD, IGNPAR | INPCK},
        // The input checks stay once set, and PARODD is left alone.
        ChangeRow{"NoParity", PARENB | PARODD, INPCK,
                  [](termios& r) { ApplyParity(r, Parity::None); }, PARODD, INPCK | IGNPAR},
        ChangeRow{"OneStopBit", CS8 | CSTOPB, 0,
                  [](termios& r) { ApplyStopBits(r, StopBits::One); }, CS8, 0},
        ChangeRow{"TwoStopBits", CS8, 0, [](termios& r) { ApplyStopBits(r, StopBits::Two); },
                  CS8 | CSTOPB, 0},
        // Flow control starts from raw mode: 8 bits, no parity, no IXON.
        ChangeRow{"Hardware", CS7 | PARENB | CSTOPB, IXON | IXOFF,
                  [](termios& r) { ApplyFlowControl(r, FlowControl::Hardware); },
                  CS8 | CSTOPB | CRTSCTS, IXOFF},
        ChangeRow{"Software", CS8 | CRTSCTS, 0,
                  [](termios& r) { ApplyFlowControl(r, FlowControl::Software); }, CS8 | CRTSCTS,
                  IXON | IXOFF | IXANY},
        ChangeRow{"NoFlowControl", CS8 | CRTSCTS, IXANY,
                  [](termios& r) { ApplyFlowControl(r, FlowControl::None); }, CS8, IXANY},
        // Values outside their range change nothing.
        ChangeRow{"BadParity", CS7, 0, [](termios& r) { ApplyParity(r, Parity{3}); }, CS7, 0},
        ChangeRow{"BadStopBits", CS7, 0, [](termios& r) { ApplyStopBits(r, StopBits{2}); }, CS7, 0},
        ChangeRow{"BadFlowControl", CS7, 0, [](termios& r) { ApplyFlowControl(r, FlowControl{3}); },
                  CS7, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(LineSetting, RefusesValuesOutsideItsRange) {
    termios record{};
    EXPECT_EQ(Thrown([&] { ApplyParity(record, Parity{3}); }), "Invalid parity setting.");
    EXPECT_EQ(Thrown([&] { ApplyStopBits(record, StopBits{2}); }), "Invalid number of stop bits.");
    EXPECT_EQ(Thrown([&] { ApplyFlowControl(record, FlowControl{3}); }), "Invalid flow control.");
    EXPECT_EQ(Thrown([&] { ApplyBaudRate(record, B38400 + 1); }),
              "Unsupported baud rate.: Invalid argument [EINVAL]");
}

TEST(LineSetting, ReadsTheSettingsBack) {
    termios record{};
    EXPECT_EQ(CharSizeOf(record), CharSize::Bits5);
    EXPECT_EQ(ParityOf(record), Parity::None);
    EXPECT_EQ(StopBitsOf(record), StopBits::One);
    EXPECT_EQ(FlowControlOf(record), FlowControl::None);
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

TEST(SerialPort, SettersWriteTheDeviceAndNameThemselvesWhenRefused) {
    PtyUart uart;
    SerialPort port(uart.path, true);
    port.SetBaudRate(B57600);
    port.SetNumOfStopBits(StopBits::Two);
    port.SetFlowControl(FlowControl::Hardware);
    const termios device = uart.Attributes();
    EXPECT_EQ(cfgetispeed(&device) + cfgetospeed(&device), 2U * B57600);
    EXPECT_EQ(device.c_cflag & (CSTOPB | CRTSCTS), static_cast<tcflag_t>(CSTOPB | CRTSCTS));
    EXPECT_EQ(port.GetBaudRate(), static_cast<speed_t>(B57600));
    EXPECT_EQ(port.GetCharSize(), CharSize::Bits8);
    EXPECT_EQ(port.GetNumOfStopBits(), StopBits::Two);
    EXPECT_EQ(port.GetFlowControl(), FlowControl::Hardware);

    const std::pair<std::function<void()>, std::string> setters[] = {
        {[&] { port.SetBaudRate(B9600); }, "Unsupported baud rate."},
        {[&] { port.SetCharSize(CharSize::Bits8); }, "Invalid character size setting."},
        {[&] { port.SetParity(Parity::None); }, "Invalid parity setting."},
        {[&] { port.SetNumOfStopBits(StopBits::One); }, "Invalid number of stop bits."},
        {[&] { port.SetFlowControl(FlowControl::None); }, "Invalid flow control."},
    };
    for (const auto& [set, context] : setters) {
        uart.Script("tcsetattr", {-EIO});
        EXPECT_EQ(Thrown(set),
                  "SerialPort::SetPortSettings(): Setting the attributes of the serial "
                  "port '" +
                      uart.path + "' failed?" + context + ": Input/output error [EIO]");
    }
}

TEST(SerialPort, WithoutTerminalAttributesOnlyStoresTheSettings) {
    PtyUart uart;
    SerialPort port(uart.path, false);
    port.Close();
    port.Open(B57600, CharSize::Bits7, Parity::Odd, StopBits::Two, FlowControl::Hardware);
    EXPECT_EQ(port.GetBaudRate(), 0U);
    EXPECT_EQ(port.GetCharSize(), CharSize::Bits5);
    EXPECT_EQ(port.GetParity(), Parity::None);
    EXPECT_EQ(port.GetFlowControl(), FlowControl::None);
    EXPECT_EQ(Thrown([&] { port.SetParity(Parity{3}); }), "Invalid parity setting.");
    port.Close();
    EXPECT_TRUE(uart.applied.empty());
}

}  // namespace
