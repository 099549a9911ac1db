// Runs this thread's event loop until `done` says so or `ms` have passed;
// whether it did.
#ifndef ZOR_TEST_SPIN_H
#define ZOR_TEST_SPIN_H

#include <QCoreApplication>
#include <QElapsedTimer>
#include <functional>

inline bool spinUntil(const std::function<bool()>& done, int ms = 5000)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return done();
}

#endif
