#include "syscalls.h"

#include <climits>
#include <signal.h>
#include <unistd.h>

QString sc_hostname()
{
    char name[HOST_NAME_MAX + 1];
    if (gethostname(name, sizeof name) != 0)
        return QString();
    name[HOST_NAME_MAX] = '\0';
    return QString::fromLocal8Bit(name);
}

int sc_kill(int pid, int signal)
{
    return kill(pid, signal);
}

unsigned int sc_getuid()
{
    return getuid();
}
