// The simulated UART checked from outside: a small probe program makes the tool's device calls
// with the fixture preloaded, and each row compares what the calls returned and what the fixture
// logged. The whole-run tests of the tool rely on every behaviour checked here.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace {

struct Row {
    const char* name;
    std::vector<std::string> env;   // SIMUART_ settings, without the prefix
    std::vector<std::string> args;  // probe commands; "{data}" stands for a file holding "hello"
    std::string out;
    std::vector<std::string> log;  // texts that log lines must contain, in this order
};

const Row kRows[] = {
    {"LoopEchoesOnlyWhileLoopBitIsSet",
     {},
     {"open", "raw", "w=41", "avail", "loop=1", "w=42", "avail", "r", "loop=0", "w=43", "avail",
      "exit"},
     "open ok\nraw ok\nw=1\navail=0\nloop ok\nw=1\navail=1\nr=0x42\nloop ok\nw=1\navail=0\n",
     {"modem set 0x8166 loop=on", "modem set 0x166 loop=off",
      "exit opened=1 closed=0 attrs=changed loop=off written=3 read=1 echoed=1"}},
    {"PlugEchoesWithoutLoop",
     {"ECHO=plug"},
     {"open", "raw", "w=5a", "poll", "avail", "r", "poll"},
     "open ok\nraw ok\nw=1\npoll=1\navail=1\nr=0x5a\npoll=0\n",
     {"written=1 read=1 echoed=1"}},
    {"WaitingEchoesAllCount",
     {"ECHO=plug"},
     {"open", "raw", "w=41", "w=42", "w=43", "avail", "r", "r", "r", "avail"},
     "open ok\nraw ok\nw=1\nw=1\nw=1\navail=3\nr=0x41\nr=0x42\nr=0x43\navail=0\n",
     {}},
    {"NoneDropsEvenWithLoop",
     {"ECHO=none"},
     {"open", "raw", "loop=1", "w=41", "poll", "avail"},
     "open ok\nraw ok\nloop ok\nw=1\npoll=0\navail=0\n",
     {"written=1 read=0 echoed=0"}},
    {"CorruptReplacesOnlyTheNthEcho",
     {"ECHO=plug", "CORRUPT=2:0x0b"},
     {"open", "raw", "w=0a", "r", "w=0a", "r", "w=0a", "r"},
     "open ok\nraw ok\nw=1\nr=0xa\nw=1\nr=0xb\nw=1\nr=0xa\n",
     {}},
    {"Cs7IsReportedAndClearsTheTopBit",
     {"ECHO=plug", "CS7=1"},
     {"open", "frame", "raw", "frame", "w=c1", "r"},
     "open ok\nframe=7N1\nraw ok\nframe=7N1\nw=1\nr=0x41\n",
     {"tcsetattr TCSAFLUSH raw ospeed=115200 ispeed=115200 cs8 parity=none stop=1 flow=none"}},
    {"FrameIsKeptAsAUartKeepsIt",
     {"ECHO=plug"},
     {"open", "raw", "frame=7E2", "frame", "w=c1", "r", "close", "open", "frame=6O1", "frame",
      "w=ff", "r", "frame=8N1", "frame"},
     "open ok\nraw ok\nframe ok\nframe=7E2\nw=1\nr=0x41\nclose ok\nopen ok\nframe ok\n"
     "frame=6O1\nw=1\nr=0x3f\nframe ok\nframe=8N1\n",
     {"tcsetattr TCSANOW raw ospeed=115200 ispeed=115200 cs7 parity=even stop=2 flow=none",
      "tcsetattr TCSANOW raw ospeed=115200 ispeed=115200 cs6 parity=odd stop=1 flow=none"}},
    {"StormPrecedesEveryRealCall",
     {"ECHO=plug", "EINTR=2", "EAGAIN=1"},
     {"open", "raw", "w=41", "w=41", "w=41", "w=41", "r", "r", "r", "r", "w=42"},
     "open ok\nraw ok\nw EINTR\nw EINTR\nw EAGAIN\nw=1\nr EINTR\nr EINTR\nr EAGAIN\nr=0x41\n"
     "w EINTR\n",
     {"written=1 read=1 echoed=1"}},
    {"ReadFaultEofConsumesNothing",
     {"ECHO=plug", "READ_FAULT=2:eof"},
     {"open", "raw", "w=41", "r", "w=42", "r", "r"},
     "open ok\nraw ok\nw=1\nr=0x41\nw=1\nr eof\nr=0x42\n",
     {"read fault eof"}},
    {"ReadFaultEio",
     {"ECHO=plug", "READ_FAULT=1:eio"},
     {"open", "raw", "w=41", "r", "avail"},
     "open ok\nraw ok\nw=1\nr EIO\navail=1\n",
     {"read fault eio"}},
    {"MissingDeviceIsEnoent",
     {"MISSING=1"},
     {"open"},
     "open ENOENT\n",
     {"open failed ENOENT", "exit opened=0 closed=0 attrs=initial loop=off"}},
    {"ModemRejected",
     {"MODEM=reject"},
     {"open", "mget", "loop=1"},
     "open ok\nmget EINVAL\nloop EINVAL\n",
     {"modem rejected", "modem rejected"}},
    {"ModemSetChangesOnlyOutputLines",
     {},
     {"open", "mget", "mset=0", "mget", "mset=ffff", "mget"},
     "open ok\nmget=0x166\nmset ok\nmget=0x160\nmset ok\nmget=0xe166\n",
     {"modem set 0x160 loop=off", "modem set 0xe166 loop=on"}},
    {"ModemWordFromEnvironment", {"MODEM=0x2"}, {"open", "mget"}, "open ok\nmget=0x2\n", {}},
    {"SerialDefaults",
     {},
     {"open", "serial"},
     "open ok\nserial=115200,16,0x10000040,4,0\n",
     {"tiocgserial"}},
    {"SerialFromEnvironment",
     {"SERIAL=1500000,64,-1,30,7"},
     {"open", "serial"},
     "open ok\nserial=1500000,64,0xffffffff,30,7\n",
     {}},
    {"SerialRejected",
     {"SERIAL=reject"},
     {"open", "serial"},
     "open ok\nserial ENOTTY\n",
     {"tiocgserial rejected"}},
    {"AttributesOutliveCloseUntilRestored",
     {},
     {"open", "save", "raw", "close", "open", "speed", "restore", "close"},
     "open ok\nsave ok\nraw ok\nclose ok\nopen ok\nspeed=115200\nrestore ok\nclose ok\n",
     {"open fd=",
      "tcsetattr TCSAFLUSH raw ospeed=115200 ispeed=115200 cs8 parity=none stop=1 flow=none",
      "attrs=changed loop=off", "open fd=",
      "tcsetattr TCSANOW initial ospeed=9600 ispeed=9600 cs8 parity=none stop=1 flow=xonxoff",
      "attrs=initial loop=off", "exit opened=2 closed=2 attrs=initial loop=off"}},
    {"LastCloseDropsUnreadInput",
     {"ECHO=plug"},
     {"open", "raw", "w=41", "close", "open", "avail"},
     "open ok\nraw ok\nw=1\nclose ok\nopen ok\navail=0\n",
     {}},
    {"LoopStaysOnAcrossClose",
     {},
     {"open", "loop=1", "close", "open", "mget"},
     "open ok\nloop ok\nclose ok\nopen ok\nmget=0x8166\n",
     {"loop=on", "attrs=initial loop=on", "exit opened=2 closed=1 attrs=initial loop=on"}},
    {"EveryOpenEntryPointIsCaught",
     {},
     {"open:open64", "close", "open:openat", "close", "open:openat64", "close", "open:__open_2",
      "close", "open:__open64_2", "close", "open:__openat_2", "close", "open:__openat64_2",
      "close"},
     "open ok\nclose ok\nopen ok\nclose ok\nopen ok\nclose ok\nopen ok\nclose ok\nopen ok\n"
     "close ok\nopen ok\nclose ok\nopen ok\nclose ok\n",
     {"exit opened=7 closed=7"}},
    {"OtherFilesPassThrough",
     {"ECHO=plug"},
     {"open", "raw", "file={data}", "w=41", "r"},
     "open ok\nraw ok\nfile=hello\nw=1\nr=0x41\n",
     {"written=1 read=1"}},
};

void PrintTo(const Row& row, std::ostream* os) { *os << row.name; }

std::vector<std::string> Lines(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string Replace(std::string text, const std::string& token, const std::string& value) {
    const auto at = text.find(token);
    if (at != std::string::npos) {
        text.replace(at, token.size(), value);
    }
    return text;
}

class SimUart : public testing::TestWithParam<Row> {};

TEST_P(SimUart, BehavesAsConfigured) {
    const Row& row = GetParam();
    const std::string logPath = testing::TempDir() + "simuart-" + row.name + ".log";
    const std::string dataPath = testing::TempDir() + "simuart-" + row.name + ".txt";
    std::remove(logPath.c_str());
    std::ofstream(dataPath) << "hello";

    ChildOptions options;
    options.timeoutMs = 10000;
    options.environment = {std::string("LD_PRELOAD=") + SIMUART_PRELOAD, "SIMUART_LOG=" + logPath};
    for (const auto& setting : row.env) {
        options.environment.push_back("SIMUART_" + setting);
    }
    std::vector<std::string> argv{SIMUART_PROBE};
    for (const auto& arg : row.args) {
        argv.push_back(Replace(arg, "{data}", dataPath));
    }

    const ChildResult result = RunChild(argv, options);

    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.out, row.out);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.exitStatus, 0);
    const std::vector<std::string> log = Lines(logPath);
    std::remove(logPath.c_str());
    std::remove(dataPath.c_str());
    std::size_t next = 0;
    for (const auto& wanted : row.log) {
        while (next < log.size() && log[next].find(wanted) == std::string::npos) {
            ++next;
        }
        ASSERT_LT(next, log.size()) << "no log line with \"" << wanted << "\" in order in:\n"
                                    << testing::PrintToString(log);
        ++next;
    }
}

INSTANTIATE_TEST_SUITE_P(Fixture, SimUart, testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

// A mistyped setting must stop the run, not quietly test something else.
struct BadSetting {
    const char* name;
    std::string setting;
    std::string err;
};

const BadSetting kBadSettings[] = {
    {"UnknownEchoMode", "SIMUART_ECHO=loud", "simuart: SIMUART_ECHO: loud\n"},
    {"EchoValueBeyondOneByte", "SIMUART_CORRUPT=1:256", "simuart: SIMUART_CORRUPT: 1:256\n"},
    {"ZerothRead", "SIMUART_READ_FAULT=0:eof", "simuart: SIMUART_READ_FAULT: 0:eof\n"},
    {"SerialFieldMissing", "SIMUART_SERIAL=115200,16,0,4",
     "simuart: SIMUART_SERIAL: 115200,16,0,4\n"},
    {"FlagNotOneOrZero", "SIMUART_CS7=yes", "simuart: SIMUART_CS7: yes\n"},
};

void PrintTo(const BadSetting& row, std::ostream* os) { *os << row.name; }

class SimUartSetting : public testing::TestWithParam<BadSetting> {};

TEST_P(SimUartSetting, MalformedValueStopsTheProcess) {
    ChildOptions options;
    options.environment = {std::string("LD_PRELOAD=") + SIMUART_PRELOAD, GetParam().setting};

    const ChildResult result = RunChild({SIMUART_PROBE, "open"}, options);

    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, GetParam().err);
    EXPECT_EQ(result.exitStatus, 125);
}

INSTANTIATE_TEST_SUITE_P(Fixture, SimUartSetting, testing::ValuesIn(kBadSettings),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
