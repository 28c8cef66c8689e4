#include "app/LoopbackRun.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>

#include "report/PortReport.h"
#include "serial/SerialPort.h"

namespace {

constexpr const char* kDeviceName = "/dev/ttyS2";
constexpr std::uint8_t kPatternByte = 0x55;  // 01010101: every bit toggles
constexpr std::uint64_t kBytesPerDot = 100;
constexpr std::uint64_t kBytesPerLine = 30000;  // 300 dots

void Announce(const std::string& inputFileName) {
    if (send55) {
        std::cout << "Write '0x55' to serial port." << std::endl;
    } else {
        std::cout << "Writing data from file '" << inputFileName << "' to serial port."
                  << std::endl;
    }
    std::cout << std::endl;
}

// Ends the process without unwinding: the port keeps the test's settings
// (and its loop-back) for whoever looks at the failing line next.
[[noreturn]] void EndAfterMismatch(std::uint8_t written, std::uint8_t readed) {
    std::cerr << "******************* FAIL *******************\n";
    std::fprintf(stderr, "ERROR: Written: 0x%x, Readed: 0x%x\n", static_cast<unsigned>(written),
                 static_cast<unsigned>(readed));
    std::cerr << "******************* FAIL *******************\n";
    std::exit(0);
}

// A 7-bit line cannot carry the top bit, so it is neither sent nor expected.
std::uint8_t FitToCharSize(SerialPort& port, std::uint8_t byte) {
    if (port.GetCharSize() == CharSize::Bits7) {
        return static_cast<std::uint8_t>(byte & 0x7FU);
    }
    return byte;
}

[[noreturn]] void SendPatternByte(SerialPort& port) {
    const std::uint8_t written = FitToCharSize(port, kPatternByte);
    std::cout << "Writing to serial port." << std::endl;
    port.Write(&written, 1);
    std::cout << "Reading from serial port." << std::endl;
    const std::uint8_t readed = port.Read();
    if (readed != written) {
        EndAfterMismatch(written, readed);
    }
    std::fprintf(stderr, "Written: 0x%x, Readed: 0x%x\n", static_cast<unsigned>(written),
                 static_cast<unsigned>(readed));
    std::exit(0);
}

}  // namespace

void SendFile(SerialPort& port, std::istream& input) {
    // 64 bits: an endless input at 3 Mbaud would need millennia to wrap it.
    std::uint64_t matchedCount = 0;
    char next = 0;
    while (input.get(next)) {
        const std::uint8_t written = FitToCharSize(port, static_cast<std::uint8_t>(next));
        port.Write(&written, 1);
        const std::uint8_t readed = port.Read();
        if (readed != written) {
            EndAfterMismatch(written, readed);
        }
        ++matchedCount;
        if (matchedCount % kBytesPerDot == 0) {
            std::cout << '.' << std::flush;
            if (matchedCount % kBytesPerLine == 0) {
                std::cout << std::endl;
            }
        }
    }
}

int RunLoopback(const RunSettings& settings) {
    try {
        const std::string inputFileName = settings.inputFileName;

        SerialPort port(kDeviceName, true);
        port.SetBaudRate(settings.speed);
        port.SetCharSize(CharSize::Bits8);
        port.SetParity(Parity::None);
        port.SetNumOfStopBits(StopBits::One);
        port.SetFlowControl(FlowControl::Hardware);

        std::cout << PrintPortReport(port) << std::endl;

        // Always set, so that a loop-back left on by an earlier run can't
        // make a test without -l pass with nothing connected.
        port.SetLoopback(loopback);

        std::ifstream input(inputFileName, std::ios::binary);
        if (!input.is_open()) {
            std::cerr << "Error: Could not open file " << inputFileName << " for reading."
                      << std::endl;
        } else {
            Announce(inputFileName);
            if (send55) {
                SendPatternByte(port);
            }
            SendFile(port, input);
        }
        input.close();

        std::cout << std::endl << "Done." << std::endl;
    } catch (const std::exception& error) {
        std::cerr << "Error: " << error.what() << std::endl;
        return 1;
    } catch (...) {
        std::cerr << "Error" << std::endl;
        return 1;
    }
    return 0;
}
