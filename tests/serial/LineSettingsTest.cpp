#include "serial/LineSettings.h"

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "DeviceFake.h"
#include "PortTestSupport.h"
#include "PtyPair.h"
#include "serial/SerialPort.h"

namespace {

using line_settings::ApplyCharSize;
using line_settings::ApplyFlowControl;
using line_settings::ApplyParity;
using line_settings::ApplyStopBits;

// --- The transforms, on a record alone ---

struct ParityRow {
    const char* name;
    std::vector<Parity> applied;  // in this order
    Parity readBack;
    tcflag_t parityBits;  // expected c_cflag & (PARENB | PARODD)
    tcflag_t checkBits;   // expected c_iflag & (INPCK | IGNPAR)
};

class ParityTransform : public testing::TestWithParam<ParityRow> {};

TEST_P(ParityTransform, SetsAndReadsBackTheBits) {
    termios record{};
    for (const Parity parity : GetParam().applied) {
        ApplyParity(record, parity);
    }
    EXPECT_EQ(line_settings::ParityOf(record), GetParam().readBack);
    EXPECT_EQ(record.c_cflag & static_cast<tcflag_t>(PARENB | PARODD), GetParam().parityBits);
    EXPECT_EQ(record.c_iflag & static_cast<tcflag_t>(INPCK | IGNPAR), GetParam().checkBits);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ParityTransform,
    testing::Values(
        ParityRow{"Even", {Parity::Even}, Parity::Even, PARENB, INPCK},
        ParityRow{"Odd", {Parity::Odd}, Parity::Odd, PARENB | PARODD, INPCK},
        ParityRow{
            "EvenAfterOddClearsParodd", {Parity::Odd, Parity::Even}, Parity::Even, PARENB, INPCK},
        ParityRow{"NoneAfterEvenKeepsInpckAndAddsIgnpar",
                  {Parity::Even, Parity::None},
                  Parity::None,
                  0,
                  INPCK | IGNPAR},
        ParityRow{"NoneAfterOddLeavesParodd",
                  {Parity::Odd, Parity::None},
                  Parity::None,
                  PARODD,
                  INPCK | IGNPAR}),
    [](const testing::TestParamInfo<ParityRow>& info) { return info.param.name; });

struct CharSizeRow {
    const char* name;
    CharSize charSize;
};

class CharSizeTransform : public testing::TestWithParam<CharSizeRow> {};

TEST_P(CharSizeTransform, ReplacesTheSizeBitsOnly) {
    termios record{};
    record.c_cflag = CS8 | CSTOPB | CREAD | PARENB;
    ApplyCharSize(record, GetParam().charSize);
    EXPECT_EQ(line_settings::CharSizeOf(record), GetParam().charSize);
    EXPECT_EQ(record.c_cflag & static_cast<tcflag_t>(~CSIZE),
              static_cast<tcflag_t>(CSTOPB | CREAD | PARENB));
}

INSTANTIATE_TEST_SUITE_P(
    AllSizes, CharSizeTransform,
    testing::Values(CharSizeRow{"Bits5", CharSize::Bits5}, CharSizeRow{"Bits6", CharSize::Bits6},
                    CharSizeRow{"Bits7", CharSize::Bits7}, CharSizeRow{"Bits8", CharSize::Bits8}),
    [](const testing::TestParamInfo<CharSizeRow>& info) { return info.param.name; });

struct FlowControlRow {
    const char* name;
    std::vector<FlowControl> applied;  // in this order
    FlowControl readBack;
};

class FlowControlTransform : public testing::TestWithParam<FlowControlRow> {};

// IXOFF and IXANY outlive a later setting, so the last setting must win
// however the flags were left.
TEST_P(FlowControlTransform, ReportsTheLastSetting) {
    termios record = line_settings::MakeRawRecord();
    for (const FlowControl flowControl : GetParam().applied) {
        ApplyFlowControl(record, flowControl);
    }
    EXPECT_EQ(line_settings::FlowControlOf(record), GetParam().readBack);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FlowControlTransform,
    testing::Values(FlowControlRow{"Hardware", {FlowControl::Hardware}, FlowControl::Hardware},
                    FlowControlRow{"Software", {FlowControl::Software}, FlowControl::Software},
                    FlowControlRow{"None", {FlowControl::None}, FlowControl::None},
                    FlowControlRow{"HardwareAfterSoftware",
                                   {FlowControl::Software, FlowControl::Hardware},
                                   FlowControl::Hardware},
                    FlowControlRow{"NoneAfterSoftware",
                                   {FlowControl::Software, FlowControl::None},
                                   FlowControl::None},
                    FlowControlRow{"SoftwareAfterHardware",
                                   {FlowControl::Hardware, FlowControl::Software},
                                   FlowControl::Software},
                    FlowControlRow{"NoneAfterHardware",
                                   {FlowControl::Hardware, FlowControl::None},
                                   FlowControl::None}),
    [](const testing::TestParamInfo<FlowControlRow>& info) { return info.param.name; });

struct FlowControlValueRow {
    const char* name;
    FlowControl flowControl;
};

class FlowControlResets : public testing::TestWithParam<FlowControlValueRow> {};

TEST_P(FlowControlResets, CharSizeAndParityButNotStopBits) {
    termios record = line_settings::MakeRawRecord();
    ApplyParity(record, Parity::Even);
    ApplyCharSize(record, CharSize::Bits7);
    ApplyStopBits(record, StopBits::Two);

    ApplyFlowControl(record, GetParam().flowControl);

    EXPECT_EQ(line_settings::ParityOf(record), Parity::None);
    EXPECT_EQ(line_settings::CharSizeOf(record), CharSize::Bits8);
    EXPECT_EQ(line_settings::StopBitsOf(record), StopBits::Two);
}

INSTANTIATE_TEST_SUITE_P(AllValues, FlowControlResets,
                         testing::Values(FlowControlValueRow{"Hardware", FlowControl::Hardware},
                                         FlowControlValueRow{"Software", FlowControl::Software},
                                         FlowControlValueRow{"None", FlowControl::None}),
                         [](const testing::TestParamInfo<FlowControlValueRow>& info) {
                             return info.param.name;
                         });

struct InvalidValueRow {
    const char* name;
    std::function<void(termios&)> apply;
    const char* what;
};

class InvalidValue : public testing::TestWithParam<InvalidValueRow> {};

TEST_P(InvalidValue, ThrowsAndLeavesTheRecordAlone) {
    termios record = line_settings::MakeRawRecord();
    ApplyParity(record, Parity::Odd);
    ApplyFlowControl(record, FlowControl::Hardware);
    const termios before = record;

    EXPECT_TRUE(ThrowsInvalidArgument([&] { GetParam().apply(record); }, GetParam().what));
    EXPECT_TRUE(SameAttributes(record, before));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, InvalidValue,
    testing::Values(InvalidValueRow{"Parity", [](termios& r) { ApplyParity(r, Parity{3}); },
                                    "Invalid parity setting."},
                    InvalidValueRow{"StopBits", [](termios& r) { ApplyStopBits(r, StopBits{2}); },
                                    "Invalid number of stop bits."},
                    InvalidValueRow{"FlowControl",
                                    [](termios& r) { ApplyFlowControl(r, FlowControl{3}); },
                                    "Invalid flow control."}),
    [](const testing::TestParamInfo<InvalidValueRow>& info) { return info.param.name; });

// --- The setters and getters, on a pseudo-terminal ---
//
// A pseudo-terminal keeps every bit it is given except two: its driver forces
// CS8 and clears PARENB on every write of the attributes, and where that is
// all a write would change, glibc's tcsetattr reports EINVAL. Character size
// and parity can therefore not be read back from it; the transforms above
// cover their bits, and here their stored values and the bits the driver does
// keep (PARODD, INPCK) are checked.

struct SetterRow {
    const char* name;
    std::function<void(SerialPort&)> apply;
    std::function<void(const termios&, const SerialPort&)> check;  // device, getters
    std::string stored;
};

class SerialPortSetter : public testing::TestWithParam<SetterRow> {};

TEST_P(SerialPortSetter, ReachesTheDeviceAndIsStored) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    GetParam().apply(port);
    GetParam().check(pty.SlaveAttributes(), port);
    EXPECT_EQ(StoredSettingsOf(port), GetParam().stored);
}

bool Has(tcflag_t flags, tcflag_t bits) { return (flags & bits) == bits; }

INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortSetter,
    testing::Values(SetterRow{"BaudRateInBothDirections",
                              [](SerialPort& p) { p.SetBaudRate(B115200); },
                              [](const termios& t, const SerialPort& p) {
                                  EXPECT_EQ(cfgetispeed(&t), static_cast<speed_t>(B115200));
                                  EXPECT_EQ(cfgetospeed(&t), static_cast<speed_t>(B115200));
                                  EXPECT_EQ(p.GetBaudRate(), static_cast<speed_t>(B115200));
                              },
                              DescribeSettings(B115200, CharSize::Bits8, Parity::None,
                                               StopBits::One, FlowControl::None)},
                    SetterRow{"TwoStopBits",
                              [](SerialPort& p) { p.SetNumOfStopBits(StopBits::Two); },
                              [](const termios& t, const SerialPort& p) {
                                  EXPECT_TRUE(Has(t.c_cflag, CSTOPB));
                                  EXPECT_EQ(p.GetNumOfStopBits(), StopBits::Two);
                              },
                              DescribeSettings(B9600, CharSize::Bits8, Parity::None, StopBits::Two,
                                               FlowControl::None)},
                    SetterRow{"OneStopBitAfterTwo",
                              [](SerialPort& p) {
                                  p.SetNumOfStopBits(StopBits::Two);
                                  p.SetNumOfStopBits(StopBits::One);
                              },
                              [](const termios& t, const SerialPort& p) {
                                  EXPECT_FALSE(Has(t.c_cflag, CSTOPB));
                                  EXPECT_EQ(p.GetNumOfStopBits(), StopBits::One);
                              },
                              DefaultSettings()},
                    SetterRow{"HardwareFlowControl",
                              [](SerialPort& p) { p.SetFlowControl(FlowControl::Hardware); },
                              [](const termios& t, const SerialPort& p) {
                                  EXPECT_TRUE(Has(t.c_cflag, CRTSCTS));
                                  EXPECT_EQ(p.GetFlowControl(), FlowControl::Hardware);
                              },
                              DescribeSettings(B9600, CharSize::Bits8, Parity::None, StopBits::One,
                                               FlowControl::Hardware)},
                    SetterRow{"SoftwareFlowControl",
                              [](SerialPort& p) { p.SetFlowControl(FlowControl::Software); },
                              [](const termios& t, const SerialPort& p) {
                                  EXPECT_TRUE(Has(t.c_iflag, IXON | IXOFF | IXANY));
                                  EXPECT_EQ(p.GetFlowControl(), FlowControl::Software);
                              },
                              DescribeSettings(B9600, CharSize::Bits8, Parity::None, StopBits::One,
                                               FlowControl::Software)},
                    SetterRow{"NoneAfterSoftware",
                              [](SerialPort& p) {
                                  p.SetFlowControl(FlowControl::Software);
                                  p.SetFlowControl(FlowControl::None);
                              },
                              [](const termios& t, const SerialPort& p) {
                                  EXPECT_FALSE(Has(t.c_iflag, IXON));
                                  EXPECT_EQ(p.GetFlowControl(), FlowControl::None);
                              },
                              DefaultSettings()},
                    SetterRow{"HardwareAfterSoftware",
                              [](SerialPort& p) {
                                  p.SetFlowControl(FlowControl::Software);
                                  p.SetFlowControl(FlowControl::Hardware);
                              },
                              [](const termios& /*device*/, const SerialPort& p) {
                                  EXPECT_EQ(p.GetFlowControl(), FlowControl::Hardware);
                              },
                              DescribeSettings(B9600, CharSize::Bits8, Parity::None, StopBits::One,
                                               FlowControl::Hardware)},
                    // A pseudo-terminal's driver drops PARENB; PARODD and INPCK stay.
                    SetterRow{"OddParity", [](SerialPort& p) { p.SetParity(Parity::Odd); },
                              [](const termios& t, const SerialPort& /*port*/) {
                                  EXPECT_TRUE(Has(t.c_cflag, PARODD));
                                  EXPECT_TRUE(Has(t.c_iflag, INPCK));
                              },
                              DescribeSettings(B9600, CharSize::Bits8, Parity::Odd, StopBits::One,
                                               FlowControl::None)}),
    [](const testing::TestParamInfo<SetterRow>& info) { return info.param.name; });

TEST(SerialPortSettings, FlowControlAfterEvenParityKeepsTheStoredParity) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    port.SetParity(Parity::Even);

    port.SetFlowControl(FlowControl::Hardware);

    // Parity off and 8 bits on the device are the driver's doing here (see
    // FlowControlResets for the record). Flow control started from the
    // device's record, not from a fresh one:
    EXPECT_TRUE(Has(pty.SlaveAttributes().c_iflag, INPCK));
    EXPECT_EQ(StoredSettingsOf(port), DescribeSettings(B9600, CharSize::Bits8, Parity::Even,
                                                       StopBits::One, FlowControl::Hardware));
}

struct RejectedRow {
    const char* name;
    std::function<void(SerialPort&)> call;
    bool invalidArgument;  // else a system error carrying EINVAL
    const char* what;
};

class SerialPortRejected : public testing::TestWithParam<RejectedRow> {};

TEST_P(SerialPortRejected, LeavesDeviceAndStoredValueUnchanged) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    port.SetBaudRate(B57600);
    port.SetParity(Parity::Odd);
    port.SetNumOfStopBits(StopBits::Two);
    port.SetFlowControl(FlowControl::Hardware);
    const termios device = pty.SlaveAttributes();
    const std::string stored = StoredSettingsOf(port);

    const auto call = [&] { GetParam().call(port); };
    if (GetParam().invalidArgument) {
        EXPECT_TRUE(ThrowsInvalidArgument(call, GetParam().what));
    } else {
        EXPECT_TRUE(ThrowsSystemError(call, GetParam().what, EINVAL));
    }

    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), device));
    EXPECT_EQ(StoredSettingsOf(port), stored);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortRejected,
    testing::Values(RejectedRow{"Parity", [](SerialPort& p) { p.SetParity(Parity{3}); }, true,
                                "Invalid parity setting."},
                    RejectedRow{"StopBits", [](SerialPort& p) { p.SetNumOfStopBits(StopBits{2}); },
                                true, "Invalid number of stop bits."},
                    RejectedRow{"FlowControl",
                                [](SerialPort& p) { p.SetFlowControl(FlowControl{3}); }, true,
                                "Invalid flow control."},
                    // Not a speed code: above the largest B constant.
                    RejectedRow{"BaudRate", [](SerialPort& p) { p.SetBaudRate(12345); }, false,
                                "Unsupported baud rate.: Invalid argument"}),
    [](const testing::TestParamInfo<RejectedRow>& info) { return info.param.name; });

struct RefusedWriteRow {
    const char* name;
    std::function<void(SerialPort&)> call;
    const char* context;
};

class SerialPortRefusedWrite : public testing::TestWithParam<RefusedWriteRow> {};

TEST_P(SerialPortRefusedWrite, NamesDeviceAndSettingAndStoresNothing) {
    PtyPair pty;
    DeviceFake fake(pty.SlavePath());
    SerialPort port(pty.SlavePath(), true);
    const termios device = pty.SlaveAttributes();
    fake.FailNextAttributeWrite(EIO);

    EXPECT_TRUE(ThrowsSystemError(
        [&] { GetParam().call(port); },
        "SerialPort::SetPortSettings(): Setting the attributes of the serial port '" +
            pty.SlavePath() + "' failed?" + GetParam().context + ": Input/output error",
        EIO));

    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), device));
    EXPECT_EQ(StoredSettingsOf(port), DefaultSettings());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SerialPortRefusedWrite,
    testing::Values(RefusedWriteRow{"BaudRate", [](SerialPort& p) { p.SetBaudRate(B115200); },
                                    "Unsupported baud rate."},
                    RefusedWriteRow{"CharSize",
                                    [](SerialPort& p) { p.SetCharSize(CharSize::Bits7); },
                                    "Invalid character size setting."},
                    RefusedWriteRow{"Parity", [](SerialPort& p) { p.SetParity(Parity::Even); },
                                    "Invalid parity setting."},
                    RefusedWriteRow{"StopBits",
                                    [](SerialPort& p) { p.SetNumOfStopBits(StopBits::Two); },
                                    "Invalid number of stop bits."},
                    RefusedWriteRow{"FlowControl",
                                    [](SerialPort& p) { p.SetFlowControl(FlowControl::Software); },
                                    "Invalid flow control."}),
    [](const testing::TestParamInfo<RefusedWriteRow>& info) { return info.param.name; });

TEST(SerialPortSettings, OpenWithSettingsAppliesAllFive) {
    PtyPair pty;
    DeviceFake fake(pty.SlavePath());
    fake.EmulateModem(0);
    SerialPort port(pty.SlavePath(), true);
    port.Close();

    port.Open(B57600, CharSize::Bits8, Parity::Odd, StopBits::Two, FlowControl::Hardware);

    const termios device = pty.SlaveAttributes();
    EXPECT_EQ(cfgetospeed(&device), static_cast<speed_t>(B57600));
    EXPECT_TRUE(Has(device.c_cflag, CSTOPB | CRTSCTS | PARODD));
    EXPECT_TRUE(Has(device.c_iflag, INPCK));
    EXPECT_EQ(StoredSettingsOf(port), DescribeSettings(B57600, CharSize::Bits8, Parity::Odd,
                                                       StopBits::Two, FlowControl::Hardware));
}

TEST(SerialPortWithoutAttributes, SettersOnlyStoreAndGettersSeeAZeroRecord) {
    PtyPair pty;
    const termios original = pty.SlaveAttributes();
    SerialPort port(pty.SlavePath(), false);
    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), original));

    port.SetBaudRate(B115200);
    port.SetCharSize(CharSize::Bits6);
    port.SetParity(Parity::Odd);
    port.SetNumOfStopBits(StopBits::Two);
    port.SetFlowControl(FlowControl::Software);

    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), original));
    const std::string stored = DescribeSettings(B115200, CharSize::Bits6, Parity::Odd,
                                                StopBits::Two, FlowControl::Software);
    EXPECT_EQ(StoredSettingsOf(port), stored);
    EXPECT_EQ(port.GetBaudRate(), static_cast<speed_t>(B0));
    EXPECT_EQ(port.GetCharSize(), CharSize::Bits5);
    EXPECT_EQ(port.GetParity(), Parity::None);
    EXPECT_EQ(port.GetNumOfStopBits(), StopBits::One);
    EXPECT_EQ(port.GetFlowControl(), FlowControl::None);

    EXPECT_TRUE(
        ThrowsInvalidArgument([&] { port.SetParity(Parity{3}); }, "Invalid parity setting."));
    EXPECT_TRUE(ThrowsInvalidArgument([&] { port.SetNumOfStopBits(StopBits{2}); },
                                      "Invalid number of stop bits."));
    EXPECT_TRUE(ThrowsInvalidArgument([&] { port.SetFlowControl(FlowControl{3}); },
                                      "Invalid flow control."));
    EXPECT_EQ(StoredSettingsOf(port), stored);
}

TEST(SerialPortWithoutAttributes, CloseLeavesTheAttributesAsItFindsThem) {
    PtyPair pty;
    DeviceFake fake(pty.SlavePath());
    fake.EmulateModem(0);
    SerialPort port(pty.SlavePath(), false);
    termios changed = pty.SlaveAttributes();
    cfsetispeed(&changed, B2400);
    cfsetospeed(&changed, B2400);
    pty.SetSlaveAttributes(changed);
    changed = pty.SlaveAttributes();

    port.Close();

    EXPECT_TRUE(SameAttributes(pty.SlaveAttributes(), changed));
}

}  // namespace
