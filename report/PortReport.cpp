#include "report/PortReport.h"

#include <linux/serial.h>
#include <sys/ioctl.h>
#include <termios.h>

#include "report/ReportText.h"
#include "serial/SystemError.h"

std::string PrintPortReport(SerialPort& port) {
    std::string result = "Device:    " + port.deviceName + "\n";
    if (!port.isOpen) {
        return result + "not opened yet!\n";
    }

    termios settings{};
    port.GetPortSettings(settings);
    const std::string speeds = FormatSpeeds(settings);
    const FlowControl flowControl = port.GetFlowControl();

    // The driver's own view of the line: a 16550 behind the 8250 driver
    // reports its clock (baud base), FIFO depth and IRQ here, which is what
    // bring-up engineers compare with the board's device tree.
    serial_struct driverData{};
    if (ioctl(port.fileDescriptor, TIOCGSERIAL, &driverData) == -1) {
        serial_error::Throw(" TIOCGSERIAL failed!");
    }
    result += speeds + FormatDriverData(flowControl, driverData, port.terminalAttributesSupported);

    // Leave the port as a fresh open would, with the settings the caller
    // asked for; the loop-back is deliberately not restored.
    port.Close();
    port.Open(port.baudRate, port.charSize, port.parity, port.numOfStopBits, port.flowControl);
    return result;
}
