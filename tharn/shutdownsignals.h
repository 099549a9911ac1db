// SIGTERM and SIGHUP as a Qt signal, through a pipe that the handler writes;
// SIGINT is ignored from construction on.
#ifndef ZOR_SHUTDOWNSIGNALS_H
#define ZOR_SHUTDOWNSIGNALS_H

#include <QObject>

class QSocketNotifier;

class ShutdownSignals : public QObject
{
    Q_OBJECT

public:
    explicit ShutdownSignals(QObject* parent = nullptr);
    ~ShutdownSignals() override;

signals:
    void received(int signal);

private slots:
    void readPipe();

private:
    QSocketNotifier* mNotifier;
};

#endif
