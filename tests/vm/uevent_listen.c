/*
 * uevent_listen: prints the kernel's uevents, one line each, as the
 * KEY=VALUE fields of the message joined by spaces:
 *   ACTION=remove DEVPATH=/devices/... SUBSYSTEM=block ... MAJOR=8 MINOR=16
 * The first line, "listening", says the socket is bound: events from then on
 * are caught. Runs until killed.
 *
 * `udevadm monitor` refuses to run in the test VM's chroot; a socket of our
 * own on the kernel's group is all the tests need.
 */
#include <linux/netlink.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

int main(void)
{
    int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd < 0) {
        perror("uevent_listen: socket");
        return 1;
    }
    /* Disk probing sends bursts; a small buffer would drop part of them. */
    int size = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);

    struct sockaddr_nl addr;
    memset(&addr, 0, sizeof addr);
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = 1; /* the kernel's own messages, not udevd's */
    if (bind(fd, (struct sockaddr *)&addr, sizeof addr) < 0) {
        perror("uevent_listen: bind");
        return 1;
    }
    printf("listening\n");
    fflush(stdout);

    char buf[16384];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof buf - 1, 0);
        if (n < 0) {
            perror("uevent_listen: recv");
            return 1;
        }
        buf[n] = '\0';
        /* "action@devpath" comes first, then NUL-separated fields. */
        const char *sep = "";
        for (ssize_t i = (ssize_t)strlen(buf) + 1; i < n; i += (ssize_t)strlen(buf + i) + 1) {
            printf("%s%s", sep, buf + i);
            sep = " ";
        }
        printf("\n");
        fflush(stdout);
    }
}
