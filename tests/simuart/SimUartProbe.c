/*
 * Drives the simulated UART the way the tool does, one command per argument, and prints one
 * line per command, so that the fixture's self-test can check what each call returned.
 *
 *   open | open:NAME   open "/dev/ttyS2" (O_RDWR | O_NOCTTY) through the entry point NAME
 *                      (open, open64, openat, openat64, __open_2, __open64_2, __openat_2,
 *                      __openat64_2); prints "open ok" or "open ERRNO"
 *   raw                cfmakeraw at 115200 baud, tcsetattr TCSAFLUSH
 *   save, restore      tcgetattr into a record / tcsetattr TCSANOW from it
 *   frame, speed       the frame as bits, parity and stop bits (8N1) / the output speed
 *   frame=BPS          sets that frame with tcsetattr TCSANOW; B 5 to 8, P N, E or O, S 1 or 2
 *   flush              tcflush TCIOFLUSH
 *   mget, mset=HEX     TIOCMGET / TIOCMSET
 *   loop=0|1           TIOCMGET, clear or set TIOCM_LOOP, TIOCMSET
 *   serial             TIOCGSERIAL
 *   w=HEX, r           write / read one byte
 *   avail, poll        FIONREAD / poll for input with no wait
 *   file=PATH          reads up to 63 bytes of an ordinary file and prints them
 *   close              close the device
 *   exit               exit(0) at once, leaving the device open
 */

#define _GNU_SOURCE

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#ifndef TIOCM_LOOP
#define TIOCM_LOOP 0x8000 /* the kernel's value; glibc's headers leave it out */
#endif

static const char* const devicePath = "/dev/ttyS2";

/* Prints "COMMAND ERRNO" for a failed call; true when it did. */
static int Failed(const char* command, int result) {
    if (result < 0) {
        (void)printf("%s %s\n", command, strerrorname_np(errno));
    }
    return result < 0;
}

static int Report(const char* command, int result) {
    if (!Failed(command, result)) {
        (void)printf("%s ok\n", command);
    }
    return result;
}

/* Goes through the dynamic linker, as a program built with other flags would. */
static int OpenVia(const char* name) {
    void* symbol = dlsym(RTLD_DEFAULT, name);
    if (symbol == NULL) {
        errno = ENOSYS;
        return -1;
    }
    const int flags = O_RDWR | O_NOCTTY;
    if (strncmp(name, "openat", 6) == 0 || strncmp(name, "__openat", 8) == 0) {
        int (*openAt)(int, const char*, int) = NULL;
        memcpy((void*)&openAt, (const void*)&symbol, sizeof openAt);
        return openAt(AT_FDCWD, devicePath, flags);
    }
    int (*openPath)(const char*, int) = NULL;
    memcpy((void*)&openPath, (const void*)&symbol, sizeof openPath);
    return openPath(devicePath, flags);
}

static const tcflag_t charSizes[] = {CS5, CS6, CS7, CS8};

static void PrintFrame(const struct termios* attrs) {
    unsigned bits = 5;
    while (bits < 8 && charSizes[bits - 5] != (attrs->c_cflag & CSIZE)) {
        ++bits;
    }
    const char* parity = !(attrs->c_cflag & PARENB) ? "N" : (attrs->c_cflag & PARODD) ? "O" : "E";
    (void)printf("frame=%u%s%d\n", bits, parity, (attrs->c_cflag & CSTOPB) ? 2 : 1);
}

static int SetFrame(int fd, const char* text) {
    struct termios attrs;
    if (strlen(text) != 3 || text[0] < '5' || text[0] > '8' || tcgetattr(fd, &attrs) != 0) {
        return -1;
    }
    attrs.c_cflag &= ~(tcflag_t)(CSIZE | PARENB | PARODD | CSTOPB);
    attrs.c_cflag |= charSizes[text[0] - '5'];
    attrs.c_cflag |= text[1] == 'E' ? PARENB : text[1] == 'O' ? (PARENB | PARODD) : 0;
    attrs.c_cflag |= text[2] == '2' ? CSTOPB : 0;
    return tcsetattr(fd, TCSANOW, &attrs);
}

static void ReadFile(const char* path) {
    char content[64] = {0};
    const int fd = open(path, O_RDONLY);
    const ssize_t got = fd < 0 ? -1 : read(fd, content, sizeof content - 1);
    if (fd >= 0) {
        (void)close(fd);
    }
    if (got < 0) {
        (void)printf("file %s\n", strerrorname_np(errno));
    } else {
        (void)printf("file=%s\n", content);
    }
}

static void Run(const char* command, int* fd, struct termios* saved) {
    struct termios attrs;
    int word = 0;
    if (strcmp(command, "open") == 0 || strncmp(command, "open:", 5) == 0) {
        *fd = Report(
            "open", command[4] == ':' ? OpenVia(command + 5) : open(devicePath, O_RDWR | O_NOCTTY));
    } else if (strcmp(command, "raw") == 0) {
        memset(&attrs, 0, sizeof attrs);
        cfmakeraw(&attrs);
        attrs.c_cflag |= CLOCAL | CREAD;
        (void)cfsetspeed(&attrs, B115200);
        (void)Report(command, tcsetattr(*fd, TCSAFLUSH, &attrs));
    } else if (strcmp(command, "save") == 0) {
        (void)Report(command, tcgetattr(*fd, saved));
    } else if (strcmp(command, "restore") == 0) {
        (void)Report(command, tcsetattr(*fd, TCSANOW, saved));
    } else if (strncmp(command, "frame=", 6) == 0) {
        (void)Report("frame", SetFrame(*fd, command + 6));
    } else if (strcmp(command, "frame") == 0 || strcmp(command, "speed") == 0) {
        if (Failed(command, tcgetattr(*fd, &attrs))) {
            return;
        }
        if (command[0] == 'f') {
            PrintFrame(&attrs);
        } else {
            (void)printf("speed=%s\n", cfgetospeed(&attrs) == B115200 ? "115200" : "other");
        }
    } else if (strcmp(command, "flush") == 0) {
        (void)Report(command, tcflush(*fd, TCIOFLUSH));
    } else if (strcmp(command, "mget") == 0) {
        if (!Failed(command, ioctl(*fd, TIOCMGET, &word))) {
            (void)printf("mget=0x%x\n", (unsigned)word);
        }
    } else if (strncmp(command, "mset=", 5) == 0) {
        word = (int)strtol(command + 5, NULL, 16);
        (void)Report("mset", ioctl(*fd, TIOCMSET, &word));
    } else if (strncmp(command, "loop=", 5) == 0) {
        int result = ioctl(*fd, TIOCMGET, &word);
        if (result == 0) {
            word = command[5] == '1' ? (word | TIOCM_LOOP) : (word & ~TIOCM_LOOP);
            result = ioctl(*fd, TIOCMSET, &word);
        }
        (void)Report("loop", result);
    } else if (strcmp(command, "serial") == 0) {
        struct serial_struct serial;
        memset(&serial, 0, sizeof serial);
        if (!Failed(command, ioctl(*fd, TIOCGSERIAL, &serial))) {
            (void)printf("serial=%d,%d,0x%x,%d,%d\n", serial.baud_base, serial.xmit_fifo_size,
                         (unsigned)serial.flags, serial.irq, serial.custom_divisor);
        }
    } else if (strncmp(command, "w=", 2) == 0) {
        const unsigned char byte = (unsigned char)strtoul(command + 2, NULL, 16);
        const ssize_t done = write(*fd, &byte, 1);
        if (!Failed("w", (int)done)) {
            (void)printf("w=%zd\n", done);
        }
    } else if (strcmp(command, "r") == 0) {
        unsigned char byte = 0;
        const ssize_t got = read(*fd, &byte, 1);
        if (got == 0) {
            (void)printf("r eof\n");
        } else if (!Failed(command, (int)got)) {
            (void)printf("r=0x%x\n", byte);
        }
    } else if (strcmp(command, "avail") == 0) {
        if (!Failed(command, ioctl(*fd, FIONREAD, &word))) {
            (void)printf("avail=%d\n", word);
        }
    } else if (strcmp(command, "poll") == 0) {
        struct pollfd entry = {*fd, POLLIN, 0};
        (void)printf("poll=%d\n", poll(&entry, 1, 0));
    } else if (strncmp(command, "file=", 5) == 0) {
        ReadFile(command + 5);
    } else if (strcmp(command, "close") == 0) {
        (void)Report(command, close(*fd));
        *fd = -1;
    } else if (strcmp(command, "exit") == 0) {
        (void)fflush(stdout);
        exit(0);
    } else {
        (void)fprintf(stderr, "unknown command %s\n", command);
        exit(2);
    }
}

int main(int argc, char** argv) {
    int fd = -1;
    struct termios saved;
    memset(&saved, 0, sizeof saved);
    for (int i = 1; i < argc; ++i) {
        Run(argv[i], &fd, &saved);
    }
    return 0;
}
