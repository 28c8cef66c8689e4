#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "PortTestSupport.h"
#include "PtyPair.h"
#include "serial/SerialPort.h"

namespace {

std::atomic<int> ticks{0};
std::atomic<int> tickTarget{-1};  // descriptor the handler writes to
std::atomic<int> sendOnTick{0};   // 0: never

void OnTick(int /*signal*/) {
    const int savedErrno = errno;
    if (++ticks == sendOnTick) {
        // write() is async-signal-safe; the byte arrives while Read is blocked.
        (void)write(tickTarget, "!", 1);
    }
    errno = savedErrno;
}

// Delivers SIGALRM every periodMs while it lives, through a handler installed
// without SA_RESTART: a blocked read, write or poll comes back with EINTR, or
// a write with what it had moved so far. Optionally the handler sends one byte
// to a descriptor at a given tick.
class SignalTicker {
  public:
    explicit SignalTicker(int periodMs, int sendAt = 0, int target = -1) {
        // Installed for good: a tick still pending when a ticker stops must
        // not meet the default action, which ends the process.
        static const bool installed = [] {
            struct sigaction action {};
            action.sa_handler = OnTick;
            sigemptyset(&action.sa_mask);
            return sigaction(SIGALRM, &action, nullptr) == 0;
        }();
        EXPECT_TRUE(installed);
        ticks = 0;
        tickTarget = target;
        sendOnTick = sendAt;
        const timeval period{0, periodMs * 1000L};
        const itimerval timer{period, period};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    ~SignalTicker() {
        // A late tick must not write to a descriptor that may be gone by then.
        sendOnTick = 0;
        const itimerval stop{};
        setitimer(ITIMER_REAL, &stop, nullptr);
    }
    SignalTicker(const SignalTicker&) = delete;
    SignalTicker& operator=(const SignalTicker&) = delete;
    SignalTicker(SignalTicker&&) = delete;
    SignalTicker& operator=(SignalTicker&&) = delete;

    static int Ticks() { return ticks; }
};

std::string AllByteValues() {
    std::string bytes;
    for (int value = 0; value < 256; ++value) {
        bytes.push_back(static_cast<char>(value));
    }
    return bytes;
}

// Raw mode must pass every value untouched: no CR/LF mapping, no XON/XOFF
// swallowed, no eighth bit stripped.
TEST(SerialPortTransfer, EveryByteValueCrossesTheLineBothWays) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    const std::string bytes = AllByteValues();

    port.Write(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    EXPECT_EQ(pty.Receive(bytes.size()), bytes);

    pty.Send(bytes);
    std::string received;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        received.push_back(static_cast<char>(port.Read()));
    }
    EXPECT_EQ(received, bytes);
}

TEST(SerialPortTransfer, WriteOfNothingSendsNothing) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    const std::uint8_t unused = 'u';

    port.Write(&unused, 0);
    port.Write(std::string());
    port.Write("z");

    EXPECT_EQ(pty.Receive(1), "z");
    EXPECT_FALSE(pty.MasterHasData(0));
}

// The far end starts reading only after the writer has been interrupted a few
// times while blocked on a full line, so the block goes out in pieces and
// through EINTR.
TEST(SerialPortTransfer, LargeBlockArrivesWholeThroughInterruptedWrites) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    std::string block(std::size_t{256} * 1024, '\0');
    for (std::size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<char>((i * 7) % 251);
    }
    SignalTicker ticker(2);

    sigset_t alarmOnly;
    sigemptyset(&alarmOnly);
    sigaddset(&alarmOnly, SIGALRM);
    sigset_t previousMask;
    pthread_sigmask(SIG_BLOCK, &alarmOnly, &previousMask);
    std::string received;
    std::thread reader([&] {
        while (SignalTicker::Ticks() < 4) {
            std::this_thread::yield();
        }
        received = pty.Receive(block.size());
    });
    pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);

    std::string writeError;
    try {
        port.Write(block);
    } catch (const std::exception& error) {
        writeError = error.what();
    }
    reader.join();

    EXPECT_EQ(writeError, "");
    ASSERT_EQ(received.size(), block.size());
    EXPECT_TRUE(received == block);
}

TEST(SerialPortTransfer, ReadRetriesInterruptedCalls) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    SignalTicker ticker(2, 5, pty.Master());

    EXPECT_EQ(port.Read(), '!');
    EXPECT_GE(SignalTicker::Ticks(), 5);
}

// When the master closes, the kernel hangs the slave up: read then reports
// end of file (0), not EIO, so Read throws its end-of-file error carrying the
// errno it found untouched; write fails with EIO.
TEST(SerialPortTransfer, HungUpLineMakesReadAndWriteThrow) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    pty.CloseMaster();

    errno = 0;
    EXPECT_TRUE(
        ThrowsSystemError([&] { (void)port.Read(); }, "SerialPort ReadCount 0: Success", 0));
    EXPECT_TRUE(ThrowsSystemError([&] { port.Write("x"); },
                                  "Error writing to file descriptor: : Input/output error", EIO));
    // The hang-up itself ends a wait without limit.
    EXPECT_TRUE(port.IsDataReceived(-1));
}

struct WaitRow {
    const char* name;
    int timeoutMs;
    bool dataFirst;
    bool expected;
};

class SerialPortWait : public testing::TestWithParam<WaitRow> {};

TEST_P(SerialPortWait, ReportsWhetherTheDriverHasInput) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    if (GetParam().dataFirst) {
        pty.Send("d");
    }
    EXPECT_EQ(port.IsDataReceived(GetParam().timeoutMs), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Rows, SerialPortWait,
                         testing::Values(WaitRow{"NothingAtOnce", 0, false, false},
                                         WaitRow{"NothingWithinTimeout", 50, false, false},
                                         WaitRow{"DataWithinTimeout", 5000, true, true},
                                         // Sent before the wait, so that a wait without limit ends.
                                         WaitRow{"DataWithoutLimit", -1, true, true}),
                         [](const testing::TestParamInfo<WaitRow>& info) {
                             return info.param.name;
                         });

TEST(SerialPortWait, BufferedBytesDoNotCount) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    pty.Send("b");
    WaitForAvailable(port, 1);
    port.ReadAllAvailableData();

    EXPECT_FALSE(port.IsDataReceived(0));
    EXPECT_TRUE(port.HasBufferedData());
}

// A signal ends the wait with an error, not a retry. Should the wait be
// retried, the handler's byte ends it after a while and the test fails.
TEST(SerialPortWait, SignalDuringWaitThrows) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    SignalTicker ticker(2, 50, pty.Master());

    EXPECT_TRUE(ThrowsSystemError([&] { (void)port.IsDataReceived(-1); },
                                  "SerialPort::IsDataReceived: poll() failed!: Interrupted system "
                                  "call",
                                  EINTR));
}

struct BufferedRow {
    const char* name;
    std::size_t count;
    std::string handedOut;
    std::string left;
};

class SerialPortBuffered : public testing::TestWithParam<BufferedRow> {};

TEST_P(SerialPortBuffered, HandsOutTheOldestBytes) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    pty.Send("abcde");
    WaitForAvailable(port, 5);
    port.ReadAllAvailableData();
    std::vector<std::uint8_t> data{'o', 'l', 'd'};

    port.ReadBufferedData(data, GetParam().count);

    EXPECT_EQ(std::string(data.begin(), data.end()), GetParam().handedOut);
    std::vector<std::uint8_t> rest;
    port.ReadBufferedData(rest, 0);
    EXPECT_EQ(std::string(rest.begin(), rest.end()), GetParam().left);
}

INSTANTIATE_TEST_SUITE_P(Rows, SerialPortBuffered,
                         testing::Values(BufferedRow{"AllOfThem", 0, "abcde", ""},
                                         BufferedRow{"TheFirstTwo", 2, "ab", "cde"},
                                         BufferedRow{"ExactlyAll", 5, "abcde", ""},
                                         // More than is buffered stops at the end of the queue.
                                         BufferedRow{"MoreThanBuffered", 9, "abcde", ""}),
                         [](const testing::TestParamInfo<BufferedRow>& info) {
                             return info.param.name;
                         });

TEST(SerialPortBuffered, EmptyBufferHandsOutNothing) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    std::vector<std::uint8_t> data{'o', 'l', 'd'};

    port.ReadBufferedData(data, 0);

    EXPECT_TRUE(data.empty());
    EXPECT_FALSE(port.HasBufferedData());
}

}  // namespace
