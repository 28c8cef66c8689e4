/*
 * SimUart: a simulated 16550-class UART at "/dev/ttyS2", loaded with LD_PRELOAD into the program
 * under test, so that whole runs of the tool can be tested on a machine without the board.
 * README.md beside this file describes how the device behaves, the SIMUART_ environment
 * variables that configure it and the log lines a test can assert on.
 */

#define _GNU_SOURCE
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

/* The kernel's modem bits that glibc's headers leave out; <asm-generic/termios.h> has them but
   clashes with <termios.h>. */
#ifndef TIOCM_OUT1
#define TIOCM_OUT1 0x2000
#endif
#ifndef TIOCM_OUT2
#define TIOCM_OUT2 0x4000
#endif
#ifndef TIOCM_LOOP
#define TIOCM_LOOP 0x8000
#endif

#define DEVICE_PATH "/dev/ttyS2"
#define MAX_TRACKED_FD 1024
/* How long the echo waits for the pty to hand the written bytes over; a healthy pty takes
   microseconds, so this only bounds a pathological case instead of hanging the test. */
#define ECHO_WAIT_MS 2000
/* The line discipline's receive queue; echoes beyond it wait in the pty, as in an overrun. */
#define N_TTY_QUEUE 4096

typedef enum { EchoLoop, EchoPlug, EchoNone } EchoMode;

typedef int (*OpenFn)(const char*, int, ...);
typedef int (*OpenAtFn)(int, const char*, int, ...);
typedef int (*OpenFortifiedFn)(const char*, int);
typedef int (*OpenAtFortifiedFn)(int, const char*, int);
typedef int (*CloseFn)(int);
typedef ssize_t (*ReadFn)(int, void*, size_t);
typedef ssize_t (*WriteFn)(int, const void*, size_t);
typedef int (*IoctlFn)(int, unsigned long, ...);
typedef int (*TcGetAttrFn)(int, struct termios*);
typedef int (*TcSetAttrFn)(int, int, const struct termios*);

static struct {
    OpenFn open;
    OpenFn open64;
    OpenAtFn openat;
    OpenAtFn openat64;
    OpenFortifiedFn open2;
    OpenFortifiedFn open64v2;
    OpenAtFortifiedFn openat2;
    OpenAtFortifiedFn openat64v2;
    CloseFn close;
    ReadFn read;
    WriteFn write;
    IoctlFn ioctl;
    TcGetAttrFn tcgetattr;
    TcSetAttrFn tcsetattr;
} real;

static struct {
    int ready;
    /* Configuration. */
    EchoMode echo;
    int serialRejected;
    struct serial_struct serial;
    int modemRejected;
    long corruptIndex;
    unsigned char corruptValue;
    int eintrCount;
    int eagainCount;
    long readFaultIndex;
    int readFaultErrno; /* 0: end of file */
    int cs7;
    int missing;
    int farEndProcess;
    volatile int* sharedModem; /* the modem word as the far-end process sees it */
    int logFd;
    /* Device state. */
    int master;
    char slavePath[64];
    struct termios initial;
    tcflag_t frame; /* the FRAME_BITS last set */
    int modem;
    unsigned char isDevice[MAX_TRACKED_FD];
    int attempted;
    int openFds;
    int opened;
    int closed;
    long bytesWritten;
    long bytesRead;
    long bytesEchoed;
    long readCalls;
    int readFailuresDone;
    int writeFailuresDone;
} sim;

/* Also runs before the real functions are known, so it writes through stdio's own path. */
static void Fail(const char* what, const char* value) {
    (void)dprintf(STDERR_FILENO, "simuart: %s: %s\n", what, value);
    _exit(125);
}

static void ResolveInto(void* slot, size_t size, const char* name) {
    void* symbol = dlsym(RTLD_NEXT, name);
    if (symbol == NULL) {
        Fail("no next definition of", name);
    }
    /* ISO C has no cast from an object pointer to a function pointer; POSIX guarantees the
       representation, so copy the bytes. */
    memcpy(slot, (const void*)&symbol, size);
}
#define RESOLVE(field, name) ResolveInto((void*)&real.field, sizeof real.field, name)

__attribute__((format(printf, 1, 2))) static void Log(const char* format, ...) {
    if (sim.logFd < 0) {
        return;
    }
    char line[512];
    va_list args;
    va_start(args, format);
    int length = vsnprintf(line, sizeof line - 1, format, args);
    va_end(args);
    if (length < 0) {
        return;
    }
    if ((size_t)length > sizeof line - 2) {
        length = (int)sizeof line - 2;
    }
    line[length] = '\n';
    (void)real.write(sim.logFd, line, (size_t)length + 1);
}

static const char* ErrnoName(int code) {
    const char* name = strerrorname_np(code);
    return name != NULL ? name : "E?";
}

/* ---- Configuration ---------------------------------------------------------------------- */

static long long ParseNumber(const char* name, const char* text, const char** end) {
    char* stop = NULL;
    errno = 0;
    const long long value = strtoll(text, &stop, 0);
    if (stop == text || errno != 0) {
        Fail(name, text);
    }
    *end = stop;
    return value;
}

static long long WholeNumber(const char* name, const char* text) {
    const char* end = NULL;
    const long long value = ParseNumber(name, text, &end);
    if (*end != '\0') {
        Fail(name, text);
    }
    return value;
}

static int Flag(const char* name) {
    const char* text = getenv(name);
    if (text == NULL || strcmp(text, "") == 0 || strcmp(text, "0") == 0) {
        return 0;
    }
    if (strcmp(text, "1") != 0) {
        Fail(name, text);
    }
    return 1;
}

static int Count(const char* name) {
    const char* text = getenv(name);
    if (text == NULL) {
        return 0;
    }
    const long long value = WholeNumber(name, text);
    if (value < 0 || value > 1000000) {
        Fail(name, text);
    }
    return (int)value;
}

/* "N:rest" with N >= 1; returns rest. */
static const char* Ordinal(const char* name, const char* text, long* index) {
    const char* end = NULL;
    const long long value = ParseNumber(name, text, &end);
    if (value < 1 || *end != ':') {
        Fail(name, text);
    }
    *index = (long)value;
    return end + 1;
}

static void ReadSerial(void) {
    memset(&sim.serial, 0, sizeof sim.serial);
    sim.serial.type = PORT_16550A;
    sim.serial.line = 2;
    sim.serial.port = 0x3e8;
    sim.serial.io_type = SERIAL_IO_PORT;
    sim.serial.close_delay = 50;    /* the serial core's HZ/2, in hundredths of a second */
    sim.serial.closing_wait = 3000; /* 30 s */
    const char* text = getenv("SIMUART_SERIAL");
    if (text == NULL) {
        text = "115200,16,0x10000040,4,0";
    }
    if (strcmp(text, "reject") == 0) {
        sim.serialRejected = 1;
        return;
    }
    long long values[5];
    const char* cursor = text;
    for (int i = 0; i < 5; ++i) {
        values[i] = ParseNumber("SIMUART_SERIAL", cursor, &cursor);
        if (*cursor != (i < 4 ? ',' : '\0')) {
            Fail("SIMUART_SERIAL", text);
        }
        ++cursor;
    }
    sim.serial.baud_base = (int)values[0];
    sim.serial.xmit_fifo_size = (int)values[1];
    sim.serial.flags = (int)(unsigned)values[2];
    sim.serial.irq = (int)values[3];
    sim.serial.custom_divisor = (int)values[4];
}

static void ReadConfiguration(void) {
    const char* echo = getenv("SIMUART_ECHO");
    if (echo == NULL || strcmp(echo, "loop") == 0) {
        sim.echo = EchoLoop;
    } else if (strcmp(echo, "plug") == 0) {
        sim.echo = EchoPlug;
    } else if (strcmp(echo, "none") == 0) {
        sim.echo = EchoNone;
    } else {
        Fail("SIMUART_ECHO", echo);
    }

    ReadSerial();

    sim.modem = TIOCM_DTR | TIOCM_RTS | TIOCM_CTS | TIOCM_DSR | TIOCM_CAR;
    const char* modem = getenv("SIMUART_MODEM");
    if (modem != NULL && strcmp(modem, "reject") == 0) {
        sim.modemRejected = 1;
    } else if (modem != NULL) {
        sim.modem = (int)WholeNumber("SIMUART_MODEM", modem);
    }

    const char* corrupt = getenv("SIMUART_CORRUPT");
    if (corrupt != NULL) {
        const long long value =
            WholeNumber("SIMUART_CORRUPT", Ordinal("SIMUART_CORRUPT", corrupt, &sim.corruptIndex));
        if (value < 0 || value > 0xff) {
            Fail("SIMUART_CORRUPT", corrupt);
        }
        sim.corruptValue = (unsigned char)value;
    }

    sim.eintrCount = Count("SIMUART_EINTR");
    sim.eagainCount = Count("SIMUART_EAGAIN");

    const char* fault = getenv("SIMUART_READ_FAULT");
    if (fault != NULL) {
        const char* kind = Ordinal("SIMUART_READ_FAULT", fault, &sim.readFaultIndex);
        if (strcmp(kind, "eio") == 0) {
            sim.readFaultErrno = EIO;
        } else if (strcmp(kind, "eof") != 0) {
            Fail("SIMUART_READ_FAULT", fault);
        }
    }

    const char* farEnd = getenv("SIMUART_FAR_END");
    if (farEnd != NULL && strcmp(farEnd, "process") == 0) {
        sim.farEndProcess = 1;
    } else if (farEnd != NULL && strcmp(farEnd, "inline") != 0) {
        Fail("SIMUART_FAR_END", farEnd);
    }

    sim.cs7 = Flag("SIMUART_CS7");
    sim.missing = Flag("SIMUART_MISSING");

    const char* log = getenv("SIMUART_LOG");
    if (log != NULL) {
        sim.logFd = real.open(log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (sim.logFd < 0) {
            Fail("cannot open SIMUART_LOG", log);
        }
    }
}

/* Runs from the first hooked call or the library's constructor, whichever comes first: another
   library's constructor may already open or read files before ours runs. */
static void EnsureReady(void) {
    if (sim.ready) {
        return;
    }
    sim.ready = 1;
    sim.logFd = -1;
    sim.master = -1;
    RESOLVE(open, "open");
    RESOLVE(open64, "open64");
    RESOLVE(openat, "openat");
    RESOLVE(openat64, "openat64");
    RESOLVE(open2, "__open_2");
    RESOLVE(open64v2, "__open64_2");
    RESOLVE(openat2, "__openat_2");
    RESOLVE(openat64v2, "__openat64_2");
    RESOLVE(close, "close");
    RESOLVE(read, "read");
    RESOLVE(write, "write");
    RESOLVE(ioctl, "ioctl");
    RESOLVE(tcgetattr, "tcgetattr");
    RESOLVE(tcsetattr, "tcsetattr");
    ReadConfiguration();
}

__attribute__((constructor)) static void Load(void) { EnsureReady(); }

/* ---- Terminal attributes ---------------------------------------------------------------- */

/* A pty keeps CS8, CREAD and no parity whatever it is told, and glibc then fails a TCSANOW
   request that asked for anything else; a UART keeps what it is given. So the pty is always
   handed those, and the program's own choice of these bits lives here. */
#define FRAME_BITS ((tcflag_t)(CSIZE | PARENB | PARODD | CREAD))

/* The device's attributes as the program sees them, read through the master or a slave. */
static int DeviceAttrs(int fd, struct termios* attrs) {
    const int result = real.tcgetattr(fd, attrs);
    if (result == 0) {
        attrs->c_cflag = (attrs->c_cflag & ~FRAME_BITS) | sim.frame;
        if (sim.cs7) {
            attrs->c_cflag = (attrs->c_cflag & ~(tcflag_t)CSIZE) | CS7;
        }
    }
    return result;
}

static int SameAttrs(const struct termios* a, const struct termios* b) {
    return a->c_iflag == b->c_iflag && a->c_oflag == b->c_oflag && a->c_cflag == b->c_cflag &&
           a->c_lflag == b->c_lflag && a->c_line == b->c_line &&
           memcmp(a->c_cc, b->c_cc, sizeof a->c_cc) == 0 && cfgetispeed(a) == cfgetispeed(b) &&
           cfgetospeed(a) == cfgetospeed(b);
}

static const char* CurrentAttrs(void) {
    struct termios now;
    if (sim.master < 0 || DeviceAttrs(sim.master, &now) != 0) {
        return "initial";
    }
    return SameAttrs(&now, &sim.initial) ? "initial" : "changed";
}

static const char* LoopState(void) { return (sim.modem & TIOCM_LOOP) ? "on" : "off"; }

static unsigned long BaudOf(speed_t code) {
    static const struct {
        speed_t code;
        unsigned long baud;
    } table[] = {
        {B50, 50},           {B75, 75},           {B110, 110},         {B134, 134},
        {B150, 150},         {B200, 200},         {B300, 300},         {B600, 600},
        {B1200, 1200},       {B1800, 1800},       {B2400, 2400},       {B4800, 4800},
        {B9600, 9600},       {B19200, 19200},     {B38400, 38400},     {B57600, 57600},
        {B115200, 115200},   {B230400, 230400},   {B460800, 460800},   {B500000, 500000},
        {B576000, 576000},   {B921600, 921600},   {B1000000, 1000000}, {B1152000, 1152000},
        {B1500000, 1500000}, {B2000000, 2000000}, {B2500000, 2500000}, {B3000000, 3000000},
        {B3500000, 3500000}, {B4000000, 4000000},
    };
    for (size_t i = 0; i < sizeof table / sizeof table[0]; ++i) {
        if (table[i].code == code) {
            return table[i].baud;
        }
    }
    return 0;
}

static unsigned CharBits(tcflag_t cflag) {
    switch (cflag & CSIZE) {
        case CS5:
            return 5;
        case CS6:
            return 6;
        case CS7:
            return 7;
        default:
            return 8;
    }
}

static const char* AttrsClass(const struct termios* attrs) {
    if (SameAttrs(attrs, &sim.initial)) {
        return "initial";
    }
    const int cooked = (attrs->c_lflag & (ICANON | ECHO | ISIG)) || (attrs->c_oflag & OPOST);
    return cooked ? "cooked" : "raw";
}

static const char* FlowName(const struct termios* attrs) {
    const int hardware = (attrs->c_cflag & CRTSCTS) != 0;
    const int software = (attrs->c_iflag & IXON) != 0;
    if (hardware) {
        return software ? "rtscts+xonxoff" : "rtscts";
    }
    return software ? "xonxoff" : "none";
}

static const char* ParityName(const struct termios* attrs) {
    if (!(attrs->c_cflag & PARENB)) {
        return "none";
    }
    return (attrs->c_cflag & PARODD) ? "odd" : "even";
}

static const char* ActionName(int action) {
    switch (action) {
        case TCSANOW:
            return "TCSANOW";
        case TCSADRAIN:
            return "TCSADRAIN";
        case TCSAFLUSH:
            return "TCSAFLUSH";
        default:
            return "?";
    }
}

/* The 8250 driver's defaults for a port nobody has configured yet: the kernel's standard
   cooked terminal at 9600 baud, 8N1, modem control off. */
static void SetDriverDefaults(int master) {
    struct termios attrs;
    if (real.tcgetattr(master, &attrs) != 0) {
        return;
    }
    attrs.c_iflag = ICRNL | IXON;
    attrs.c_oflag = OPOST | ONLCR;
    attrs.c_cflag = CS8 | CREAD | HUPCL | CLOCAL;
    attrs.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHOCTL | ECHOKE | IEXTEN;
    (void)cfsetispeed(&attrs, B9600);
    (void)cfsetospeed(&attrs, B9600);
    /* On a pty master the termios requests act on the slave, which is what the tool opens. */
    (void)real.tcsetattr(master, TCSANOW, &attrs);
}

/* ---- The device ------------------------------------------------------------------------- */

/* The far end as a process of its own: echoes what arrives while the echo is on. It dies with
   the program (PR_SET_PDEATHSIG), and between a close and a reopen, when the master reports a
   hang-up, it waits for the next open. */
static void ServeFarEnd(int master, pid_t parent) {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(0);
    }
    unsigned char line[256];
    const struct timespec pause = {0, 1000000};
    for (;;) {
        struct pollfd end = {master, POLLIN, 0};
        if (poll(&end, 1, -1) < 0 && errno != EINTR) {
            _exit(1);
        }
        const ssize_t got = real.read(master, line, sizeof line);
        if (got <= 0) {
            (void)nanosleep(&pause, NULL); /* no slave open: hung up until the next open */
            continue;
        }
        const int echoing =
            sim.echo == EchoPlug || (sim.echo == EchoLoop && (*sim.sharedModem & TIOCM_LOOP) != 0);
        if (echoing) {
            (void)real.write(master, line, (size_t)got);
        }
    }
}

static int StartFarEnd(int master) {
    void* shared =
        mmap(NULL, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        return -1;
    }
    sim.sharedModem = (volatile int*)shared;
    *sim.sharedModem = sim.modem;
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        return -1;
    }
    if (child == 0) {
        ServeFarEnd(master, parent);
    }
    return 0;
}

static int CreatePty(void) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0) {
        return -1;
    }
    /* Non-blocking so that an echo into a full receive queue is dropped, as a UART overruns,
       instead of hanging the program under test. */
    if (grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, sim.slavePath, sizeof sim.slavePath) != 0 ||
        fcntl(master, F_SETFL, O_NONBLOCK) != 0) {
        const int saved = errno;
        (void)real.close(master);
        errno = saved;
        return -1;
    }
    SetDriverDefaults(master);
    sim.frame = CS8 | CREAD;
    if (DeviceAttrs(master, &sim.initial) != 0) {
        memset(&sim.initial, 0, sizeof sim.initial);
    }
    if (sim.farEndProcess && StartFarEnd(master) != 0) {
        const int saved = errno;
        (void)real.close(master);
        errno = saved;
        return -1;
    }
    sim.master = master;
    return 0;
}

static int IsDevice(int fd) { return fd >= 0 && fd < MAX_TRACKED_FD && sim.isDevice[fd]; }

static int OpenDevice(int flags) {
    sim.attempted = 1;
    if (sim.missing) {
        Log("open failed ENOENT");
        errno = ENOENT;
        return -1;
    }
    if (sim.master < 0 && CreatePty() != 0) {
        Log("open failed %s", ErrnoName(errno));
        return -1;
    }
    /* The mode is irrelevant: the slave node exists, so O_CREAT creates nothing. */
    const int fd = real.open(sim.slavePath, flags, 0);
    if (fd < 0) {
        Log("open failed %s", ErrnoName(errno));
        return -1;
    }
    if (fd >= MAX_TRACKED_FD) {
        (void)real.close(fd);
        Log("open failed EMFILE");
        errno = EMFILE;
        return -1;
    }
    sim.isDevice[fd] = 1;
    ++sim.openFds;
    ++sim.opened;
    Log("open fd=%d", fd);
    return fd;
}

static int IsDevicePath(const char* path) { return path != NULL && strcmp(path, DEVICE_PATH) == 0; }

/* Fails the call with the next injected errno; 0 when the real call is due. */
static int InjectStorm(int* failuresDone) {
    if (*failuresDone < sim.eintrCount + sim.eagainCount) {
        errno = *failuresDone < sim.eintrCount ? EINTR : EAGAIN;
        ++*failuresDone;
        return 1;
    }
    *failuresDone = 0;
    return 0;
}

static int Echoing(void) {
    return sim.echo == EchoPlug || (sim.echo == EchoLoop && (sim.modem & TIOCM_LOOP));
}

static int Pending(int fd) {
    int count = 0;
    return real.ioctl(fd, FIONREAD, &count) == 0 ? count : 0;
}

/* Echoed bytes reach the slave through the pty's work queue. A poll on a slave with no input
   waits for that queue, but returns at once when input is already waiting, so the count is
   watched as well: FIONREAD and poll() must see the echo as soon as write() has returned. */
static void AwaitDelivery(int fd, int target) {
    struct termios attrs;
    if (real.tcgetattr(fd, &attrs) != 0 || (attrs.c_lflag & ICANON)) {
        return; /* canonical input counts only whole lines */
    }
    if (target > N_TTY_QUEUE - 1) {
        target = N_TTY_QUEUE - 1;
    }
    struct pollfd slave = {fd, POLLIN, 0};
    (void)poll(&slave, 1, 0);
    const struct timespec pause = {0, 100000};
    for (int i = 0; i < ECHO_WAIT_MS * 10 && Pending(fd) < target; ++i) {
        (void)nanosleep(&pause, NULL);
    }
}

/* Sends back, in the far end's place, what the tool has just written to the slave. */
static void CarryLine(int fd, size_t count) {
    unsigned char line[256];
    unsigned char back[sizeof line];
    const int before = Pending(fd);
    /* Bits beyond the character size never cross the line. */
    struct termios attrs;
    const unsigned bits = DeviceAttrs(fd, &attrs) == 0 ? CharBits(attrs.c_cflag) : 8;
    const unsigned char mask = (unsigned char)(0xffu >> (8 - bits));
    int sent = 0;
    size_t taken = 0;
    while (taken < count) {
        /* The same work queue lies between the slave's output and the master; poll() on the
           master waits for it. */
        struct pollfd master = {sim.master, POLLIN, 0};
        if (poll(&master, 1, ECHO_WAIT_MS) <= 0) {
            break;
        }
        const ssize_t got = real.read(sim.master, line, sizeof line);
        if (got <= 0) {
            break;
        }
        taken += (size_t)got;
        size_t backCount = 0;
        for (ssize_t i = 0; i < got && Echoing(); ++i) {
            ++sim.bytesEchoed;
            unsigned char byte = line[i] & mask;
            if (sim.bytesEchoed == sim.corruptIndex) {
                byte = sim.corruptValue;
            }
            back[backCount++] = byte;
        }
        const ssize_t accepted = backCount > 0 ? real.write(sim.master, back, backCount) : 0;
        sent += accepted > 0 ? (int)accepted : 0;
    }
    if (sent > 0) {
        AwaitDelivery(fd, before + sent);
    }
}

/* ---- Interposed functions --------------------------------------------------------------- */

/* NOLINTBEGIN(readability-identifier-naming) */

static int NeedsMode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

/* Takes open's optional third argument; `last` is the parameter before the "...". */
#define TAKE_MODE(last, mode)              \
    do {                                   \
        if (NeedsMode(last)) {             \
            va_list args;                  \
            va_start(args, last);          \
            (mode) = va_arg(args, mode_t); \
            va_end(args);                  \
        }                                  \
    } while (0)

int open(const char* path, int flags, ...) {
    EnsureReady();
    if (IsDevicePath(path)) {
        return OpenDevice(flags);
    }
    mode_t mode = 0;
    TAKE_MODE(flags, mode);
    return real.open(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    EnsureReady();
    if (IsDevicePath(path)) {
        return OpenDevice(flags);
    }
    mode_t mode = 0;
    TAKE_MODE(flags, mode);
    return real.open64(path, flags, mode);
}

int openat(int dirFd, const char* path, int flags, ...) {
    EnsureReady();
    if (IsDevicePath(path)) {
        return OpenDevice(flags);
    }
    mode_t mode = 0;
    TAKE_MODE(flags, mode);
    return real.openat(dirFd, path, flags, mode);
}

int openat64(int dirFd, const char* path, int flags, ...) {
    EnsureReady();
    if (IsDevicePath(path)) {
        return OpenDevice(flags);
    }
    mode_t mode = 0;
    TAKE_MODE(flags, mode);
    return real.openat64(dirFd, path, flags, mode);
}

/* The checked entry points that _FORTIFY_SOURCE builds call when the flags aren't constant. */
int __open_2(const char* path, int flags) {
    EnsureReady();
    return IsDevicePath(path) ? OpenDevice(flags) : real.open2(path, flags);
}

int __open64_2(const char* path, int flags) {
    EnsureReady();
    return IsDevicePath(path) ? OpenDevice(flags) : real.open64v2(path, flags);
}

int __openat_2(int dirFd, const char* path, int flags) {
    EnsureReady();
    return IsDevicePath(path) ? OpenDevice(flags) : real.openat2(dirFd, path, flags);
}

int __openat64_2(int dirFd, const char* path, int flags) {
    EnsureReady();
    return IsDevicePath(path) ? OpenDevice(flags) : real.openat64v2(dirFd, path, flags);
}

int close(int fd) {
    EnsureReady();
    if (!IsDevice(fd)) {
        return real.close(fd);
    }
    Log("close fd=%d attrs=%s loop=%s", fd, CurrentAttrs(), LoopState());
    sim.isDevice[fd] = 0;
    ++sim.closed;
    if (--sim.openFds == 0) {
        /* A UART's queues do not outlive the last close of its port. */
        (void)tcflush(fd, TCIOFLUSH);
    }
    return real.close(fd);
}

ssize_t read(int fd, void* buffer, size_t count) {
    EnsureReady();
    if (!IsDevice(fd)) {
        return real.read(fd, buffer, count);
    }
    if (InjectStorm(&sim.readFailuresDone)) {
        return -1;
    }
    if (++sim.readCalls == sim.readFaultIndex) {
        Log("read fault %s", sim.readFaultErrno != 0 ? "eio" : "eof");
        if (sim.readFaultErrno != 0) {
            errno = sim.readFaultErrno;
            return -1;
        }
        return 0;
    }
    const ssize_t got = real.read(fd, buffer, count);
    if (got > 0) {
        sim.bytesRead += got;
    }
    return got;
}

ssize_t write(int fd, const void* buffer, size_t count) {
    EnsureReady();
    if (!IsDevice(fd)) {
        return real.write(fd, buffer, count);
    }
    if (InjectStorm(&sim.writeFailuresDone)) {
        return -1;
    }
    const ssize_t done = real.write(fd, buffer, count);
    if (done > 0 && sim.farEndProcess) {
        sim.bytesWritten += done;
    } else if (done > 0) {
        sim.bytesWritten += done;
        const int saved = errno;
        CarryLine(fd, (size_t)done);
        errno = saved;
    }
    return done;
}

static int ModemIoctl(unsigned long request, int* word) {
    if (sim.modemRejected) {
        Log("modem rejected");
        errno = EINVAL;
        return -1;
    }
    if (word == NULL) {
        errno = EFAULT;
        return -1;
    }
    /* CTS, DSR, CD and RI are inputs: a UART's driver writes only its output lines. */
    const int outputs = TIOCM_DTR | TIOCM_RTS | TIOCM_OUT1 | TIOCM_OUT2 | TIOCM_LOOP;
    switch (request) {
        case TIOCMGET:
            *word = sim.modem;
            return 0;
        case TIOCMSET:
            sim.modem = (sim.modem & ~outputs) | (*word & outputs);
            break;
        case TIOCMBIS:
            sim.modem |= *word & outputs;
            break;
        default: /* TIOCMBIC */
            sim.modem &= ~(*word & outputs);
            break;
    }
    if (sim.sharedModem != NULL) {
        *sim.sharedModem = sim.modem;
    }
    Log("modem set 0x%x loop=%s", (unsigned)sim.modem, LoopState());
    return 0;
}

int ioctl(int fd, unsigned long request, ...) {
    EnsureReady();
    va_list args;
    va_start(args, request);
    void* argument = va_arg(args, void*);
    va_end(args);
    if (!IsDevice(fd)) {
        return real.ioctl(fd, request, argument);
    }
    switch (request) {
        /* A pty has no modem lines (TIOCMGET gives ENOTTY), so the word lives here. */
        case TIOCMGET:
        case TIOCMSET:
        case TIOCMBIS:
        case TIOCMBIC:
            return ModemIoctl(request, (int*)argument);
        case TIOCGSERIAL:
            if (sim.serialRejected) {
                Log("tiocgserial rejected");
                errno = ENOTTY;
                return -1;
            }
            if (argument == NULL) {
                errno = EFAULT;
                return -1;
            }
            memcpy(argument, &sim.serial, sizeof sim.serial);
            Log("tiocgserial");
            return 0;
        default:
            return real.ioctl(fd, request, argument);
    }
}

/* glibc implements these with ioctls of its own that no preload can see, so they are caught
   here rather than in ioctl(). */
int tcgetattr(int fd, struct termios* attrs) {
    EnsureReady();
    return IsDevice(fd) ? DeviceAttrs(fd, attrs) : real.tcgetattr(fd, attrs);
}

int tcsetattr(int fd, int action, const struct termios* attrs) {
    EnsureReady();
    if (!IsDevice(fd) || attrs == NULL) {
        return real.tcsetattr(fd, action, attrs);
    }
    struct termios forPty = *attrs;
    forPty.c_cflag = (forPty.c_cflag & ~FRAME_BITS) | CS8 | CREAD;
    const int result = real.tcsetattr(fd, action, &forPty);
    if (result == 0) {
        sim.frame = attrs->c_cflag & FRAME_BITS;
    }
    const int saved = errno;
    Log("tcsetattr %s %s ospeed=%lu ispeed=%lu cs%u parity=%s stop=%d flow=%s%s%s",
        ActionName(action), AttrsClass(attrs), BaudOf(cfgetospeed(attrs)),
        BaudOf(cfgetispeed(attrs)), CharBits(attrs->c_cflag), ParityName(attrs),
        (attrs->c_cflag & CSTOPB) ? 2 : 1, FlowName(attrs), result != 0 ? " failed " : "",
        result != 0 ? ErrnoName(saved) : "");
    errno = saved;
    return result;
}

/* NOLINTEND(readability-identifier-naming) */

/* Only a process that asked for the device reports: a shell or `timeout` in front of the
   program under test inherits the preload too. */
__attribute__((destructor)) static void Unload(void) {
    if (!sim.attempted) {
        return;
    }
    Log("exit opened=%d closed=%d attrs=%s loop=%s written=%ld read=%ld echoed=%ld", sim.opened,
        sim.closed, CurrentAttrs(), LoopState(), sim.bytesWritten, sim.bytesRead, sim.bytesEchoed);
}
