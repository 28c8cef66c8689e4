/*
 * The smallest program that does what an echo test of a UART cannot avoid
 * doing per byte: one buffered read of the input file, one read of the line's
 * attributes (to learn its character size), one write and one read on the
 * device. The benchmark measures Merovane against it, through the same device.
 *
 * Usage: ReferenceLoop FILE
 */
#include <fcntl.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

/* The UART's internal loop-back bit; glibc's headers don't define it. */
#define LOOPBACK_BIT 0x8000

int main(int argc, char* argv[]) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    const int fd = open("/dev/ttyS2", O_RDWR | O_NOCTTY);
    if (fd < 0) {
        perror("open /dev/ttyS2");
        return 1;
    }
    struct termios settings;
    if (tcgetattr(fd, &settings) != 0) {
        perror("tcgetattr");
        return 1;
    }
    cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL | CREAD | CRTSCTS;
    cfsetispeed(&settings, B115200);
    cfsetospeed(&settings, B115200);
    int modem = 0;
    if (tcsetattr(fd, TCSANOW, &settings) != 0 || ioctl(fd, TIOCMGET, &modem) != 0) {
        perror("set-up");
        return 1;
    }
    modem |= LOOPBACK_BIT;
    if (ioctl(fd, TIOCMSET, &modem) != 0) {
        perror("TIOCMSET");
        return 1;
    }

    FILE* input = fopen(argv[1], "rb");
    if (input == NULL) {
        perror(argv[1]);
        return 1;
    }
    unsigned long matched = 0;
    int next = 0;
    while ((next = getc(input)) != EOF) {
        struct termios current;
        unsigned char written = (unsigned char)next;
        unsigned char readed = 0;
        if (tcgetattr(fd, &current) != 0) {
            perror("tcgetattr");
            return 1;
        }
        if ((current.c_cflag & CSIZE) == CS7) {
            written &= 0x7F;
        }
        if (write(fd, &written, 1) != 1 || read(fd, &readed, 1) != 1) {
            perror("transfer");
            return 1;
        }
        if (readed != written) {
            fprintf(stderr, "mismatch after %lu bytes\n", matched);
            return 1;
        }
        if (++matched % 100 == 0) {
            putchar('.');
            fflush(stdout);
        }
    }
    fclose(input);
    printf("\nDone.\n");
    return 0;
}
