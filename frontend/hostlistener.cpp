#include "hostlistener.h"

#include <QFile>
#include <QHostAddress>
#include <QHostInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QNetworkInterface>
#include <QProcessEnvironment>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUdpSocket>

namespace {

// Compares all of both, so that the time taken doesn't tell how much of a
// guess was right.
bool sameSecret(const QByteArray& a, const QByteArray& b)
{
    if (a.size() != b.size())
        return false;
    unsigned char difference = 0;
    for (int i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a.at(i) ^ b.at(i));
    return difference == 0;
}

QByteArray newToken()
{
    QByteArray bytes(32, '\0');
    QRandomGenerator* random = QRandomGenerator::system();
    for (int i = 0; i < bytes.size(); ++i)
        bytes[i] = char(random->bounded(256));
    return bytes.toHex();
}

bool isThisNode(const QString& name)
{
    const QString lower = name.toLower();
    const QString self = QHostInfo::localHostName().toLower();
    if (lower == QLatin1String("localhost") || lower == self || lower.section(QLatin1Char('.'), 0, 0) == self
        || self.section(QLatin1Char('.'), 0, 0) == lower)
        return true;
    const QList<QHostAddress> mine = QNetworkInterface::allAddresses();
    QHostAddress literal;
    const QList<QHostAddress> addresses =
        literal.setAddress(name) ? QList<QHostAddress>{ literal } : QHostInfo::fromName(name).addresses();
    for (const QHostAddress& address : addresses)
        if (address.isLoopback() || mine.contains(address))
            return true;
    return false;
}

// Host names of a hostfile: the first word of each line, comments aside.
QStringList hostfileNames(const QString& path)
{
    QStringList names;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return names;
    while (!file.atEnd()) {
        const QString line = QString::fromLocal8Bit(file.readLine()).section(QLatin1Char('#'), 0, 0).trimmed();
        if (!line.isEmpty())
            names << line.section(QRegularExpression(QStringLiteral("\\s+")), 0, 0);
    }
    return names;
}

} // namespace

HostListener::HostListener(QObject* parent)
    : QObject(parent)
    , mToken(newToken())
{
}

HostListener::~HostListener() = default;

bool HostListener::listenLocal(const QString& path, QString* error)
{
    mLocal = new QLocalServer(this);
    mLocal->setSocketOptions(QLocalServer::UserAccessOption);
    if (!mLocal->listen(path)) {
        *error = QStringLiteral("cannot listen for hosts at %1: %2").arg(path, mLocal->errorString());
        return false;
    }
    connect(mLocal, &QLocalServer::newConnection, this, [this]() {
        while (QLocalSocket* socket = mLocal->nextPendingConnection())
            admit(socket, QStringLiteral("a local process"));
    });
    mAddress = QStringLiteral("local:") + path;
    return true;
}

bool HostListener::listenTcp(const QString& reachableAs, QString* error)
{
    mTcp = new QTcpServer(this);
    if (!mTcp->listen(QHostAddress::Any, 0)) {
        *error = QStringLiteral("cannot listen for hosts on TCP: %1").arg(mTcp->errorString());
        return false;
    }
    connect(mTcp, &QTcpServer::newConnection, this, [this]() {
        while (QTcpSocket* socket = mTcp->nextPendingConnection()) {
            socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            admit(socket, QStringLiteral("%1 port %2").arg(socket->peerAddress().toString()).arg(socket->peerPort()));
        }
    });
    mAddress = QStringLiteral("tcp:%1:%2").arg(reachableAs).arg(mTcp->serverPort());
    return true;
}

QIODevice* HostListener::nextConnection()
{
    return mReady.isEmpty() ? nullptr : mReady.takeFirst();
}

void HostListener::admit(QIODevice* socket, const QString& peer)
{
    socket->setParent(this);
    mPending.append(socket);
    connect(socket, &QIODevice::readyRead, this, [this, socket, peer]() { check(socket, peer); });
    connect(socket, SIGNAL(disconnected()), socket, SLOT(deleteLater()));
    connect(socket, &QObject::destroyed, this, [this, socket]() {
        mPending.removeOne(socket);
        mReady.removeOne(socket);
    });
    QTimer::singleShot(mTokenTimeoutMs, socket, [this, socket, peer]() {
        if (mPending.contains(socket))
            refuse(socket, QStringLiteral("%1 presented no token within %2 s").arg(peer).arg(mTokenTimeoutMs / 1000));
    });
    check(socket, peer);
}

void HostListener::check(QIODevice* socket, const QString& peer)
{
    if (!mPending.contains(socket))
        return;
    const QByteArray expected = mToken + '\n';
    QByteArray presented = socket->peek(expected.size());
    const int newline = presented.indexOf('\n');
    if (newline < 0 && presented.size() < expected.size())
        return; // more to come
    presented = socket->read(newline < 0 ? presented.size() : newline + 1);
    if (!sameSecret(presented, expected)) {
        refuse(socket, QStringLiteral("%1 did not present the run's token").arg(peer));
        return;
    }
    mPending.removeOne(socket);
    disconnect(socket, nullptr, this, nullptr);
    disconnect(socket, SIGNAL(disconnected()), socket, SLOT(deleteLater()));
    mReady.append(socket);
    connect(socket, &QObject::destroyed, this, [this, socket]() { mReady.removeOne(socket); });
    emit newConnection();
}

void HostListener::refuse(QIODevice* socket, const QString& why)
{
    mPending.removeOne(socket);
    disconnect(socket, nullptr, this, nullptr);
    if (auto* tcp = qobject_cast<QAbstractSocket*>(socket))
        tcp->abort();
    else if (auto* local = qobject_cast<QLocalSocket*>(socket))
        local->abort();
    socket->deleteLater();
    emit refused(why);
}

bool hostsElsewhere(const QStringList& hosts, const QString& hostfile, const QProcessEnvironment& environment,
                    QString* remote)
{
    QStringList names;
    for (const QString& item : hosts)
        for (const QString& host : item.split(QLatin1Char(','), Qt::SkipEmptyParts))
            names << host.section(QLatin1Char(':'), 0, 0); // "node:SLOTS"
    QStringList files;
    if (!hostfile.isEmpty())
        files << hostfile;
    // What mpirun reads when given no hosts: a default hostfile, or the
    // nodes of the batch job it runs in.
    if (hosts.isEmpty() && hostfile.isEmpty()) {
        for (const char* variable : { "OMPI_MCA_orte_default_hostfile", "PBS_NODEFILE" })
            if (environment.contains(QLatin1String(variable)))
                files << environment.value(QLatin1String(variable));
        if (environment.value(QStringLiteral("SLURM_JOB_NUM_NODES")).toInt() > 1
            || environment.value(QStringLiteral("SLURM_NNODES")).toInt() > 1) {
            remote->clear();
            return true;
        }
    }
    for (const QString& file : files)
        names += hostfileNames(file);
    names.removeDuplicates();
    for (const QString& name : names) {
        if (!isThisNode(name)) {
            *remote = name;
            return true;
        }
    }
    return false;
}

QString reachableAddress(const QString& remote)
{
    if (!remote.isEmpty()) {
        // The system's choice of source address toward the remote node; a UDP
        // socket "connects" without sending anything.
        const QList<QHostAddress> addresses = QHostInfo::fromName(remote).addresses();
        if (!addresses.isEmpty()) {
            QUdpSocket probe;
            probe.connectToHost(addresses.first(), 9);
            if (probe.waitForConnected(1000) && !probe.localAddress().isNull())
                return probe.localAddress().toString();
        }
    }
    QString ipv6;
    for (const QNetworkInterface& interface : QNetworkInterface::allInterfaces()) {
        const auto flags = interface.flags();
        if (!(flags & QNetworkInterface::IsUp) || !(flags & QNetworkInterface::IsRunning)
            || (flags & QNetworkInterface::IsLoopBack))
            continue;
        for (const QNetworkAddressEntry& entry : interface.addressEntries()) {
            const QHostAddress ip = entry.ip();
            if (ip.protocol() == QAbstractSocket::IPv4Protocol)
                return ip.toString();
            if (ipv6.isEmpty() && !ip.isLinkLocal())
                ipv6 = ip.toString();
        }
    }
    return ipv6.isEmpty() ? QStringLiteral("127.0.0.1") : ipv6;
}
