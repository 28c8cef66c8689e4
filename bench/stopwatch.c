/*
 * Wall-clock timer for the board benchmark: busybox offers only the 10 ms
 * ticks of /proc/uptime, too coarse for comparing two programs that differ
 * by a few per cent.
 *
 *   stopwatch OUTFILE PROG [ARG]...
 *
 * Runs PROG with the caller's descriptors and writes "MICROSECONDS STATUS"
 * to OUTFILE; exits with PROG's exit status.
 */
#define _POSIX_C_SOURCE 200809L /* NOLINT(bugprone-reserved-identifier) */

#include <stdio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static long long NowMicroseconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

int main(int argc, char* argv[]) {
    if (argc < 3) {
        fprintf(stderr, "usage: stopwatch OUTFILE PROG [ARG]...\n");
        return 2;
    }
    const long long start = NowMicroseconds();
    const pid_t child = fork();
    if (child < 0) {
        perror("stopwatch: fork");
        return 2;
    }
    if (child == 0) {
        execvp(argv[2], &argv[2]);
        perror("stopwatch: exec");
        _exit(127);
    }
    int status = 0;
    if (waitpid(child, &status, 0) < 0) {
        perror("stopwatch: waitpid");
        return 2;
    }
    const long long elapsed = NowMicroseconds() - start;
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    FILE* out = fopen(argv[1], "w");
    if (out == NULL) {
        perror("stopwatch: fopen");
        return 2;
    }
    fprintf(out, "%lld %d\n", elapsed, code);
    fclose(out);
    return code;
}
