#include "platformnames.h"

const char* const Branding::ProfilerName = "ZOR";
const char* const DispositionStrings::IgnoreDisposition = "ignore";
const char* const DispositionStrings::DefaultDisposition = "default";

QString NoMPIStartup::getName()
{
    return QStringLiteral("no-mpi");
}
