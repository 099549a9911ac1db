// The host's watch on the target: a timer that looks every so often whether
// the process still lives. During a run the sample source makes it look
// less often, so that the watch costs the target next to nothing.
#ifndef ZOR_PROCESSWATCHER_H
#define ZOR_PROCESSWATCHER_H

#include <QObject>
#include <QTimer>

class ProcessWatcher : public QObject
{
    Q_OBJECT

public:
    // The interval at a multiple of 1, in milliseconds.
    static constexpr int BaseIntervalMs = 500;

    explicit ProcessWatcher(int pid, QObject* parent = nullptr);
    ~ProcessWatcher() override;

    // Stretches the interval of every watcher, those running included.
    static void setTimerIntervalMultiple(int multiple);
    static int timerIntervalMultiple();
    int intervalMs() const { return mTimer.interval(); }

    void start();
    void stop();
    int pid() const { return mPid; }

signals:
    // Once, when the process is found gone.
    void processExited(int pid);

private slots:
    void check();

private:
    void applyInterval();

    int mPid;
    QTimer mTimer;
};

#endif
