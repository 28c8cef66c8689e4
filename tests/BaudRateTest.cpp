#include <gtest/gtest.h>

#include <cstdint>

#include "serial/BaudRate.h"

namespace {

struct RatePair {
    std::int32_t baudRate;
    speed_t speed;
};

// Every rate a test may be run at, with the code the kernel expects.
constexpr RatePair kSelectable[] = {
    {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
    {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
    {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000},
    {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000},
};

TEST(BaudRateTable, EverySelectableRateMapsToItsCodeAndBack) {
    for (const auto& pair : kSelectable) {
        SCOPED_TRACE(pair.baudRate);
        EXPECT_EQ(BaudRateToSpeed(pair.baudRate), pair.speed);
        EXPECT_EQ(SpeedToBaudRate(pair.speed), static_cast<std::uint32_t>(pair.baudRate));
    }
}

TEST(BaudRateTable, LinuxCodesAreTheOnesBoardsExpect) {
    // The codes are what reaches the driver; a wrong header or table entry
    // would set the wrong rate silently.
    EXPECT_EQ(BaudRateToSpeed(57600), 4097U);
    EXPECT_EQ(BaudRateToSpeed(115200), 4098U);
    EXPECT_EQ(BaudRateToSpeed(3000000), 4109U);
}

TEST(BaudRateTable, NumbersOutsideTheTableAreRejected) {
    const std::int32_t rejected[] = {
        0,      -1,      -9600,   -115200, 1,         4800,      1200,   300,
        9599,   9601,    14400,   28800,   56000,     57601,     115199, 128000,
        256000, 3000001, 3500000, 4000000, INT32_MAX, INT32_MIN,
    };
    for (const std::int32_t number : rejected) {
        SCOPED_TRACE(number);
        EXPECT_EQ(BaudRateToSpeed(number), 0U);
    }
}

TEST(BaudRateTable, LowCodesCanBeReportedButNotChosen) {
    const RatePair reportOnly[] = {
        {0, B0},       {50, B50},     {75, B75},     {110, B110}, {134, B134},
        {150, B150},   {200, B200},   {300, B300},   {600, B600}, {1200, B1200},
        {1800, B1800}, {2400, B2400}, {4800, B4800},
    };
    for (const auto& pair : reportOnly) {
        SCOPED_TRACE(pair.baudRate);
        EXPECT_EQ(SpeedToBaudRate(pair.speed), static_cast<std::uint32_t>(pair.baudRate));
        EXPECT_EQ(BaudRateToSpeed(pair.baudRate), 0U);
    }
}

TEST(BaudRateTable, UnknownCodesReportAsZero) {
    // Codes past B3000000, the CBAUDEX gap between B38400 and B57600, and
    // values that are no speed code at all.
    const speed_t unknown[] = {B3000000 + 1, B4000000, 16, 0x1000, 0xFFFFFFFFU};
    for (const speed_t code : unknown) {
        SCOPED_TRACE(code);
        EXPECT_EQ(SpeedToBaudRate(code), 0U);
    }
}

}  // namespace
