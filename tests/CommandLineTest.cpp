#include <gtest/gtest.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include "app/CommandLine.h"
#include "support/ChildProcess.h"

namespace {

const std::string kExampleLine = "Example: Merovane -l -f /dev/zero -b 57600 \n";
const std::string kLoopbackLine = "UART Loop back activated.\n";

// ---------------------------------------------------------------------------
// Option errors, seen from outside: the shipped binary must end before it
// touches any device, with the exact message and status.

struct ErrorRow {
    const char* name;
    std::vector<std::string> args;
    std::string out;
    std::string err;
    int status;
};

std::string InvalidBaud(const std::string& text) {
    return "Invalid baudrate paramter '" + text + "' for option '-b'\n";
}

const ErrorRow kErrorRows[] = {
    {"UnknownRate", {"-b", "1234"}, kExampleLine, InvalidBaud("1234"), 255},
    {"ZeroRate", {"-b", "0"}, kExampleLine, InvalidBaud("0"), 255},
    {"TextWithoutDigits", {"-b", "abc"}, kExampleLine, InvalidBaud("abc"), 255},
    {"EmptyRateShowsTwoApostrophes", {"-b", ""}, kExampleLine, InvalidBaud(""), 255},
    {"NegativeRate", {"-b", "-9600"}, kExampleLine, InvalidBaud("-9600"), 255},
    {"RateBelowTable", {"-b", "1200"}, kExampleLine, InvalidBaud("1200"), 255},
    {"RateBetweenEntries", {"-b", "100000"}, kExampleLine, InvalidBaud("100000"), 255},
    {"AttachedArgument", {"-b1234"}, kExampleLine, InvalidBaud("1234"), 255},
    {"TextQuotedUnchanged", {"-b", " 12x "}, kExampleLine, InvalidBaud(" 12x "), 255},
    // Truncating to 32 bits would turn this into 9600.
    {"RateWrappingTo9600", {"-b", "4294976896"}, kExampleLine, InvalidBaud("4294976896"), 255},
    {"ValidRateDoesNotRescueLaterOne",
     {"-b", "9600", "-b", "300"},
     kExampleLine,
     InvalidBaud("300"),
     255},
    {"LoopbackLineBeforeBadRate",
     {"-l", "-b", "7"},
     kExampleLine + kLoopbackLine,
     InvalidBaud("7"),
     255},
    {"MissingBaudArgument", {"-b"}, kExampleLine, "Option -b requires an argument.\n", 1},
    {"MissingFileArgument",
     {"-l", "-f"},
     kExampleLine + kLoopbackLine,
     "Option -f requires an argument.\n",
     1},
    {"LoopbackThenUnknown",
     {"-l", "-x"},
     kExampleLine + kLoopbackLine,
     "Unknown option `-x'.\n",
     1},
    {"UnknownStopsBeforeLoopback", {"-x", "-l"}, kExampleLine, "Unknown option `-x'.\n", 1},
    {"UnknownInsideCluster", {"-lqs"}, kExampleLine + kLoopbackLine, "Unknown option `-q'.\n", 1},
    {"QuestionMarkIsUnknown", {"-?"}, kExampleLine, "Unknown option `-?'.\n", 1},
    {"ControlByte", {"-\x01"}, kExampleLine, "Unknown option character `\\x1'.\n", 1},
    {"DeleteByte", {"-\x7f"}, kExampleLine, "Unknown option character `\\x7f'.\n", 1},
    // On x86 char is signed: without care this prints \xffffffff.
    {"HighByte", {"-\xff"}, kExampleLine, "Unknown option character `\\xff'.\n", 1},
    {"HighLatin1Byte", {"-\xe9"}, kExampleLine, "Unknown option character `\\xe9'.\n", 1},
};

// Names the row in failure messages instead of dumping its bytes.
void PrintTo(const ErrorRow& row, std::ostream* os) { *os << row.name; }

class OptionError : public testing::TestWithParam<ErrorRow> {};

TEST_P(OptionError, EndsWithExactMessageAndStatus) {
    const ErrorRow& row = GetParam();
    std::vector<std::string> argv{MEROVANE_BINARY};
    argv.insert(argv.end(), row.args.begin(), row.args.end());

    const ChildResult result = RunChild(argv);

    EXPECT_EQ(result.out, row.out);
    EXPECT_EQ(result.err, row.err);
    EXPECT_EQ(result.exitStatus, row.status);
}

INSTANTIATE_TEST_SUITE_P(CommandLine, OptionError, testing::ValuesIn(kErrorRows),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(CommandLineOutput, StandardOutputIsFlushedBeforeTheErrorMessage) {
    // Both streams into one pipe, as on a terminal: a buffered example line
    // would otherwise come out after the error, or not at all.
    ChildOptions options;
    options.mergeStreams = true;
    const ChildResult result = RunChild({MEROVANE_BINARY, "-l", "-l", "-b", "1234"}, options);

    EXPECT_EQ(result.out, kExampleLine + kLoopbackLine + kLoopbackLine + InvalidBaud("1234"));
    EXPECT_EQ(result.exitStatus, 255);
}

// ---------------------------------------------------------------------------
// Valid command lines, read in-process: they yield the run settings.

struct SettingsRow {
    const char* name;
    std::vector<std::string> args;
    speed_t speed;
    std::string inputFileName;
    bool loopback;
    bool send55;
    int loopbackLines;
};

const SettingsRow kSettingsRows[] = {
    {"Defaults", {}, B115200, "/dev/urandom", false, false, 0},
    {"RateWithTrailingText", {"-b", "57600x"}, B57600, "/dev/urandom", false, false, 0},
    {"RateWithLeadingBlankAndSign", {"-b", " +9600"}, B9600, "/dev/urandom", false, false, 0},
    {"LastRateWins", {"-b", "9600", "-b", "57600"}, B57600, "/dev/urandom", false, false, 0},
    {"HighestRate", {"-b3000000"}, B3000000, "/dev/urandom", false, false, 0},
    {"LastFileWins", {"-f", "a.bin", "-fb.bin"}, B115200, "b.bin", false, false, 0},
    {"FileNamedLikeAnOption", {"-f", "-l"}, B115200, "-l", false, false, 0},
    {"ClusteredFlags", {"-ls"}, B115200, "/dev/urandom", true, true, 1},
    {"LoopbackTwicePrintsTwice", {"-l", "-l"}, B115200, "/dev/urandom", true, false, 2},
    {"ClusterWithAttachedFile", {"-slf/dev/zero"}, B115200, "/dev/zero", true, true, 1},
    {"WordsThatAreNotOptionsAreIgnored",
     {"-s", "extra", "-b", "19200"},
     B19200,
     "/dev/urandom",
     false,
     true,
     0},
    {"EverythingTogether",
     {"-l", "-f", "/dev/zero", "-b", "57600", "-s"},
     B57600,
     "/dev/zero",
     true,
     true,
     1},
};

void PrintTo(const SettingsRow& row, std::ostream* os) { *os << row.name; }

class ValidCommandLine : public testing::TestWithParam<SettingsRow> {};

TEST_P(ValidCommandLine, YieldsRunSettings) {
    const SettingsRow& row = GetParam();
    std::vector<std::string> words{"Merovane"};
    words.insert(words.end(), row.args.begin(), row.args.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    // Flags left over from an earlier row must not leak into this one.
    loopback = !row.loopback;
    send55 = !row.send55;
    optind = 0;  // glibc: start the scan afresh
    testing::internal::CaptureStdout();
    const RunSettings settings = ReadCommandLine(static_cast<int>(words.size()), argv.data());
    const std::string out = testing::internal::GetCapturedStdout();

    EXPECT_EQ(settings.speed, row.speed);
    EXPECT_EQ(settings.inputFileName, row.inputFileName);
    EXPECT_EQ(loopback, row.loopback);
    EXPECT_EQ(send55, row.send55);
    std::string expected = kExampleLine;
    for (int i = 0; i < row.loopbackLines; ++i) {
        expected += kLoopbackLine;
    }
    EXPECT_EQ(out, expected);
}

INSTANTIATE_TEST_SUITE_P(CommandLine, ValidCommandLine, testing::ValuesIn(kSettingsRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
