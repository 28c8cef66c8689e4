// The report on real port objects. This program runs with the simulated UART
// preloaded, which gives /dev/ttyS2 the driver data of a PC's third port and
// echoes written bytes while the internal loop-back is on.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

#include "report/PortReport.h"
#include "serial/SerialPort.h"

namespace {

const std::string kDriverLines =
    "Baud Base:     115200\n"
    "FIFO Size:     16\n"
    "Flags:       0x10000040\n"
    "IRQ:           4\n"
    "Divisor:       0\n";

// True when a byte written now comes back, i.e. the loop-back is on.
bool Echoes(SerialPort& port) {
    const std::uint8_t probe = 0x3C;
    port.Write(&probe, 1);
    if (!port.IsDataReceived(0)) {
        port.FlushInputAndOutput();
        return false;
    }
    return port.Read() == probe;
}

TEST(PortReport, ClosedPortIsOnlyNamed) {
    SerialPort port("/dev/ttyS2", true);
    port.Close();

    EXPECT_EQ(PrintPortReport(port), "Device:    /dev/ttyS2\nnot opened yet!\n");
    EXPECT_FALSE(port.IsOpen());
}

TEST(PortReport, DescribesTheLineThenReopensWithStoredSettings) {
    SerialPort port("/dev/ttyS2", true);
    port.SetBaudRate(B57600);
    port.SetCharSize(CharSize::Bits8);
    port.SetParity(Parity::None);
    port.SetNumOfStopBits(StopBits::Two);
    port.SetFlowControl(FlowControl::Hardware);
    port.SetLoopback(true);
    ASSERT_TRUE(Echoes(port));

    const std::string report = PrintPortReport(port);

    EXPECT_EQ(report,
              "Device:    /dev/ttyS2\n"
              "Output Baudrate: 57600\n"
              "Input  Baudrate: 57600\n"
              "Flowcontrol: Hardware\n" +
                  kDriverLines);
    ASSERT_TRUE(port.IsOpen());
    EXPECT_EQ(port.GetBaudRate(), static_cast<speed_t>(B57600));
    EXPECT_EQ(port.GetNumOfStopBits(), StopBits::Two);
    EXPECT_EQ(port.GetFlowControl(), FlowControl::Hardware);
    EXPECT_FALSE(Echoes(port)) << "the reopened port must have its loop-back off";
}

TEST(PortReport, WithoutTerminalAttributesShowsZeroSpeedsAndSaysSo) {
    SerialPort port("/dev/ttyS2", false);
    port.SetBaudRate(B115200);
    port.SetFlowControl(FlowControl::Hardware);

    EXPECT_EQ(PrintPortReport(port),
              "Device:    /dev/ttyS2\n"
              "Output Baudrate: 0\n"
              "Input  Baudrate: 0\n"
              "Flowcontrol: None\n" +
                  kDriverLines + "Terminal Attributes are NOT supported!\n");
    EXPECT_TRUE(port.IsOpen());
}

TEST(PortReport, DriverWithoutSerialDataThrowsAndLeavesThePortOpen) {
    // A pseudo-terminal's driver knows no TIOCGSERIAL, like a USB adapter's.
    int master = -1;
    int slave = -1;
    std::array<char, 64> slaveName{};
    ASSERT_EQ(openpty(&master, &slave, slaveName.data(), nullptr, nullptr), 0);
    close(slave);
    {
        SerialPort port(slaveName.data(), true);
        port.SetBaudRate(B19200);
        try {
            PrintPortReport(port);
            ADD_FAILURE() << "no exception";
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code().value(), ENOTTY);
            EXPECT_STREQ(error.what(), " TIOCGSERIAL failed!: Inappropriate ioctl for device");
        }
        EXPECT_TRUE(port.IsOpen());
        EXPECT_EQ(port.GetBaudRate(), static_cast<speed_t>(B19200));
        // Still the same descriptor: bytes written reach the other end.
        port.Write("ok");
        std::array<char, 2> received{};
        EXPECT_EQ(read(master, received.data(), received.size()), 2);
    }
    close(master);
}

}  // namespace
