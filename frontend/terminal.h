// What `zor profile` does with the terminal: Ctrl-C turned into a Qt signal,
// and one line of progress on standard error, drawn only where standard
// error is a terminal.
#ifndef ZOR_FRONTEND_TERMINAL_H
#define ZOR_FRONTEND_TERMINAL_H

#include <QObject>
#include <QString>

class QSocketNotifier;

// The handler only writes a byte to a pipe; the event loop reads it.
class InterruptWatcher : public QObject
{
    Q_OBJECT

public:
    explicit InterruptWatcher(QObject* parent = nullptr);
    ~InterruptWatcher() override;

    int count() const { return mCount; }

signals:
    // The first, the second, ... Ctrl-C.
    void interrupted(int count);

private:
    void readPipe();

    QSocketNotifier* mNotifier;
    int mCount = 0;
};

class ProgressLine
{
public:
    ProgressLine();
    ~ProgressLine() { clear(); }

    bool enabled() const { return mEnabled; }
    // `percent` < 0 draws no bar.
    void show(const QString& text, int percent = -1);
    void clear();

private:
    bool mEnabled;
    bool mShown = false;
};

#endif
