#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>

#include "PtyUart.h"
#include "app/LoopbackRun.h"
#include "serial/SerialPort.h"

namespace {

// The byte loop ends the process, with status 0, on a mismatch: where a
// test expects it to come back, that must not pass as success.
bool mustReturn = false;
const int kEndGuard = std::atexit([] {
    if (mustReturn) {
        std::_Exit(1);
    }
});

const std::string kExample = "Example: Merovane -l -f /dev/zero -b 57600 \n";
const std::string kLoopback = "UART Loop back activated.\n";

std::string BadRate(const std::string& text) {
    return "Invalid baudrate paramter '" + text + "' for option '-b'\n";
}

// The shipped binary, run twice: its streams apart, then together as a
// terminal shows them, where a line left in a buffer comes out of order.
TEST(OptionError, EndsWithItsMessageAndStatusBeforeAnyDevice) {
    const auto check = [](const std::string& args, const std::string& out, const std::string& err,
                          int status) {
        SCOPED_TRACE(args);
        const std::string run = std::string(MEROVANE_COMMAND) + " " + args + " >";
        const std::string stem = testing::TempDir() + "merovane-" + std::to_string(getpid());
        EXPECT_EQ(WEXITSTATUS(std::system((run + stem + ".out 2>" + stem + ".err").c_str())),
                  status);
        EXPECT_EQ(WEXITSTATUS(std::system((run + stem + ".both 2>&1").c_str())), status);
        const auto slurp = [&](const char* suffix) {
            std::ifstream file(stem + suffix, std::ios::binary);
            return std::string(std::istreambuf_iterator<char>(file), {});
        };
        EXPECT_EQ(slurp(".out"), out);
        EXPECT_EQ(slurp(".err"), err);
        EXPECT_EQ(slurp(".both"), out + err);
    };
    check("-b ''", kExample, BadRate(""), 255);
    check("'-b 12x'", kExample, BadRate(" 12x"), 255);
    check("-b 4294976896", kExample, BadRate("4294976896"), 255);  // 9600, cut to 32 bits
    check("-b9600 -b300", kExample, BadRate("300"), 255);
    check("-l -l -b 0", kExample + kLoopback + kLoopback, BadRate("0"), 255);
    check("-b", kExample, "Option -b requires an argument.\n", 1);
    check("-l -f", kExample + kLoopback, "Option -f requires an argument.\n", 1);
    check("-lx -l", kExample + kLoopback, "Unknown option `-x'.\n", 1);
    check("\"$(printf '\\055\\001')\"", kExample, "Unknown option character `\\x1'.\n", 1);
    // char is signed on x86: a careless conversion prints \xffffffff.
    check("\"$(printf '\\055\\377')\"", kExample, "Unknown option character `\\xff'.\n", 1);
}

// What the byte loop prints for this input, and what it sends, when every
// byte comes back on a line of this character size.
std::pair<std::string, std::string> SendThroughEcho(const std::string& bytes,
                                                    tcflag_t charSize = 0) {
    PtyUart uart;
    SerialPort port(uart.path, true);
    uart.echo = true;
    uart.charSize = charSize;
    std::istringstream input(bytes);
    const std::ostringstream out;
    std::streambuf* const standardOutput = std::cout.rdbuf(out.rdbuf());
    mustReturn = true;
    SendFile(port, input);
    mustReturn = false;
    std::cout.rdbuf(standardOutput);
    return {out.str(), uart.line};
}

TEST(ByteLoop, DotPerHundredAndLineEndPerThirtyThousand) {
    EXPECT_EQ(SendThroughEcho(std::string(99, 'a')).first, "");
    EXPECT_EQ(SendThroughEcho(std::string(100, '\0')).first, ".");
    EXPECT_EQ(SendThroughEcho(std::string(30000, '\xff')).first, std::string(300, '.') + "\n");
}

TEST(ByteLoop, SevenBitLineNeitherSendsNorExpectsTheTopBit) {
    EXPECT_EQ(SendThroughEcho(std::string("\xc1\x80\x7f", 3), CS7).second,
              std::string("\x41\x00\x7f", 3));
}

TEST(ByteLoop, MismatchEndsTheProcessWithTheFailReport) {
    const PtyUart uart;
    SerialPort port(uart.path, true);
    uart.Send("\x0b");
    std::istringstream input("\x0a");
    EXPECT_EXIT(SendFile(port, input), testing::ExitedWithCode(0),
                "^\\*{19} FAIL \\*{19}\nERROR: Written: 0xa, Readed: 0xb\n\\*{19} FAIL \\*{19}\n$");
}

}  // namespace
