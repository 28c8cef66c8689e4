#include <gtest/gtest.h>

#include <string>

#include "report/ReportText.h"

namespace {

termios WithSpeeds(speed_t output, speed_t input) {
    termios settings{};
    cfsetospeed(&settings, output);
    cfsetispeed(&settings, input);
    return settings;
}

// glibc keeps one speed for both directions in c_cflag, so the two lines
// always agree here; what can break is the table look-up behind them.
TEST(ReportSpeeds, BaudNumbersAndUnknownCodesShowZero) {
    struct Row {
        const char* name;
        speed_t output;
        speed_t input;
        std::string text;
    };
    const Row rows[] = {
        {"Equal", B57600, B57600, "Output Baudrate: 57600\nInput  Baudrate: 57600\n"},
        {"HighestRate", B3000000, B3000000, "Output Baudrate: 3000000\nInput  Baudrate: 3000000\n"},
        {"ReportOnlyRate", B134, B134, "Output Baudrate: 134\nInput  Baudrate: 134\n"},
        {"HangUpCode", B0, B0, "Output Baudrate: 0\nInput  Baudrate: 0\n"},
        {"BeyondTheTable", B4000000, B4000000, "Output Baudrate: 0\nInput  Baudrate: 0\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(FormatSpeeds(WithSpeeds(row.output, row.input)), row.text);
    }
}

TEST(ReportSpeeds, AllZeroRecordReadsAsZero) {
    // What a port without terminal attributes hands the report.
    EXPECT_EQ(FormatSpeeds(termios{}), "Output Baudrate: 0\nInput  Baudrate: 0\n");
}

serial_struct DriverData(int baudBase, int fifoSize, int flags, int irq, int divisor) {
    serial_struct data{};
    data.baud_base = baudBase;
    data.xmit_fifo_size = fifoSize;
    data.flags = flags;
    data.irq = irq;
    data.custom_divisor = divisor;
    return data;
}

TEST(ReportDriverData, LabelsAndNumberFormats) {
    struct Row {
        const char* name;
        FlowControl flowControl;
        bool attributesSupported;
        serial_struct data;
        std::string text;
    };
    const Row rows[] = {
        {"BoardExample", FlowControl::Hardware, true, DriverData(1500000, 64, 0x40, 30, 0),
         "Flowcontrol: Hardware\n"
         "Baud Base:     1500000\n"
         "FIFO Size:     64\n"
         "Flags:       0x40\n"
         "IRQ:           30\n"
         "Divisor:       0\n"},
        // Hex must not stick: the values after the flags are decimal again.
        {"DecimalAfterHex", FlowControl::Software, true, DriverData(115200, 16, 0x10000040, 12, 10),
         "Flowcontrol: Software\n"
         "Baud Base:     115200\n"
         "FIFO Size:     16\n"
         "Flags:       0x10000040\n"
         "IRQ:           12\n"
         "Divisor:       10\n"},
        {"NegativeValues", FlowControl::None, true, DriverData(-1, -16, -1, -2, -3),
         "Flowcontrol: None\n"
         "Baud Base:     -1\n"
         "FIFO Size:     -16\n"
         "Flags:       0xffffffff\n"
         "IRQ:           -2\n"
         "Divisor:       -3\n"},
        {"ZeroFlagsHaveNoPadding", FlowControl::Hardware, true, DriverData(0, 0, 0, 0, 0),
         "Flowcontrol: Hardware\n"
         "Baud Base:     0\n"
         "FIFO Size:     0\n"
         "Flags:       0x0\n"
         "IRQ:           0\n"
         "Divisor:       0\n"},
        {"NoThousandsSeparators", FlowControl::Hardware, true,
         DriverData(2147483647, 4096, 0, 1000, 0),
         "Flowcontrol: Hardware\n"
         "Baud Base:     2147483647\n"
         "FIFO Size:     4096\n"
         "Flags:       0x0\n"
         "IRQ:           1000\n"
         "Divisor:       0\n"},
        {"AttributesNotSupportedIsLast", FlowControl::None, false, DriverData(115200, 16, 0, 4, 0),
         "Flowcontrol: None\n"
         "Baud Base:     115200\n"
         "FIFO Size:     16\n"
         "Flags:       0x0\n"
         "IRQ:           4\n"
         "Divisor:       0\n"
         "Terminal Attributes are NOT supported!\n"},
        {"ValueOutsideTheEnumeration", static_cast<FlowControl>(7), true, DriverData(0, 0, 0, 0, 0),
         "Flowcontrol: Invalid\n"
         "Baud Base:     0\n"
         "FIFO Size:     0\n"
         "Flags:       0x0\n"
         "IRQ:           0\n"
         "Divisor:       0\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(FormatDriverData(row.flowControl, row.data, row.attributesSupported), row.text);
    }
}

}  // namespace
