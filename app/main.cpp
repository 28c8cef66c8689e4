#include "app/CommandLine.h"
#include "app/LoopbackTest.h"

int main(int argc, char* argv[]) {
    const RunSettings settings = ReadCommandLine(argc, argv);
    return RunLoopbackTest(settings);
}
