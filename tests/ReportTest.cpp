#include <gtest/gtest.h>

#include <string>

#include "PtyUart.h"
#include "report/PortReport.h"
#include "report/ReportText.h"
#include "serial/SerialPort.h"

namespace {

TEST(ReportText, EdgesOfTheNumberFormats) {
    serial_struct data{};
    data.flags = -1;  // a mask: its 32 bits, not a sign
    data.irq = -3;
    data.custom_divisor = -2;
    EXPECT_EQ(FormatDriverData(FlowControl{3}, data, false),
              "Flowcontrol: Invalid\nBaud Base:     0\nFIFO Size:     0\nFlags:       0xffffffff\n"
              "IRQ:           -3\nDivisor:       -2\nTerminal Attributes are NOT supported!\n");
    EXPECT_STREQ(FlowControlName(FlowControl::Software), "Software");
}

TEST(PortReport, ClosedPortIsOnlyNamed) {
    PtyUart uart;
    SerialPort port(uart.path, true);
    port.Close();
    uart.calls.clear();
    EXPECT_EQ(PrintPortReport(port), "Device:    " + uart.path + "\nnot opened yet!\n");
    EXPECT_TRUE(uart.calls.empty());
}

TEST(PortReport, DescribesThePortAndReopensItWithTheStoredSettings) {
    PtyUart uart;
    uart.driverData.baud_base = 1500000;
    uart.driverData.xmit_fifo_size = 64;
    uart.driverData.flags = 0x40;
    uart.driverData.irq = 30;
    SerialPort port(uart.path, true);
    port.SetBaudRate(B57600);
    port.SetNumOfStopBits(StopBits::Two);
    port.SetFlowControl(FlowControl::Hardware);
    // The pty takes neither 7 bits nor parity; the port must still ask for them.
    uart.script["tcsetattr"] = {0, 0};
    port.SetCharSize(CharSize::Bits7);
    port.SetParity(Parity::Odd);
    port.SetLoopback(true);
    uart.script["tcsetattr"] = {1, 1, 1, 0, 0};  // restore, raw, speed, then those two again
    uart.applied.clear();

    EXPECT_EQ(PrintPortReport(port), "Device:    " + uart.path +
                                         "\nOutput Baudrate: 57600\nInput  Baudrate: 57600\n"
                                         "Flowcontrol: Hardware\nBaud Base:     1500000\n"
                                         "FIFO Size:     64\nFlags:       0x40\n"
                                         "IRQ:           30\nDivisor:       0\n");
    ASSERT_EQ(uart.applied.size(), 7U);
    EXPECT_EQ(uart.applied[3].c_cflag & CSIZE, static_cast<tcflag_t>(CS7));
    EXPECT_EQ(uart.applied[4].c_cflag & (PARENB | PARODD), static_cast<tcflag_t>(PARENB | PARODD));
    EXPECT_EQ(port.GetBaudRate(), static_cast<speed_t>(B57600));
    EXPECT_EQ(port.GetNumOfStopBits(), StopBits::Two);
    EXPECT_EQ(port.GetFlowControl(), FlowControl::Hardware);
    EXPECT_EQ(uart.modemWord & kLoop, 0);
}

}  // namespace
