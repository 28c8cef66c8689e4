/*
 * External loop-back plug for the emulated board.
 *
 * QEMU connects the guest's /dev/ttyS2 to a unix socket; this program is the
 * other end of that cable.  It returns every byte it receives, like a wire
 * between TX and RX, and can be told to get some bytes wrong so that a
 * mismatch or a lost byte can be planted:
 *
 *   plug SOCKET RULE[,RULE...]
 *
 *   echo             every byte comes back unchanged
 *   corrupt=N:VALUE  byte number N (1-based, counted over the whole
 *                    connection) comes back as VALUE
 *   change=A:B       every byte A comes back as B
 *   drop=A           nothing comes back for a byte A
 *
 * Rules by value hold for the whole connection, so several runs in one boot
 * can rely on them whatever was sent before; corrupt=, which counts, wins
 * over them.  It prints "listening" once QEMU may connect, serves one
 * connection and exits when QEMU closes it, removing the socket file.
 */
#define _POSIX_C_SOURCE 200809L

#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

struct Rules {
    int reply[256]; /* what comes back for each byte value; -1 for nothing */
    unsigned long long corruptAt;
    unsigned char corruptValue;
};

/* A number at *text, decimal or 0x-hex, which then points past it. */
static int ParseNumber(const char** text, unsigned long long max, unsigned long long* value) {
    char* end = NULL;
    if (!isdigit((unsigned char)**text)) { /* strtoull would take blanks and a sign */
        return -1;
    }
    errno = 0;
    *value = strtoull(*text, &end, 0);
    *text = end;
    return errno != 0 || *value > max ? -1 : 0;
}

static const char* After(const char* text, const char* prefix) {
    const size_t length = strlen(prefix);
    return strncmp(text, prefix, length) == 0 ? text + length : NULL;
}

static int ParseRule(const char* rule, struct Rules* rules) {
    const char* text = NULL;
    unsigned long long first = 0;
    unsigned long long second = 0;
    if (strcmp(rule, "echo") == 0) {
        return 0;
    }
    if ((text = After(rule, "drop=")) != NULL) {
        if (ParseNumber(&text, 0xff, &first) != 0 || *text != '\0') {
            return -1;
        }
        rules->reply[first] = -1;
        return 0;
    }
    const int byPosition = (text = After(rule, "corrupt=")) != NULL;
    if (!byPosition && (text = After(rule, "change=")) == NULL) {
        return -1;
    }
    if (ParseNumber(&text, byPosition ? ULLONG_MAX : 0xff, &first) != 0 || *text++ != ':' ||
        ParseNumber(&text, 0xff, &second) != 0 || *text != '\0' || (byPosition && first == 0)) {
        return -1;
    }
    if (byPosition) {
        rules->corruptAt = first;
        rules->corruptValue = (unsigned char)second;
    } else {
        rules->reply[first] = (int)second;
    }
    return 0;
}

static int ParseRules(const char* text, struct Rules* rules) {
    for (int value = 0; value < 256; ++value) {
        rules->reply[value] = value;
    }
    rules->corruptAt = 0;
    rules->corruptValue = 0;
    char* copy = strdup(text);
    char* next = NULL;
    int status = copy == NULL || *text == '\0' ? -1 : 0;
    for (char* rule = strtok_r(copy, ",", &next); status == 0 && rule != NULL;
         rule = strtok_r(NULL, ",", &next)) {
        status = ParseRule(rule, rules);
    }
    free(copy);
    return status;
}

static int WriteAll(int fd, const unsigned char* data, size_t length) {
    while (length > 0) {
        const ssize_t written = write(fd, data, length);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        data += written;
        length -= (size_t)written;
    }
    return 0;
}

static int Serve(int listener, const struct Rules* rules) {
    int connection;
    do {
        connection = accept(listener, NULL, NULL);
    } while (connection < 0 && errno == EINTR);
    if (connection < 0) {
        perror("plug: accept");
        return 1;
    }
    unsigned long long count = 0;
    unsigned char buffer[4096];
    for (;;) {
        const ssize_t got = read(connection, buffer, sizeof buffer);
        if (got == 0) {
            return 0;
        }
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            /* QEMU going away may show as a reset rather than an EOF. */
            return errno == ECONNRESET ? 0 : 1;
        }
        size_t kept = 0;
        for (ssize_t i = 0; i < got; ++i) {
            const int reply =
                ++count == rules->corruptAt ? rules->corruptValue : rules->reply[buffer[i]];
            if (reply >= 0) {
                buffer[kept++] = (unsigned char)reply;
            }
        }
        if (WriteAll(connection, buffer, kept) != 0) {
            return errno == EPIPE || errno == ECONNRESET ? 0 : 1;
        }
    }
}

int main(int argc, char* argv[]) {
    struct Rules rules;
    if (argc != 3 || ParseRules(argv[2], &rules) != 0) {
        fprintf(stderr,
                "usage: plug SOCKET RULE[,RULE...] (echo, corrupt=N:VALUE, "
                "change=A:B, drop=A)\n");
        return 2;
    }

    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (strlen(argv[1]) >= sizeof address.sun_path) {
        fprintf(stderr, "plug: socket path too long: %s\n", argv[1]);
        return 2;
    }
    strcpy(address.sun_path, argv[1]);

    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (listener < 0 || bind(listener, (const struct sockaddr*)&address, sizeof address) != 0 ||
        listen(listener, 1) != 0) {
        perror("plug: listen");
        return 1;
    }

    /* A peer that vanishes must end the plug quietly, not by SIGPIPE. */
    signal(SIGPIPE, SIG_IGN);

    /* The caller starts QEMU once it has read this line; QEMU's connect
       would fail against a socket that is not listening yet. */
    printf("listening\n");
    fflush(stdout);
    const int status = Serve(listener, &rules);
    unlink(argv[1]);
    return status;
}
