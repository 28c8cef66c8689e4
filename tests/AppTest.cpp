#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "PtyUart.h"
#include "app/CommandLine.h"
#include "app/LoopbackTest.h"
#include "serial/SerialPort.h"

namespace {

const std::string kExample = "Example: Merovane -l -f /dev/zero -b 57600 \n";
const std::string kLoopback = "UART Loop back activated.\n";

std::string BadRate(const std::string& text) {
    return "Invalid baudrate paramter '" + text + "' for option '-b'\n";
}

struct ErrorRow {
    const char* name;
    std::string args;  // shell words
    std::string out;
    std::string err;
    int status;
};

class OptionError : public testing::TestWithParam<ErrorRow> {};

// The shipped binary, run twice: its streams apart, then together as a
// terminal shows them, where a line left in a buffer comes out of order.
TEST_P(OptionError, EndsWithItsMessageAndStatusBeforeAnyDevice) {
    const std::string run = std::string(MEROVANE_COMMAND) + " " + GetParam().args + " >";
    const std::string stem = testing::TempDir() + "merovane-" + std::to_string(getpid());
    const int status = std::system((run + stem + ".out 2>" + stem + ".err").c_str());
    EXPECT_EQ(WEXITSTATUS(std::system((run + stem + ".both 2>&1").c_str())), GetParam().status);
    const auto slurp = [&](const char* suffix) {
        std::ifstream file(stem + suffix, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    EXPECT_EQ(slurp(".out"), GetParam().out);
    EXPECT_EQ(slurp(".err"), GetParam().err);
    EXPECT_EQ(slurp(".both"), GetParam().out + GetParam().err);
    EXPECT_EQ(WEXITSTATUS(status), GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, OptionError,
    testing::Values(
        ErrorRow{"RateBelowTable", "-b 1200", kExample, BadRate("1200"), 255},
        ErrorRow{"EmptyRate", "-b ''", kExample, BadRate(""), 255},
        ErrorRow{"AttachedTextQuotedAsGiven", "'-b 12x'", kExample, BadRate(" 12x"), 255},
        ErrorRow{"NegativeRate", "-b -9600", kExample, BadRate("-9600"), 255},
        // Cut to 32 bits it would read as 9600.
        ErrorRow{"RateBeyond32Bits", "-b 4294976896", kExample, BadRate("4294976896"), 255},
        ErrorRow{"EveryRateCheckedWhenMet", "-b9600 -b300", kExample, BadRate("300"), 255},
        ErrorRow{"LoopbackLinesFirst", "-l -l -b 0", kExample + kLoopback + kLoopback, BadRate("0"),
                 255},
        ErrorRow{"NoRate", "-b", kExample, "Option -b requires an argument.\n", 1},
        ErrorRow{"NoFile", "-l -f", kExample + kLoopback, "Option -f requires an argument.\n", 1},
        ErrorRow{"UnknownLetter", "-lx -l", kExample + kLoopback, "Unknown option `-x'.\n", 1},
        ErrorRow{"ControlByte", "\"$(printf '\\055\\001')\"", kExample,
                 "Unknown option character `\\x1'.\n", 1},
        // char is signed on x86: a careless conversion prints \xffffffff.
        ErrorRow{"HighByte", "\"$(printf '\\055\\377')\"", kExample,
                 "Unknown option character `\\xff'.\n", 1}),
    [](const auto& info) { return std::string(info.param.name); });

struct SettingsRow {
    const char* name;
    std::vector<std::string> args;
    speed_t speed;
    std::string inputFileName;
    bool loopback;
    bool send55;
};

class CommandLine : public testing::TestWithParam<SettingsRow> {};

TEST_P(CommandLine, YieldsTheRunSettings) {
    std::vector<std::string> args{"Merovane"};
    args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    optind = 0;  // glibc: start a fresh scan
    const RunSettings settings = ReadCommandLine(static_cast<int>(argv.size()), argv.data());
    EXPECT_EQ(settings.speed, GetParam().speed);
    EXPECT_EQ(settings.inputFileName, GetParam().inputFileName);
    EXPECT_EQ(loopback, GetParam().loopback);
    EXPECT_EQ(send55, GetParam().send55);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, CommandLine,
    testing::Values(
        SettingsRow{"Defaults", {}, B115200, "/dev/urandom", false, false},
        SettingsRow{
            "TextAroundTheDigits", {"-b", " +57600x"}, B57600, "/dev/urandom", false, false},
        SettingsRow{"LastRateAndFileWin",
                    {"-b9600", "-fa", "-b", "3000000", "-f", "b"},
                    B3000000,
                    "b",
                    false,
                    false},
        SettingsRow{"FileNamedLikeAnOption", {"-f", "-l"}, B115200, "-l", false, false},
        SettingsRow{
            "ClusterAndStrayWords", {"word", "-sl", "word"}, B115200, "/dev/urandom", true, true}),
    [](const auto& info) { return std::string(info.param.name); });

// What the byte loop prints for this input when every byte comes back.
std::string SendThroughEcho(const std::string& bytes) {
    PtyUart uart;
    SerialPort port(uart.path, true);
    uart.echo = true;
    std::istringstream input(bytes);
    std::ostringstream out;
    std::streambuf* const standardOutput = std::cout.rdbuf(out.rdbuf());
    SendFile(port, input);
    std::cout.rdbuf(standardOutput);
    return out.str();
}

TEST(ByteLoop, DotPerHundredAndLineEndPerThirtyThousand) {
    EXPECT_EQ(SendThroughEcho(std::string(99, 'a')), "");
    EXPECT_EQ(SendThroughEcho(std::string(100, '\0')), ".");
    EXPECT_EQ(SendThroughEcho(std::string(30000, '\xff')), std::string(300, '.') + "\n");
}

TEST(ByteLoop, SevenBitLineNeitherSendsNorExpectsTheTopBit) {
    PtyUart uart;
    SerialPort port(uart.path, true);
    uart.charSize = CS7;
    uart.Send(std::string("\x41\x00\x7f", 3));
    std::istringstream input(std::string("\xc1\x80\x7f", 3));
    SendFile(port, input);
    EXPECT_EQ(uart.Received(), std::string("\x41\x00\x7f", 3));
}

TEST(ByteLoop, MismatchEndsTheProcessWithTheFailReport) {
    PtyUart uart;
    SerialPort port(uart.path, true);
    uart.Send("\x0b");
    std::istringstream input("\x0a");
    EXPECT_EXIT(SendFile(port, input), testing::ExitedWithCode(0),
                "^\\*{19} FAIL \\*{19}\nERROR: Written: 0xa, Readed: 0xb\n\\*{19} FAIL \\*{19}\n$");
}

}  // namespace
