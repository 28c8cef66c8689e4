#include "serial/BaudRate.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace {

struct BaudEntry {
    std::uint32_t baudRate;
    speed_t speed;
};

// Rates below 9600 are too slow to be worth a test run; they are listed so
// that a port found at such a rate can still be reported by name.
constexpr std::array<BaudEntry, 13> kReportOnlyRates{{
    {0, B0},
    {50, B50},
    {75, B75},
    {110, B110},
    {134, B134},
    {150, B150},
    {200, B200},
    {300, B300},
    {600, B600},
    {1200, B1200},
    {1800, B1800},
    {2400, B2400},
    {4800, B4800},
}};

constexpr std::array<BaudEntry, 16> kSelectableRates{{
    {9600, B9600},
    {19200, B19200},
    {38400, B38400},
    {57600, B57600},
    {115200, B115200},
    {230400, B230400},
    {460800, B460800},
    {500000, B500000},
    {576000, B576000},
    {921600, B921600},
    {1000000, B1000000},
    {1152000, B1152000},
    {1500000, B1500000},
    {2000000, B2000000},
    {2500000, B2500000},
    {3000000, B3000000},
}};

template <typename Table, typename Predicate>
const BaudEntry* FindEntry(const Table& table, Predicate predicate) {
    const auto found = std::find_if(std::begin(table), std::end(table), predicate);
    return found == std::end(table) ? nullptr : &*found;
}

}  // namespace

speed_t BaudRateToSpeed(std::int32_t baudRate) {
    // Negative numbers can never match: every listed rate is positive.
    if (baudRate <= 0) {
        return 0;
    }
    const auto rate = static_cast<std::uint32_t>(baudRate);
    const BaudEntry* entry = FindEntry(kSelectableRates, [rate](const BaudEntry& candidate) {
        return candidate.baudRate == rate;
    });
    return entry == nullptr ? 0 : entry->speed;
}

std::uint32_t SpeedToBaudRate(speed_t speed) {
    const auto matches = [speed](const BaudEntry& candidate) { return candidate.speed == speed; };
    if (const BaudEntry* entry = FindEntry(kSelectableRates, matches)) {
        return entry->baudRate;
    }
    if (const BaudEntry* entry = FindEntry(kReportOnlyRates, matches)) {
        return entry->baudRate;
    }
    return 0;
}
