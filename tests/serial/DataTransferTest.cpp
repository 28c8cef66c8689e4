#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include "PortTestSupport.h"
#include "serial/SerialPort.h"

namespace {

// What arrives at the far end of a pseudo-terminal, taken by the SIGALRM
// handler a piece a tick while farEnd is set.
std::atomic<int> farEnd{-1};
std::array<char, std::size_t{256} * 1024> drained{};
std::atomic<std::size_t> drainedCount{0};

void OnTick(int /*signal*/) {
    const int savedErrno = errno;
    const std::size_t count = drainedCount;
    if (farEnd != -1 && count < drained.size()) {
        const ssize_t got =
            read(farEnd, &drained.at(count), std::min<std::size_t>(4096, drained.size() - count));
        drainedCount = count + static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    }
    errno = savedErrno;
}

// Ticks every 2 ms while it lives, through a handler without SA_RESTART, so a
// blocked write or poll returns early. The handler stays: a tick still pending
// at the end must not meet the default action, which ends the process.
struct SignalTicker {
    explicit SignalTicker(int drainFrom = -1) {
        farEnd = drainFrom;
        drainedCount = 0;
        struct sigaction action {};
        action.sa_handler = OnTick;
        sigemptyset(&action.sa_mask);
        EXPECT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
        const itimerval timer{{0, 2000}, {0, 2000}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    ~SignalTicker() {
        const itimerval stop{};
        setitimer(ITIMER_REAL, &stop, nullptr);
        farEnd = -1;
    }
};

// Raw mode passes every value untouched (no CR/LF mapping, no XON/XOFF
// swallowed, no eighth bit stripped), and empty writes send nothing, not even
// a terminator. Once the far end hangs up, read reports end of file, not EIO,
// so Read throws its end-of-file error with errno untouched; write gets EIO.
TEST(SerialPortTransfer, EveryByteValueCrossesTheLineUntilItHangsUp) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    std::string bytes(256, '\0');
    std::iota(bytes.begin(), bytes.end(), '\0');  // every value, wrapping past 127

    port.Write(reinterpret_cast<const std::uint8_t*>(bytes.data()), 0);
    port.Write(std::string());
    port.Write(bytes);
    EXPECT_EQ(pty.Receive(bytes.size()), bytes);
    EXPECT_EQ(pty.Receive(1, 0), "");
    pty.Send(bytes);
    std::string received;
    while (received.size() < bytes.size()) {
        received.push_back(static_cast<char>(port.Read()));
    }
    EXPECT_EQ(received, bytes);

    pty.CloseMaster();
    errno = 0;
    EXPECT_TRUE(Throws([&] { (void)port.Read(); }, "SerialPort ReadCount 0: Success", 0));
    EXPECT_TRUE(Throws([&] { port.Write("x"); },
                       "Error writing to file descriptor: : Input/output error", EIO));
    EXPECT_TRUE(port.IsDataReceived(-1));  // the hang-up ends a wait without limit
}

// The far end takes a piece per tick only, so the writer blocks on a full
// line and each interruption hands back a partial count: the block goes out
// in pieces.
TEST(SerialPortTransfer, LargeBlockArrivesWholeThroughInterruptedWrites) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    std::string block(drained.size(), '\0');
    for (std::size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<char>((i * 7) % 251);
    }
    ASSERT_EQ(fcntl(pty.Master(), F_SETFL, O_NONBLOCK), 0);  // the handler must not block
    {
        const SignalTicker ticker(pty.Master());
        port.Write(block);
    }

    const std::string received =
        std::string(drained.data(), drainedCount) + pty.Receive(block.size() - drainedCount);
    EXPECT_GT(drainedCount, 0U);
    EXPECT_TRUE(received == block);  // not EXPECT_EQ: a failure would print 256 KiB twice
}

// Without terminal attributes the line stays canonical (whole lines only), and
// only Open's own flushes drop what arrived before it.
TEST(SerialPortWait, ReportsWhetherTheDriverHasInputSinceOpen) {
    PtyPair pty;
    pty.Send("stale\n");
    SerialPort port(pty.SlavePath(), false);
    EXPECT_FALSE(port.IsDataReceived(0));
    EXPECT_FALSE(port.IsDataReceived(50));
    pty.Send("d\n");
    EXPECT_TRUE(port.IsDataReceived(5000));
    EXPECT_TRUE(port.IsDataReceived(-1));
    EXPECT_EQ(port.Read(), 'd');
}

// A signal ends the wait with an error: not a "no", and not a retry, which the
// ticks would keep from ever ending.
TEST(SerialPortWait, SignalDuringWaitThrows) {
    PtyPair pty;
    SerialPort port(pty.SlavePath(), true);
    const SignalTicker ticker;

    EXPECT_TRUE(Throws([&] { (void)port.IsDataReceived(1000); },
                       "SerialPort::IsDataReceived: poll() failed!: Interrupted system call",
                       EINTR));
}

struct BufferedRow {
    const char* name;
    std::size_t count;
    const char* handedOutAndLeft;
};

class SerialPortBuffered : public testing::TestWithParam<BufferedRow> {};

TEST_P(SerialPortBuffered, HandsOutTheOldestBytes) {
    SimulatedUart uart;
    SerialPort port(SimulatedUart::kPath, true);
    // Through the loop-back, what is written is in the driver when Write returns.
    port.SetLoopback(true);
    port.Write("abcde");
    port.ReadAllAvailableData();
    // Buffered bytes are no longer the driver's: a wait does not see them and
    // a flush does not drop them.
    EXPECT_FALSE(port.IsDataReceived(0));
    port.Write("xy");
    port.FlushInputAndOutput();
    EXPECT_EQ(port.GetNumOfAvailableBytes(), 0);

    std::vector<std::uint8_t> data{'o', 'l', 'd'};
    std::vector<std::uint8_t> rest{'o', 'l', 'd'};
    port.ReadBufferedData(data, GetParam().count);
    port.ReadBufferedData(rest, 0);
    EXPECT_EQ(std::string(data.begin(), data.end()) + "|" + std::string(rest.begin(), rest.end()),
              GetParam().handedOutAndLeft);
}

INSTANTIATE_TEST_SUITE_P(Rows, SerialPortBuffered,
                         testing::Values(BufferedRow{"AllOfThem", 0, "abcde|"},
                                         BufferedRow{"TheFirstTwo", 2, "ab|cde"},
                                         // More than is buffered stops at the end of the queue.
                                         BufferedRow{"MoreThanBuffered", 9, "abcde|"}),
                         [](const testing::TestParamInfo<BufferedRow>& info) {
                             return info.param.name;
                         });

}  // namespace
