#include "app/CommandLine.h"
#include "app/LoopbackRun.h"

int main(int argc, char* argv[]) {
    const RunSettings settings = ReadCommandLine(argc, argv);
    return RunLoopback(settings);
}
