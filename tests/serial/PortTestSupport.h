#ifndef MEROVANE_TESTS_SERIAL_PORTTESTSUPPORT_H
#define MEROVANE_TESTS_SERIAL_PORTTESTSUPPORT_H

#include <gtest/gtest.h>

#include <ostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "serial/SerialPort.h"

// The test files keep their table rows in this same unnamed namespace, where
// gtest finds this: a row shows as its name in test listings instead of as a
// dump of its bytes.
namespace {
template <typename Row, typename = decltype(std::declval<const Row&>().name)>
std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.name;
}
}  // namespace

// Passes when call throws std::system_error of the system category with
// exactly this code and this full text (message, ": ", description).
template <typename Call>
testing::AssertionResult ThrowsSystemError(Call call, const std::string& what, int code) {
    try {
        call();
    } catch (const std::system_error& error) {
        if (error.code().category() != std::system_category() || error.code().value() != code ||
            what != error.what()) {
            return testing::AssertionFailure()
                   << "threw \"" << error.what() << "\" with " << error.code().category().name()
                   << " code " << error.code().value() << "; expected \"" << what << "\" with code "
                   << code;
        }
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "nothing thrown; expected \"" << what << "\"";
}

template <typename Call>
testing::AssertionResult ThrowsInvalidArgument(Call call, const std::string& what) {
    try {
        call();
    } catch (const std::invalid_argument& error) {
        if (what != error.what()) {
            return testing::AssertionFailure() << "threw \"" << error.what() << "\"";
        }
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "nothing thrown; expected \"" << what << "\"";
}

// The five stored line settings of a port, as text: the values the port
// would be reopened with.
std::string StoredSettingsOf(SerialPort& port);
std::string DescribeSettings(speed_t baudRate, CharSize charSize, Parity parity,
                             StopBits numOfStopBits, FlowControl flowControl);
std::string DefaultSettings();

// Waits until the driver holds at least count bytes: what the far end sends
// reaches the line discipline asynchronously, not within the write call.
void WaitForAvailable(const SerialPort& port, int count);

#endif
