// Thin wrappers of system calls that the plug-in and the host share, so that
// tests and other platforms have one place to stand in for them.
#ifndef ZOR_SYSCALLS_H
#define ZOR_SYSCALLS_H

#include <QString>

// The name of this host, empty if it can't be told.
QString sc_hostname();
// As kill(2): 0 on success, -1 with errno set otherwise.
int sc_kill(int pid, int signal);
// As getuid(2).
unsigned int sc_getuid();

#endif
