// Whole runs of the shipped binary against the simulated UART at /dev/ttyS2:
// what the user sees on both streams, the exit status, and what happened to
// the device.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace {

const std::string kExampleLine = "Example: Merovane -l -f /dev/zero -b 57600 \n";
const std::string kLoopbackLine = "UART Loop back activated.\n";
const std::string kBanner = "******************* FAIL *******************\n";

// The report of the simulated port (a PC's ttyS2 behind the 8250 driver),
// followed by the empty line the run adds.
std::string Report(int baudRate) {
    const std::string rate = std::to_string(baudRate);
    return "Device:    /dev/ttyS2\n"
           "Output Baudrate: " +
           rate +
           "\n"
           "Input  Baudrate: " +
           rate +
           "\n"
           "Flowcontrol: Hardware\n"
           "Baud Base:     115200\n"
           "FIFO Size:     16\n"
           "Flags:       0x10000040\n"
           "IRQ:           4\n"
           "Divisor:       0\n"
           "\n";
}

std::string Announcement(const std::string& fileName) {
    return "Writing data from file '" + fileName + "' to serial port.\n\n";
}

// Bytes that look like a real payload: pseudo-random, the same in every run.
std::string Payload(std::size_t size) {
    std::string bytes(size, '\0');
    std::uint32_t state = 2463534242U;
    for (auto& byte : bytes) {
        state ^= state << 13U;
        state ^= state >> 17U;
        state ^= state << 5U;
        byte = static_cast<char>(state & 0xFFU);
    }
    return bytes;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::size_t CountLines(const std::string& text, const std::string& prefix) {
    std::size_t count = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        count += line.rfind(prefix, 0) == 0 ? 1 : 0;
    }
    return count;
}

// The file name stands for the input file the row writes; "{file}" in the
// arguments and in the expected output is replaced by its path.
constexpr const char* kFile = "{file}";

struct RunRow {
    const char* name;
    std::vector<std::string> args;
    std::string input;                   // the input file's bytes
    std::vector<std::string> simulator;  // SIMUART_ settings
    std::string out;
    std::string err;
    int status;
    // Lines the device log must hold; the last lines are matched by prefix.
    std::vector<std::string> deviceFacts;
    bool errIsPrefix = false;
};

void PrintTo(const RunRow& row, std::ostream* os) { *os << row.name; }

const std::string kNormalEnd = "exit opened=2 closed=2 attrs=initial loop=off";
const std::string kLeftAsTested = "exit opened=2 closed=1 attrs=changed";

std::vector<RunRow> Rows() {
    const std::string head = kExampleLine + kLoopbackLine + Report(115200);
    const std::string announced = head + Announcement(kFile);
    return {
        {"InternalLoopback250Bytes",
         {"-l", "-f", kFile},
         Payload(250),
         {},
         announced + "..\nDone.\n",
         "",
         0,
         {kNormalEnd + " written=250 read=250", "modem set 0x8166 loop=on"}},
        {"ExternalPlugWithoutLoopback",
         {"-f", kFile},
         Payload(250),
         {"SIMUART_ECHO=plug"},
         kExampleLine + Report(115200) + Announcement(kFile) + "..\nDone.\n",
         "",
         0,
         {kNormalEnd, "modem set 0x166 loop=off"}},
        {"FarEndInAProcessOfItsOwn",
         {"-l", "-f", kFile},
         Payload(250),
         {"SIMUART_FAR_END=process"},
         announced + "..\nDone.\n",
         "",
         0,
         {kNormalEnd + " written=250 read=250 echoed=0"}},
        {"EmptyFile",
         {"-l", "-f", kFile},
         "",
         {},
         announced + "\nDone.\n",
         "",
         0,
         {kNormalEnd + " written=0"}},
        {"NinetyNineBytesNoDot",
         {"-l", "-f", kFile},
         Payload(99),
         {},
         announced + "\nDone.\n",
         "",
         0,
         {kNormalEnd + " written=99"}},
        {"HundredBytesOneDot",
         {"-l", "-f", kFile},
         Payload(100),
         {},
         announced + ".\nDone.\n",
         "",
         0,
         {kNormalEnd + " written=100"}},
        {"ThirtyThousandBytesEndALine",
         {"-l", "-f", kFile},
         Payload(30000),
         {},
         announced + std::string(300, '.') + "\n\nDone.\n",
         "",
         0,
         {kNormalEnd + " written=30000"}},
        {"LastRateWinsAndIsReported",
         {"-b", "57600", "-l", "-b", "9600", "-f", kFile},
         Payload(10),
         {},
         kExampleLine + kLoopbackLine + Report(9600) + Announcement(kFile) + "\nDone.\n",
         "",
         0,
         {"tcsetattr TCSANOW raw ospeed=9600 ispeed=9600 cs8 parity=none stop=1 flow=rtscts",
          kNormalEnd}},
        {"MismatchOnFirstByte",
         {"-l", "-f", kFile},
         std::string("\x0a\x0b", 2),
         {"SIMUART_CORRUPT=1:0x0b"},
         announced,
         kBanner + "ERROR: Written: 0xa, Readed: 0xb\n" + kBanner,
         0,
         {kLeftAsTested + " loop=on written=1 read=1"}},
        {"MismatchAfterADot",
         {"-f", kFile},
         std::string(150, '\xab'),
         {"SIMUART_ECHO=plug", "SIMUART_CORRUPT=150:0"},
         kExampleLine + Report(115200) + Announcement(kFile) + ".",
         kBanner + "ERROR: Written: 0xab, Readed: 0x0\n" + kBanner,
         0,
         {kLeftAsTested + " loop=off written=150 read=150"}},
        {"PatternByte",
         {"-l", "-s", "-f", kFile},
         "",
         {},
         head + "Write '0x55' to serial port.\n\nWriting to serial port.\nReading from serial "
                "port.\n",
         "Written: 0x55, Readed: 0x55\n",
         0,
         {kLeftAsTested + " loop=on written=1 read=1"}},
        {"PatternByteComesBackWrong",
         {"-ls", "-f", kFile},
         "",
         {"SIMUART_CORRUPT=1:0x54"},
         head + "Write '0x55' to serial port.\n\nWriting to serial port.\nReading from serial "
                "port.\n",
         kBanner + "ERROR: Written: 0x55, Readed: 0x54\n" + kBanner,
         0,
         {kLeftAsTested}},
        {"MissingInputFile",
         {"-l", "-f", "/nonexistent/input.bin"},
         "",
         {},
         head + "\nDone.\n",
         "Error: Could not open file /nonexistent/input.bin for reading.\n",
         0,
         {kNormalEnd + " written=0"}},
        {"MissingInputFileInPatternMode",
         {"-s", "-l", "-f", "/nonexistent/input.bin"},
         "",
         {},
         head + "\nDone.\n",
         "Error: Could not open file /nonexistent/input.bin for reading.\n",
         0,
         {kNormalEnd + " written=0"}},
        {"DriverWithoutSerialInfo",
         {"-l", "-f", kFile},
         Payload(10),
         {"SIMUART_SERIAL=reject"},
         kExampleLine + kLoopbackLine,
         "Error:  TIOCGSERIAL failed!: Inappropriate ioctl for device\n",
         1,
         {"exit opened=1 closed=1 attrs=initial loop=off written=0"}},
        {"ModemLinesRejected",
         {"-f", kFile},
         Payload(10),
         {"SIMUART_MODEM=reject"},
         kExampleLine,
         "Error:  SetLoopback TIOCMGET failed!: Invalid argument\n",
         1,
         {"modem rejected", "exit opened=1 closed=1 attrs=initial loop=off written=0"}},
        {"MissingDevice",
         {"-l", "-f", kFile},
         Payload(10),
         {"SIMUART_MISSING=1"},
         kExampleLine + kLoopbackLine,
         "Error: Open Serial Port failed?: No such file or directory\n",
         1,
         {"open failed ENOENT", "exit opened=0 closed=0"}},
        {"InterruptedAndBusyTransfersAreRetried",
         {"-l", "-f", kFile},
         Payload(250),
         {"SIMUART_EINTR=3", "SIMUART_EAGAIN=2"},
         announced + "..\nDone.\n",
         "",
         0,
         {kNormalEnd + " written=250 read=250"}},
        {"DeviceHangsUp",
         {"-l", "-f", kFile},
         Payload(250),
         {"SIMUART_READ_FAULT=5:eof"},
         announced,
         "Error: SerialPort ReadCount 0: ",
         1,
         {"read fault eof", "exit opened=2 closed=2 attrs=initial loop=off written=5 read=4"},
         true},
        {"DeviceReadError",
         {"-l", "-f", kFile},
         Payload(250),
         {"SIMUART_READ_FAULT=120:eio"},
         announced + ".",
         "Error: Error reading from file descriptor: : Input/output error\n",
         1,
         {"read fault eio", "exit opened=2 closed=2 attrs=initial loop=off written=120"}},
        {"SevenBitLineDropsTheTopBit",
         {"-l", "-f", kFile},
         "\xc1",
         {"SIMUART_CS7=1", "SIMUART_CORRUPT=1:0"},
         announced,
         kBanner + "ERROR: Written: 0x41, Readed: 0x0\n" + kBanner,
         0,
         {kLeftAsTested}},
    };
}

std::string Substitute(std::string text, const std::string& path) {
    for (std::size_t at = text.find(kFile); at != std::string::npos; at = text.find(kFile)) {
        text.replace(at, std::string(kFile).size(), path);
    }
    return text;
}

class WholeRun : public testing::TestWithParam<RunRow> {
  protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "merovane-run-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern;
    }
    void TearDown() override {
        std::remove((directory + "/input.bin").c_str());
        std::remove((directory + "/device.log").c_str());
        std::remove(directory.c_str());
    }
    std::string directory;
};

TEST_P(WholeRun, PrintsExactlyAndLeavesTheDeviceAsExpected) {
    const RunRow& row = GetParam();
    const std::string inputPath = directory + "/input.bin";
    const std::string logPath = directory + "/device.log";
    std::ofstream(inputPath, std::ios::binary) << row.input;

    std::vector<std::string> argv{MEROVANE_BINARY};
    for (const auto& arg : row.args) {
        argv.push_back(Substitute(arg, inputPath));
    }
    ChildOptions options;
    options.environment = {std::string("LD_PRELOAD=") + SIMUART_PRELOAD, "SIMUART_LOG=" + logPath};
    options.environment.insert(options.environment.end(), row.simulator.begin(),
                               row.simulator.end());

    const ChildResult result = RunChild(argv, options);

    ASSERT_FALSE(result.timedOut);
    EXPECT_EQ(result.out, Substitute(row.out, inputPath));
    if (row.errIsPrefix) {
        EXPECT_EQ(result.err.rfind(row.err, 0), 0U) << result.err;
        EXPECT_EQ(CountLines(result.err, ""), 1U) << result.err;
    } else {
        EXPECT_EQ(result.err, row.err);
    }
    EXPECT_EQ(result.exitStatus, row.status);

    const std::string log = ReadFile(logPath);
    for (const auto& fact : row.deviceFacts) {
        EXPECT_NE(log.find(fact), std::string::npos) << "missing: " << fact << "\n" << log;
    }
}

INSTANTIATE_TEST_SUITE_P(Merovane, WholeRun, testing::ValuesIn(Rows()),
                         [](const auto& info) { return std::string(info.param.name); });

// Descriptor numbers depend on the test runner; everything else the device
// sees is fixed.
std::string WithoutDescriptorNumbers(const std::string& log) {
    std::string result;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t at = line.find("fd=");
        if (at != std::string::npos) {
            const std::size_t end = line.find(' ', at);
            line.replace(at, (end == std::string::npos ? line.size() : end) - at, "fd=N");
        }
        result += line + "\n";
    }
    return result;
}

// With -l the loop-back goes on after the reopen; without it, it is switched
// off explicitly, so that one left on by someone else can't fake a pass.
struct TranscriptRow {
    const char* name;
    const char* loopbackOption;  // nullptr: none
    const char* loopbackSwitch;
};

void PrintTo(const TranscriptRow& row, std::ostream* os) { *os << row.name; }

class DeviceTranscript : public testing::TestWithParam<TranscriptRow> {};

TEST_P(DeviceTranscript, SeesTheSettingsTheReportsReopenAndTheRestore) {
    const TranscriptRow& row = GetParam();
    char pattern[] = "/tmp/merovane-device-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string logPath = std::string(pattern) + "/device.log";
    ChildOptions options;
    options.environment = {std::string("LD_PRELOAD=") + SIMUART_PRELOAD, "SIMUART_LOG=" + logPath};

    std::vector<std::string> argv{MEROVANE_BINARY, "-f", "/dev/null"};
    if (row.loopbackOption != nullptr) {
        argv.emplace_back(row.loopbackOption);
    }
    const ChildResult result = RunChild(argv, options);
    const std::string log = ReadFile(logPath);
    std::remove(logPath.c_str());
    std::remove(pattern);
    ASSERT_EQ(result.exitStatus, 0) << result.err;

    // Raw record at B0, then one write per line setting: the speed, the
    // character size, parity and stop bits, and RTS/CTS last.
    const std::string openAndConfigure =
        "open fd=N\n"
        "tcsetattr TCSAFLUSH raw ospeed=0 ispeed=0 cs8 parity=none stop=1 flow=none\n"
        "tcsetattr TCSANOW raw ospeed=115200 ispeed=115200 cs8 parity=none stop=1 flow=none\n"
        "tcsetattr TCSANOW raw ospeed=115200 ispeed=115200 cs8 parity=none stop=1 flow=none\n"
        "tcsetattr TCSANOW raw ospeed=115200 ispeed=115200 cs8 parity=none stop=1 flow=none\n"
        "tcsetattr TCSANOW raw ospeed=115200 ispeed=115200 cs8 parity=none stop=1 flow=none\n"
        "tcsetattr TCSANOW raw ospeed=115200 ispeed=115200 cs8 parity=none stop=1 "
        "flow=rtscts\n";
    // Closing switches the loop-back off and puts back what the device held.
    const std::string restoreAndClose =
        "modem set 0x166 loop=off\n"
        "tcsetattr TCSANOW initial ospeed=9600 ispeed=9600 cs8 parity=none stop=1 "
        "flow=xonxoff\n"
        "close fd=N attrs=initial loop=off\n";
    const std::string expected = openAndConfigure + "tiocgserial\n" + restoreAndClose +
                                 openAndConfigure + row.loopbackSwitch + restoreAndClose +
                                 "exit opened=2 closed=2 attrs=initial loop=off written=0 "
                                 "read=0 echoed=0\n";
    EXPECT_EQ(WithoutDescriptorNumbers(log), expected);
}

INSTANTIATE_TEST_SUITE_P(
    WholeRunDevice, DeviceTranscript,
    testing::Values(TranscriptRow{"Loopback", "-l", "modem set 0x8166 loop=on\n"},
                    TranscriptRow{"NoLoopback", nullptr, "modem set 0x166 loop=off\n"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
