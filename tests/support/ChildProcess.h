#ifndef MEROVANE_TESTS_CHILDPROCESS_H
#define MEROVANE_TESTS_CHILDPROCESS_H

#include <string>
#include <vector>

struct ChildOptions {
    // Added to the child's environment as NAME=value entries.
    std::vector<std::string> environment;
    // Sends standard error into the standard output pipe, so that the
    // interleaving of the two streams can be checked.
    bool mergeStreams = false;
    // The child is killed after this long; a hung run must not hang the suite.
    int timeoutMs = 20000;
};

struct ChildResult {
    std::string out;
    std::string err;
    int exitStatus = -1;  // exit status, when the child exited
    int termSignal = 0;   // signal number, when a signal ended it
    bool timedOut = false;
};

// Runs argv[0] with the arguments that follow it, with no standard input.
// In a cross build argv[0] must be a target program: it runs under the
// emulator that runs the tests.
ChildResult RunChild(const std::vector<std::string>& argv, const ChildOptions& options = {});

#endif
