#include "app/CommandLine.h"

#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>

#include "serial/BaudRate.h"

bool loopback = false;
bool send55 = false;

namespace {

constexpr const char* kOptions = "b:lf:s";

// Converts the -b text the way strtol does (leading blanks and a sign
// accepted, trailing garbage ignored, no digits giving 0). A number outside
// the 32-bit range is refused outright rather than truncated, so that a
// typo such as 4294976896 cannot wrap around to 9600.
speed_t SpeedFromArgument(const char* text) {
    const long number = std::strtol(text, nullptr, 10);
    if (number < std::numeric_limits<std::int32_t>::min() ||
        number > std::numeric_limits<std::int32_t>::max()) {
        return 0;
    }
    return BaudRateToSpeed(static_cast<std::int32_t>(number));
}

[[noreturn]] void RejectOption(int optionCharacter) {
    // getopt stores the offending byte through a plain char, which is signed
    // on x86 and unsigned on ARM; going through unsigned char gives 0..255
    // on both and keeps isprint() defined for bytes above 0x7f.
    const auto byte = static_cast<unsigned char>(optionCharacter);
    if (byte == 'b' || byte == 'f') {
        std::fprintf(stderr, "Option -%c requires an argument.\n", byte);
    } else if (std::isprint(byte) != 0) {
        std::fprintf(stderr, "Unknown option `-%c'.\n", byte);
    } else {
        std::fprintf(stderr, "Unknown option character `\\x%x'.\n", static_cast<unsigned>(byte));
    }
    std::exit(1);
}

}  // namespace

RunSettings ReadCommandLine(int argc, char* argv[]) {
    opterr = 0;  // every diagnostic is ours, with the wording users know

    std::cout << "Example: Merovane -l -f /dev/zero -b 57600 " << std::endl;

    RunSettings settings{B115200, "/dev/urandom"};
    loopback = false;
    send55 = false;

    int option = 0;
    while ((option = getopt(argc, argv, kOptions)) != -1) {
        switch (option) {
            case 'b': {
                const speed_t speed = SpeedFromArgument(optarg);
                if (speed == 0) {
                    std::fprintf(stderr, "Invalid baudrate paramter '%s' for option '-b'\n",
                                 optarg);
                    std::exit(-1);
                }
                settings.speed = speed;
                break;
            }
            case 'l':
                std::cout << "UART Loop back activated." << std::endl;
                loopback = true;
                break;
            case 'f':
                settings.inputFileName = optarg;
                break;
            case 's':
                send55 = true;
                break;
            case '?':
                RejectOption(optopt);
            default:
                break;
        }
    }
    return settings;
}
