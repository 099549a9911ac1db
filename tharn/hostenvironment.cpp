#include "hostenvironment.h"

#include <unistd.h>

namespace {

// The first of `names` that holds a whole number.
bool firstNumber(const QProcessEnvironment& environment, std::initializer_list<const char*> names, int* value)
{
    for (const char* name : names) {
        bool ok = false;
        const int number = environment.value(QString::fromLatin1(name)).toInt(&ok);
        if (ok) {
            *value = number;
            return true;
        }
    }
    return false;
}

} // namespace

TharnIdentity identityFromEnvironment(const QProcessEnvironment& environment, const QString& programName)
{
    TharnIdentity identity;
    identity.programName = programName;
    int rank = 0;
    int count = 1;
    if (firstNumber(environment, {"OMPI_COMM_WORLD_RANK", "PMI_RANK", "PMIX_RANK"}, &rank) && rank >= 0) {
        identity.rank = rank;
        if (firstNumber(environment, {"OMPI_COMM_WORLD_SIZE", "PMI_SIZE"}, &count) && count > rank)
            identity.rankCount = count;
        else
            identity.rankCount = rank + 1;
    }
    // The hosts of one node are children of one launcher process there (of
    // the front-end itself for a single process), so its pid is common to
    // them and differs between runs.
    identity.hostProcessId = int(getppid());
    return identity;
}

QString launcherName(const QProcessEnvironment& environment)
{
    if (environment.contains(QStringLiteral("OMPI_COMM_WORLD_RANK")))
        return QStringLiteral("OpenMPI");
    if (environment.contains(QStringLiteral("PMI_RANK")) || environment.contains(QStringLiteral("PMIX_RANK")))
        return QStringLiteral("PMI");
    return QString();
}

FrontendAddress FrontendAddress::parse(const QString& text)
{
    FrontendAddress address;
    if (text.startsWith(QLatin1String("local:")) && text.size() > 6) {
        address.kind = Local;
        address.path = text.mid(6);
    } else if (text.startsWith(QLatin1String("tcp:"))) {
        const int colon = text.lastIndexOf(QLatin1Char(':'));
        bool ok = false;
        const uint port = text.mid(colon + 1).toUInt(&ok);
        if (colon > 4 && ok && port > 0 && port < 65536) {
            address.kind = Tcp;
            address.host = text.mid(4, colon - 4);
            address.port = quint16(port);
        }
    }
    return address;
}

QString FrontendAddress::toString() const
{
    switch (kind) {
    case Local: return QStringLiteral("local:") + path;
    case Tcp: return QStringLiteral("tcp:%1:%2").arg(host).arg(port);
    case Invalid: break;
    }
    return QString();
}
