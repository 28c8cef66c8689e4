/*
 * The board's UART with a loop-back plug, for bench/sim on a machine that
 * has neither.  Preloaded into Merovane or refloop, it makes
 * open("/dev/ttyS2") open the slave of a pseudo-terminal whose master an
 * echo process of its own serves.  The far end stays out of the program's
 * process, so strace -c counts only the program's own calls and a byte's
 * round trip costs the context switches a real line would.  A pty has no
 * modem lines and no driver record: TIOCMGET/TIOCMSET keep a modem word here
 * and TIOCGSERIAL reports a 16550.
 *
 * Usage: LD_PRELOAD=.../libttys2.so PROGRAM [ARG...]
 */
#define _GNU_SOURCE /* NOLINT(bugprone-reserved-identifier) */

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

static char slavePath[64]; /* empty until the first open of the device */
static dev_t slaveDevice;
static int modemLines = TIOCM_DTR | TIOCM_RTS | TIOCM_CTS | TIOCM_DSR | TIOCM_CD;
static int (*realOpen)(const char*, int, ...);
static int (*realIoctl)(int, unsigned long, ...);

/* Looked up on first use: another library's constructor may open a file
   before this one's would run.  ISO C has no cast from dlsym's object
   pointer to a function pointer; a union makes the conversion. */
static void FindReal(void) {
    union {
        void* object;
        int (*open)(const char*, int, ...);
        int (*ioctl)(int, unsigned long, ...);
    } symbol = {dlsym(RTLD_NEXT, "open")};
    realOpen = symbol.open;
    symbol.object = dlsym(RTLD_NEXT, "ioctl");
    realIoctl = symbol.ioctl;
}

/* Ends when the last slave descriptor is gone, which the master reads as EIO:
   the program has ended. */
static _Noreturn void Echo(int master) {
    unsigned char buffer[4096];
    for (;;) {
        const ssize_t got = read(master, buffer, sizeof buffer);
        if (got == 0 || (got < 0 && errno != EINTR)) {
            _exit(0);
        }
        ssize_t sent = 0;
        while (sent < got) {
            const ssize_t n = write(master, buffer + sent, (size_t)(got - sent));
            if (n < 0 && errno != EINTR) {
                _exit(1);
            }
            sent += n > 0 ? n : 0;
        }
    }
}

static int StartLine(void) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, slavePath, sizeof slavePath) != 0) {
        return -1;
    }
    /* Held for the program's whole life: the line, its settings and its echo
       process outlive a close and reopen (the port report does both). */
    const int keeper = realOpen(slavePath, O_RDWR | O_NOCTTY);
    struct stat status;
    struct termios raw;
    if (keeper < 0 || fstat(keeper, &status) != 0 || tcgetattr(keeper, &raw) != 0) {
        return -1;
    }
    slaveDevice = status.st_rdev;
    /* A fresh pty echoes in cooked mode, and the far end would send every
       echo back again; a program that sets the line up never notices. */
    cfmakeraw(&raw);
    const pid_t pid = tcsetattr(keeper, TCSANOW, &raw) == 0 ? fork() : -1;
    if (pid == 0) {
        close(keeper);
        Echo(master);
    }
    close(master);
    return pid < 0 ? -1 : 0;
}

int open(const char* path, int flags, ...) {
    if (realOpen == NULL) {
        FindReal();
    }
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list rest;
        va_start(rest, flags);
        mode = va_arg(rest, mode_t);
        va_end(rest);
    }
    if (strcmp(path, "/dev/ttyS2") != 0) {
        return realOpen(path, flags, mode);
    }
    if (slavePath[0] == '\0' && StartLine() != 0) {
        slavePath[0] = '\0';
        errno = ENODEV;
        return -1;
    }
    return realOpen(slavePath, flags | O_NOCTTY);
}

/* Programs built with 64-bit file offsets call this name instead. */
int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int ioctl(int fd, unsigned long request, ...) {
    va_list rest;
    va_start(rest, request);
    void* argument = va_arg(rest, void*);
    va_end(rest);
    struct stat status;
    /* fstat only for these: any other request (FIONREAD, say) costs the one
       system call it costs on the board, as strace -c should see. */
    if ((request == TIOCMGET || request == TIOCMSET || request == TIOCGSERIAL) &&
        slavePath[0] != '\0' && fstat(fd, &status) == 0 && status.st_rdev == slaveDevice) {
        if (request == TIOCMGET) {
            *(int*)argument = modemLines;
        } else if (request == TIOCMSET) {
            modemLines = *(const int*)argument;
        } else {
            /* What Linux's 8250 driver reports for a PC's third port. */
            const struct serial_struct record = {.type = PORT_16550A,
                                                 .line = 2,
                                                 .port = 0x3e8,
                                                 .irq = 4,
                                                 .xmit_fifo_size = 16,
                                                 .baud_base = 115200,
                                                 .flags = ASYNC_SKIP_TEST | ASYNC_BOOT_AUTOCONF};
            *(struct serial_struct*)argument = record;
        }
        return 0;
    }
    if (realIoctl == NULL) {
        FindReal();
    }
    return realIoctl(fd, request, argument);
}
