// What a host learns from the environment its launcher gave it: its rank
// and the number of ranks (OpenMPI's variables, then PMI's; rank 0 of 1
// without a launcher), and where the front-end listens.
#ifndef ZOR_HOSTENVIRONMENT_H
#define ZOR_HOSTENVIRONMENT_H

#include <QProcessEnvironment>

#include "tharn.h"

TharnIdentity identityFromEnvironment(const QProcessEnvironment& environment, const QString& programName);
// The launcher that started this host ("OpenMPI", "PMI"); empty without one.
QString launcherName(const QProcessEnvironment& environment);

// A front-end address: "local:PATH" for a local socket, "tcp:HOST:PORT".
struct FrontendAddress
{
    enum Kind { Invalid, Local, Tcp };
    Kind kind = Invalid;
    QString path;  // Local
    QString host;  // Tcp
    quint16 port = 0;

    static FrontendAddress parse(const QString& text);
    QString toString() const;
};

#endif
