/* Preloaded into a daemon under test: sends every syslog record as one datagram "<PRI>text"
 * to the Unix socket named by K52TEST_SYSLOG_SOCKET, so end-to-end tests see exactly what the
 * daemon logs without a system log daemon. */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

static pthread_once_t once = PTHREAD_ONCE_INIT;
static int sink = -1;
static struct sockaddr_un address;

static void connectSink(void)
{
    const char* path = getenv("K52TEST_SYSLOG_SOCKET");
    if (!path || strlen(path) >= sizeof address.sun_path)
        return;
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path);
    sink = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

static void forward(int priority, const char* format, va_list args)
{
    char record[16384];
    pthread_once(&once, connectSink);
    if (sink < 0)
        return;
    int head = snprintf(record, sizeof record, "<%d>", priority);
    int body = vsnprintf(record + head, sizeof record - (size_t)head, format, args);
    size_t length = (size_t)head + (body < 0 ? 0 : (size_t)body);
    if (length > sizeof record - 1)
        length = sizeof record - 1;
    sendto(sink, record, length, 0, (struct sockaddr*)&address, sizeof address);
}

void vsyslog(int priority, const char* format, va_list args) { forward(priority, format, args); }

void syslog(int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    forward(priority, format, args);
    va_end(args);
}

void __syslog_chk(int priority, int flag, const char* format, ...)
{
    va_list args;
    (void)flag;
    va_start(args, format);
    forward(priority, format, args);
    va_end(args);
}
