#ifndef MEROVANE_SERIAL_SERIALPORT_H
#define MEROVANE_SERIAL_SERIALPORT_H

#include <termios.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

// Line settings. The character sizes are the CSIZE bit patterns themselves,
// so they go into c_cflag unchanged; the others are translated by the setters.
enum class CharSize : std::uint32_t { Bits5 = CS5, Bits6 = CS6, Bits7 = CS7, Bits8 = CS8 };
enum class Parity : std::uint32_t { Even = 0, Odd = 1, None = 2 };
enum class StopBits : std::uint32_t { One = 0, Two = 1 };
enum class FlowControl : std::uint32_t { Hardware = 0, Software = 1, None = 2 };

class SerialPort;

// Composes the port report; it reads the port's state directly and closes and
// reopens the port with its stored line settings.
std::string PrintPortReport(SerialPort& port);

// One open terminal device in raw mode. The constructor opens the device, so
// an object that exists is open until Close is called. Every failure is thrown:
// std::system_error (system category, errno of the failed call) for the device,
// std::invalid_argument for a line-setting value outside its enumeration.
// Operations that leave the object's own fields alone are const, even where
// they change the device.
class SerialPort {
  public:
    // With terminalAttributesSupported false the device's termios record is
    // never read or written: setters only store their value and getters see an
    // all-zero record.
    SerialPort(std::string deviceName, bool terminalAttributesSupported);
    // Closes a port that is still open and never throws. Should Close fail, it
    // still puts the saved attributes back where it can and lets go of the
    // descriptor.
    ~SerialPort();

    // The object owns its descriptor; a copy would close it twice.
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;
    SerialPort(SerialPort&&) = delete;
    SerialPort& operator=(SerialPort&&) = delete;

    // Opens the device, saves its attributes, applies the raw record and
    // discards everything that was waiting on the line.
    void Open();
    // Open, then the five setters in this order.
    void Open(speed_t newBaudRate, CharSize newCharSize, Parity newParity,
              StopBits newNumOfStopBits, FlowControl newFlowControl);
    // Switches the loop-back off, restores the saved attributes and closes.
    void Close();
    [[nodiscard]] bool IsOpen() const;

    void GetPortSettings(termios& settings) const;
    // context ends the failure message, naming the setting being written.
    void SetPortSettings(const termios& settings, const std::string& context) const;

    // Speed codes (B9600, ...), not baud numbers.
    void SetBaudRate(speed_t newBaudRate);
    [[nodiscard]] speed_t GetBaudRate() const;
    void SetCharSize(CharSize newCharSize);
    [[nodiscard]] CharSize GetCharSize() const;
    void SetParity(Parity newParity);
    [[nodiscard]] Parity GetParity() const;
    void SetNumOfStopBits(StopBits newNumOfStopBits);
    [[nodiscard]] StopBits GetNumOfStopBits() const;
    void SetFlowControl(FlowControl newFlowControl);
    [[nodiscard]] FlowControl GetFlowControl() const;

    void SetLoopback(bool on) const;
    void SetRts(bool on) const;
    void FlushInputAndOutput() const;
    [[nodiscard]] std::int32_t GetNumOfAvailableBytes() const;
    // Moves the bytes the driver reports waiting into the receive buffer.
    void ReadAllAvailableData();

    void Write(const std::uint8_t* data, std::size_t length) const;
    void Write(const std::string& data) const;
    // Blocks until one byte has arrived; never looks at the receive buffer.
    [[nodiscard]] std::uint8_t Read() const;
    // Waits up to timeoutMs for input in the driver (negative: no limit).
    [[nodiscard]] bool IsDataReceived(std::int32_t timeoutMs) const;
    [[nodiscard]] bool HasBufferedData() const;
    // Moves the count oldest buffered bytes into data (count 0: all of them).
    void ReadBufferedData(std::vector<std::uint8_t>& data, std::size_t count);

  private:
    friend std::string PrintPortReport(SerialPort& port);

    void CheckOpen() const;
    // The device's record as a setting reads and changes it; open ports only.
    [[nodiscard]] termios CurrentSettings() const;
    void ReleaseDescriptor() noexcept;
    void CloseWithoutThrowing() noexcept;

    bool isOpen = false;
    std::string deviceName;
    std::int32_t fileDescriptor = -1;
    termios savedSettings{};
    std::deque<std::uint8_t> receiveBuffer;
    speed_t baudRate = B9600;
    CharSize charSize = CharSize::Bits8;
    Parity parity = Parity::None;
    StopBits numOfStopBits = StopBits::One;
    FlowControl flowControl = FlowControl::None;
    bool terminalAttributesSupported;
};

#endif
