#include "app/CommandLine.h"

int main(int argc, char* argv[]) {
    const RunSettings settings = ReadCommandLine(argc, argv);
    static_cast<void>(settings);
    return 0;
}
