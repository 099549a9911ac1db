#include "terminal.h"

#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

int interruptPipe[2] = { -1, -1 };

void onInterrupt(int)
{
    const char byte = 1;
    // Nothing to do if the pipe is full: enough interrupts are waiting.
    const ssize_t written = write(interruptPipe[1], &byte, 1);
    (void)written;
}

const int BarWidth = 30;
const int LineWidth = 79;

} // namespace

InterruptWatcher::InterruptWatcher(QObject* parent)
    : QObject(parent)
{
    if (pipe2(interruptPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("zor: can't make a pipe for Ctrl-C");
    mNotifier = new QSocketNotifier(interruptPipe[0], QSocketNotifier::Read, this);
    connect(mNotifier, &QSocketNotifier::activated, this, &InterruptWatcher::readPipe);
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
}

InterruptWatcher::~InterruptWatcher()
{
    signal(SIGINT, SIG_DFL);
    close(interruptPipe[0]);
    close(interruptPipe[1]);
    interruptPipe[0] = interruptPipe[1] = -1;
}

void InterruptWatcher::readPipe()
{
    char bytes[16];
    ssize_t n;
    while ((n = read(interruptPipe[0], bytes, sizeof bytes)) > 0) {
        for (ssize_t i = 0; i < n; ++i)
            emit interrupted(++mCount);
    }
}

ProgressLine::ProgressLine()
    : mEnabled(isatty(STDERR_FILENO) == 1)
{
}

void ProgressLine::show(const QString& text, int percent)
{
    if (!mEnabled)
        return;
    QString line = text;
    if (percent >= 0) {
        const int filled = qBound(0, percent, 100) * BarWidth / 100;
        line += QStringLiteral(" [%1%2] %3%")
                    .arg(QString(filled, QLatin1Char('#')), QString(BarWidth - filled, QLatin1Char('.')))
                    .arg(qBound(0, percent, 100));
    }
    // A carriage return and a clear to the end of the line redraw it in place.
    fprintf(stderr, "\r%s\033[K", qPrintable(line.left(LineWidth)));
    fflush(stderr);
    mShown = true;
}

void ProgressLine::clear()
{
    if (!mShown)
        return;
    fputs("\r\033[K", stderr);
    fflush(stderr);
    mShown = false;
}
