#include "shutdownsignals.h"

#include <QSocketNotifier>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

int pipeFds[2] = {-1, -1};

void onSignal(int signal)
{
    const unsigned char byte = static_cast<unsigned char>(signal);
    const ssize_t ignored = write(pipeFds[1], &byte, 1);
    (void)ignored;
}

} // namespace

ShutdownSignals::ShutdownSignals(QObject* parent)
    : QObject(parent)
    , mNotifier(nullptr)
{
    if (pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    mNotifier = new QSocketNotifier(pipeFds[0], QSocketNotifier::Read, this);
    connect(mNotifier, &QSocketNotifier::activated, this, &ShutdownSignals::readPipe);
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    signal(SIGINT, SIG_IGN);
}

ShutdownSignals::~ShutdownSignals()
{
    signal(SIGTERM, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
}

void ShutdownSignals::readPipe()
{
    unsigned char byte = 0;
    while (read(pipeFds[0], &byte, 1) == 1)
        emit received(byte);
}
