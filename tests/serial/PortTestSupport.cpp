#include "PortTestSupport.h"

#include <chrono>
#include <sstream>

std::string DescribeSettings(speed_t baudRate, CharSize charSize, Parity parity,
                             StopBits numOfStopBits, FlowControl flowControl) {
    std::ostringstream text;
    text << "baudRate " << baudRate << ", charSize " << static_cast<std::uint32_t>(charSize)
         << ", parity " << static_cast<std::uint32_t>(parity) << ", numOfStopBits "
         << static_cast<std::uint32_t>(numOfStopBits) << ", flowControl "
         << static_cast<std::uint32_t>(flowControl);
    return text.str();
}

std::string DefaultSettings() {
    return DescribeSettings(B9600, CharSize::Bits8, Parity::None, StopBits::One, FlowControl::None);
}

// The stored line settings are private and have no getter; the port report is
// the one function the class lets read them. This test binary does not link
// the report library, so it gives that function a body that shows just them.
std::string PrintPortReport(SerialPort& port) {
    return DescribeSettings(port.baudRate, port.charSize, port.parity, port.numOfStopBits,
                            port.flowControl);
}

std::string StoredSettingsOf(SerialPort& port) { return PrintPortReport(port); }

void WaitForAvailable(const SerialPort& port, int count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (port.GetNumOfAvailableBytes() < count) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline)
            << "the driver never held " << count << " bytes";
        // Returns at once while anything is waiting; only paces the loop.
        (void)port.IsDataReceived(10);
    }
}
