/* closing-wait DEVICE: a serial port's last close no longer waits for its
 * output to drain.  For a UART whose CTS never comes (a model without modem
 * status): each run that it leaves with bytes unsent would otherwise wait
 * out Linux's 30 s drain limit in close. */
#include <fcntl.h>
#include <linux/serial.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

int main(int argc, char** argv) {
    struct serial_struct serial;
    int fd;

    if (argc != 2) {
        fprintf(stderr, "usage: closing-wait DEVICE\n");
        return 2;
    }
    fd = open(argv[1], O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0 || ioctl(fd, TIOCGSERIAL, &serial) != 0) {
        perror(argv[1]);
        return 1;
    }
    serial.closing_wait = ASYNC_CLOSING_WAIT_NONE;
    if (ioctl(fd, TIOCSSERIAL, &serial) != 0) {
        perror("TIOCSSERIAL");
        return 1;
    }
    return close(fd) == 0 ? 0 : 1;
}
