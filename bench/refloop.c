/*
 * Reference byte loop for the benchmarks (bench/sim, bench/board).
 *
 * The least a program can do to run the same exchange as Merovane: per byte
 * one buffered read from the input file (getc), one tcgetattr (Merovane asks
 * the port for its character size before every byte), one write and one read
 * of a single byte on the device.  The port is set up the same way: raw,
 * 8N1, RTS/CTS, internal loop-back on.  The benchmarks time this program and
 * Merovane over the same input on the same line (an emulated board's UART,
 * or bench/ttys2.c's stand-in); the ratio tells what the tool's own layers
 * cost on top of the driver.
 *
 *   refloop DEVICE BAUD FILE
 *
 * Prints the number of bytes exchanged; exits 1 on a mismatch or an error.
 */
/* The feature-test macro that declares cfmakeraw() under a strict -std=c11. */
#define _DEFAULT_SOURCE /* NOLINT(bugprone-reserved-identifier) */

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

/* Linux modem-control bit of the UART's internal loop-back; glibc's headers
   leave it out and the kernel's clash with them. */
#ifndef TIOCM_LOOP
#define TIOCM_LOOP 0x8000
#endif

static speed_t SpeedOf(long baud) {
    switch (baud) {
        case 9600:
            return B9600;
        case 19200:
            return B19200;
        case 38400:
            return B38400;
        case 57600:
            return B57600;
        case 115200:
            return B115200;
        case 230400:
            return B230400;
        case 460800:
            return B460800;
        case 921600:
            return B921600;
        default:
            return B0;
    }
}

static int Fail(const char* what) {
    perror(what);
    return 1;
}

int main(int argc, char* argv[]) {
    if (argc != 4 || SpeedOf(strtol(argv[2], NULL, 10)) == B0) {
        fprintf(stderr, "usage: refloop DEVICE BAUD FILE\n");
        return 2;
    }
    const speed_t speed = SpeedOf(strtol(argv[2], NULL, 10));

    const int fd = open(argv[1], O_RDWR | O_NOCTTY);
    if (fd < 0) {
        return Fail("open");
    }
    struct termios saved;
    if (tcgetattr(fd, &saved) != 0) {
        return Fail("tcgetattr");
    }
    struct termios raw = saved;
    cfmakeraw(&raw);
    raw.c_cflag |= CLOCAL | CREAD | CRTSCTS;
    raw.c_cc[VMIN] = 1; /* block until one byte is there, no inter-byte timer */
    raw.c_cc[VTIME] = 0;
    cfsetispeed(&raw, speed);
    cfsetospeed(&raw, speed);
    if (tcsetattr(fd, TCSANOW, &raw) != 0 || tcflush(fd, TCIOFLUSH) != 0) {
        return Fail("tcsetattr");
    }
    int lines = 0;
    if (ioctl(fd, TIOCMGET, &lines) != 0) {
        return Fail("TIOCMGET");
    }
    lines |= TIOCM_LOOP | TIOCM_RTS;
    if (ioctl(fd, TIOCMSET, &lines) != 0) {
        return Fail("TIOCMSET");
    }

    FILE* input = fopen(argv[3], "rb");
    if (input == NULL) {
        return Fail("fopen");
    }
    long count = 0;
    int c;
    while ((c = getc(input)) != EOF) {
        struct termios now;
        if (tcgetattr(fd, &now) != 0) {
            return Fail("tcgetattr");
        }
        const unsigned char sent = (unsigned char)c;
        ssize_t n;
        do {
            n = write(fd, &sent, 1);
        } while (n < 0 && errno == EINTR);
        if (n != 1) {
            return Fail("write");
        }
        unsigned char got = 0;
        do {
            n = read(fd, &got, 1);
        } while (n < 0 && errno == EINTR);
        if (n != 1) {
            return Fail("read");
        }
        if (got != sent) {
            fprintf(stderr, "refloop: byte %ld: sent 0x%x, read 0x%x\n", count + 1, sent, got);
            return 1;
        }
        ++count;
    }
    fclose(input);

    lines &= ~TIOCM_LOOP;
    ioctl(fd, TIOCMSET, &lines);
    tcsetattr(fd, TCSANOW, &saved);
    close(fd);
    printf("%ld\n", count);
    return 0;
}
