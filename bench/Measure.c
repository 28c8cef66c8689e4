/*
 * Runs a command and prints "<seconds> <peak RSS in KiB>" on standard error
 * once it has ended; its own output goes to /dev/null so that a terminal's
 * speed is not what gets measured.
 *
 * Usage: Measure COMMAND [ARG...]
 */
/* wait4() and clock_gettime() are hidden by a strict -std=c11. */
#define _DEFAULT_SOURCE /* NOLINT(bugprone-reserved-identifier) */

#include <fcntl.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char* argv[]) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s COMMAND [ARG...]\n", argv[0]);
        return 2;
    }
    struct timespec start;
    struct timespec end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    const pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        return 2;
    }
    if (pid == 0) {
        const int devNull = open("/dev/null", O_WRONLY);
        dup2(devNull, STDOUT_FILENO);
        execvp(argv[1], &argv[1]);
        perror(argv[1]);
        _exit(127);
    }
    int status = 0;
    struct rusage usage;
    if (wait4(pid, &status, 0, &usage) < 0) {
        perror("wait4");
        return 2;
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    const double seconds =
        (double)(end.tv_sec - start.tv_sec) + (double)(end.tv_nsec - start.tv_nsec) / 1e9;
    fprintf(stderr, "%.6f %ld\n", seconds, usage.ru_maxrss);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
}
