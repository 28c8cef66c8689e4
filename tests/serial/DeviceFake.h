#ifndef MEROVANE_TESTS_SERIAL_DEVICEFAKE_H
#define MEROVANE_TESTS_SERIAL_DEVICEFAKE_H

#include <memory>
#include <string>

// Stands in for parts of the driver behind one device node.
//
// A pseudo-terminal has no modem lines and rejects TIOCMGET and TIOCMSET with
// ENOTTY, so a port on one could never get past the loop-back step of Close;
// this serves those two requests from a status word, as a UART driver would.
// It can also make the next ioctl of a given request, or the next tcsetattr,
// fail with a chosen errno, which no healthy device does on demand.
//
// It works because the test binary defines ioctl and tcsetattr itself: the
// serial library, linked into the binary, binds to these definitions, while
// glibc's own internal callers keep reaching the kernel directly. Calls on
// other devices, and calls not faked, pass through to the real functions.
// One instance at a time.
class DeviceFake {
  public:
    // The device is recognised by its device number, whatever descriptor the
    // port holds on it.
    explicit DeviceFake(const std::string& devicePath);
    ~DeviceFake();
    DeviceFake(const DeviceFake&) = delete;
    DeviceFake& operator=(const DeviceFake&) = delete;
    DeviceFake(DeviceFake&&) = delete;
    DeviceFake& operator=(DeviceFake&&) = delete;

    // From now on TIOCMGET and TIOCMSET are answered from this status word.
    void EmulateModem(int status) const;
    [[nodiscard]] int ModemStatus() const;
    // TIOCMSET calls on the device so far, faked, failed or passed through.
    [[nodiscard]] int ModemWrites() const;

    // The next ioctl of request on the device fails with error.
    void FailNextIoctl(unsigned long request, int error) const;
    // The next tcsetattr on the device fails with error, changing nothing.
    void FailNextAttributeWrite(int error) const;

    // Shared with the replacement ioctl and tcsetattr while attached.
    struct State;

  private:
    std::unique_ptr<State> state;
};

#endif
