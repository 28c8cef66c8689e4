#include "serial/LineSettings.h"

#include <array>
#include <cerrno>
#include <sstream>
#include <string>

#include "PortTestSupport.h"
#include "report/PortReport.h"
#include "serial/BaudRate.h"
#include "serial/SerialPort.h"

namespace {

// Baud rate, stop bits and flow control as the getters read them, after text.
// The enumerations' values are fixed: Hardware, Software and None are 0 to 2,
// and so are Even, Odd and None; the character sizes are CS5 to CS8.
std::string Describe(const SerialPort& port, const std::string& frame) {
    const std::array<const char*, 3> flowNames{"rtscts", "xonxoff", "none"};
    std::ostringstream text;
    text << SpeedToBaudRate(port.GetBaudRate()) << ' ' << frame
         << (port.GetNumOfStopBits() == StopBits::Two ? 2 : 1) << ' '
         << flowNames.at(static_cast<std::size_t>(port.GetFlowControl()));
    return text.str();
}

// The line as the getters read it, e.g. "9600 8N1 none".
std::string LineOf(const SerialPort& port) {
    const int bits = 5 + static_cast<int>(port.GetCharSize()) / CS6;
    return Describe(port, std::to_string(bits) + "EON"[static_cast<int>(port.GetParity())]);
}

// The stored settings as the port report reopens the port with them, e.g.
// "9600 N1 none". Flow control goes last and sets 8 bits without parity, so
// the stored parity shows only in PARODD and in INPCK (Even, Odd) or IGNPAR
// (None) of the fresh raw record; the stored character size has no effect.
std::string Reopened(SerialPort& port) {
    (void)PrintPortReport(port);
    termios device{};
    port.GetPortSettings(device);
    const tcflag_t input = device.c_iflag & (INPCK | IGNPAR);
    const bool odd = (device.c_cflag & PARODD) != 0;
    const char* parity = input == IGNPAR && !odd ? "N" : input != INPCK ? "?" : odd ? "O" : "E";
    return Describe(port, parity);
}

// Software flow control also sends XOFF when input fills up and lets any byte
// restart output; no getter reads those two back.
TEST(LineSettingsTransform, SoftwareFlowControlWorksBothWays) {
    termios record{};
    line_settings::ApplyFlowControl(record, FlowControl::Software);
    EXPECT_EQ(record.c_iflag, static_cast<tcflag_t>(IXON | IXOFF | IXANY));
}

// Setter calls one after the other, as one.
template <typename... Calls>
PortCall Sequence(Calls... calls) {
    return [=](SerialPort& port) { (calls(port), ...); };
}

struct SettingRow {
    const char* name;
    const char* line;    // as the getters read it afterwards
    const char* stored;  // as the port is reopened
    PortCall apply;
};

class SerialPortSetting : public testing::TestWithParam<SettingRow> {};

TEST_P(SerialPortSetting, ReachesTheDeviceAndIsStored) {
    SimulatedUart uart;
    SerialPort port(SimulatedUart::kPath, true);
    GetParam().apply(port);
    EXPECT_EQ(LineOf(port), GetParam().line);
    EXPECT_EQ(Reopened(port), GetParam().stored);
}

// Open leaves the raw record at B0, "0 8N1 none", whatever is stored.
INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortSetting,
    testing::Values(SettingRow{"NothingSet", "0 8N1 none", "9600 N1 none", Sequence()},
                    SettingRow{"Bits5", "0 5N1 none", "9600 N1 none", Set(CharSize::Bits5)},
                    SettingRow{"Bits7", "0 7N1 none", "9600 N1 none", Set(CharSize::Bits7)},
                    SettingRow{"OddParity", "0 8O1 none", "9600 O1 none", Set(Parity::Odd)},
                    SettingRow{"EvenAfterOdd", "0 8E1 none", "9600 E1 none",
                               Sequence(Set(Parity::Odd), Set(Parity::Even))},
                    SettingRow{"NoneAfterEven", "0 8N1 none", "9600 N1 none",
                               Sequence(Set(Parity::Even), Set(Parity::None))},
                    SettingRow{"OneStopBitAfterTwo", "0 8N1 none", "9600 N1 none",
                               Sequence(Set(StopBits::Two), Set(StopBits::One))},
                    SettingRow{"Software", "0 8N1 xonxoff", "9600 N1 xonxoff",
                               Set(FlowControl::Software)},
                    // IXOFF and IXANY outlive a later setting; the last setting must win.
                    SettingRow{"HardwareAfterSoftware", "0 8N1 rtscts", "9600 N1 rtscts",
                               Sequence(Set(FlowControl::Software), Set(FlowControl::Hardware))},
                    SettingRow{"NoneAfterSoftware", "0 8N1 none", "9600 N1 none",
                               Sequence(Set(FlowControl::Software), Set(FlowControl::None))},
                    SettingRow{"NoneAfterHardware", "0 8N1 none", "9600 N1 none",
                               Sequence(Set(FlowControl::Hardware), Set(FlowControl::None))},
                    // Flow control resets the character size and parity on the device,
                    // not the stop bits, and not what is stored.
                    SettingRow{"FlowControlAfterEvenParity", "0 8N2 rtscts", "9600 E2 rtscts",
                               Sequence(Set(Parity::Even), Set(CharSize::Bits7), Set(StopBits::Two),
                                        Set(FlowControl::Hardware))}),
    [](const testing::TestParamInfo<SettingRow>& info) { return info.param.name; });

struct RejectedRow {
    const char* name;
    PortCall call;
    const char* what;
    int code;
};

class SerialPortRejected : public testing::TestWithParam<RejectedRow> {};

TEST_P(SerialPortRejected, LeavesDeviceAndStoredValueUnchanged) {
    SimulatedUart uart;
    SerialPort port(SimulatedUart::kPath, true);
    port.Close();
    port.Open(B57600, CharSize::Bits8, Parity::Odd, StopBits::Two, FlowControl::Hardware);
    const termios device = uart.Attributes();

    EXPECT_TRUE(Throws([&] { GetParam().call(port); }, GetParam().what, GetParam().code));

    EXPECT_TRUE(SameAttributes(uart.Attributes(), device));
    EXPECT_EQ(Reopened(port), "57600 O2 rtscts");
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortRejected,
    testing::Values(
        RejectedRow{"Parity", Set(Parity{3}), "Invalid parity setting.", kInvalidArgument},
        RejectedRow{"StopBits", Set(StopBits{2}), "Invalid number of stop bits.", kInvalidArgument},
        RejectedRow{"FlowControl", Set(FlowControl{3}), "Invalid flow control.", kInvalidArgument},
        // Not a speed code: above the largest B constant.
        RejectedRow{"BaudRate", SetBaud(12345), "Unsupported baud rate.: Invalid argument",
                    EINVAL}),
    [](const testing::TestParamInfo<RejectedRow>& info) { return info.param.name; });

// A pseudo-terminal's driver keeps 8 bits and no parity enable whatever it is
// told; glibc's tcsetattr reports EINVAL when that undoes all it asked for.
TEST(SerialPortRefusedWrite, NamesDeviceAndSetting) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    const auto refused = [&](const std::string& context) {
        return "SerialPort::SetPortSettings(): Setting the attributes of the serial port '" +
               pty.SlavePath() + "' failed?" + context + ": Invalid argument";
    };

    EXPECT_TRUE(Throws([&] { port.SetCharSize(CharSize::Bits7); },
                       refused("Invalid character size setting."), EINVAL));
    port.SetParity(Parity::Even);  // adds INPCK; a second one asks for nothing but PARENB
    EXPECT_TRUE(
        Throws([&] { port.SetParity(Parity::Even); }, refused("Invalid parity setting."), EINVAL));
}

TEST(SerialPortWithoutAttributes, NeverTouchesTheDeviceAttributes) {
    SimulatedUart uart;
    const termios found = uart.Attributes();
    SerialPort port(SimulatedUart::kPath, false);

    port.SetBaudRate(B115200);
    port.SetCharSize(CharSize::Bits6);
    EXPECT_EQ(LineOf(port), "0 5N1 none");  // the all-zero record
    EXPECT_TRUE(
        Throws([&] { port.SetParity(Parity{3}); }, "Invalid parity setting.", kInvalidArgument));
    port.Close();

    EXPECT_TRUE(SameAttributes(uart.Attributes(), found));
}

}  // namespace
