// Where zor-host calls the front-end: a local socket when every host runs on
// this node, TCP when some may run on others. A host proves it belongs to the
// run by sending the run's token first, as hex digits and a newline, before
// any message; a connection that doesn't is closed unread, so that nobody
// else on the network can hand the front-end results.
#ifndef ZOR_FRONTEND_HOSTLISTENER_H
#define ZOR_FRONTEND_HOSTLISTENER_H

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

class QIODevice;
class QLocalServer;
class QProcessEnvironment;
class QTcpServer;

class HostListener : public QObject
{
    Q_OBJECT

public:
    explicit HostListener(QObject* parent = nullptr);
    ~HostListener() override;

    // Hosts on this node only, at the socket file `path`.
    bool listenLocal(const QString& path, QString* error);
    // Hosts anywhere: every interface, on a port the system picks; the hosts
    // are told to call `reachableAs`, a name or address of this node.
    bool listenTcp(const QString& reachableAs, QString* error);

    // What the hosts are told: "local:PATH" or "tcp:HOST:PORT".
    QString address() const { return mAddress; }
    QByteArray token() const { return mToken; }

    // A connection that presented the token, with whatever followed the
    // token still to read; the caller takes it over. Null when none waits.
    QIODevice* nextConnection();

    // How long a new connection may take to present the token.
    void setTokenTimeout(int ms) { mTokenTimeoutMs = ms; }

signals:
    void newConnection();
    // A connection was closed without being heard: who, and why.
    void refused(const QString& why);

private:
    void admit(QIODevice* socket, const QString& peer);
    void check(QIODevice* socket, const QString& peer);
    void refuse(QIODevice* socket, const QString& why);

    QLocalServer* mLocal = nullptr;
    QTcpServer* mTcp = nullptr;
    QByteArray mToken;
    QString mAddress;
    QList<QIODevice*> mPending; // connected, token not yet read
    QList<QIODevice*> mReady;
    int mTokenTimeoutMs = 30000;
};

// Whether hosts run on other nodes, from the launcher options zor passes on
// (--host LIST, --hostfile FILE) and the hostfile or allocation the
// launcher would otherwise take from the environment. `remote` gets the
// first host that is not this node.
bool hostsElsewhere(const QStringList& hosts, const QString& hostfile, const QProcessEnvironment& environment,
                    QString* remote);
// An address of this node that `remote` reaches (the one the system routes
// from); without `remote`, the first address of an interface that is up and
// not the loopback one; the loopback address when there is none.
QString reachableAddress(const QString& remote);

#endif
