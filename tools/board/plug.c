/*
 * External loop-back plug for the emulated board.
 *
 * QEMU connects the guest's /dev/ttyS2 to a unix socket; this program is the
 * other end of that cable.  It returns every byte it receives, like a wire
 * between TX and RX, and can change one byte on the way back so that a
 * mismatch can be planted at a known place.
 *
 *   plug SOCKET echo
 *   plug SOCKET corrupt=N:VALUE    byte number N (1-based, counted over the
 *                                  whole connection) comes back as VALUE
 *
 * It prints "listening" once QEMU may connect, serves one connection and
 * exits when QEMU closes it, removing the socket file.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static int ParseMode(const char* mode, unsigned long long* corruptAt, unsigned char* corruptValue) {
    if (strcmp(mode, "echo") == 0) {
        *corruptAt = 0;
        return 0;
    }
    if (strncmp(mode, "corrupt=", 8) != 0) {
        return -1;
    }
    char* end = NULL;
    errno = 0;
    const unsigned long long at = strtoull(mode + 8, &end, 10);
    if (errno != 0 || end == mode + 8 || *end != ':' || at == 0) {
        return -1;
    }
    const char* valueText = end + 1;
    errno = 0;
    const unsigned long value = strtoul(valueText, &end, 0);
    if (errno != 0 || end == valueText || *end != '\0' || value > 0xff) {
        return -1;
    }
    *corruptAt = at;
    *corruptValue = (unsigned char)value;
    return 0;
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

static int Serve(int listener, unsigned long long corruptAt, unsigned char corruptValue) {
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
        for (ssize_t i = 0; i < got; ++i) {
            ++count;
            if (count == corruptAt) {
                buffer[i] = corruptValue;
            }
        }
        if (WriteAll(connection, buffer, (size_t)got) != 0) {
            return errno == EPIPE || errno == ECONNRESET ? 0 : 1;
        }
    }
}

int main(int argc, char* argv[]) {
    unsigned long long corruptAt = 0;
    unsigned char corruptValue = 0;
    if (argc != 3 || ParseMode(argv[2], &corruptAt, &corruptValue) != 0) {
        fprintf(stderr, "usage: plug SOCKET echo|corrupt=N:VALUE\n");
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
    const int status = Serve(listener, corruptAt, corruptValue);
    unlink(argv[1]);
    return status;
}
