#include "zorprofiler.h"

#include <QCoreApplication>
#include <QTime>

#include "constants.h"
#include "exception.h"
#include "profiler.h"
#include "zorresponsefactoryplugin.h"

ZORProfiler::ZORProfiler()
    : profiler(nullptr)
{
}

ZORProfiler::~ZORProfiler()
{
    delete profiler;
}

bool ZORProfiler::init(Command& command, TharnInterface& host)
{
    if (profiler)
        throw new Exception(20002, QCoreApplication::translate("ZORProfiler", "ZORProfiler has already been initialised"));
    // Every random choice of thinning and resampling comes from this
    // generator; two processes that start in the same millisecond choose
    // alike, which does no harm.
    qsrand(static_cast<uint>(QTime::currentTime().msec()));
    profiler = new Profiler(command, host, *this);
    return true;
}

TharnMessageHandler* ZORProfiler::getMessageHandler()
{
    if (!profiler)
        throw new Exception(20001, QCoreApplication::translate("ZORProfiler", "ZORProfiler has not yet been initialised"));
    return profiler;
}

QString ZORProfiler::getTargetName() const
{
    return QString::fromLatin1(XML_TARGET_PROFILER);
}

ZORTreeserver::ZORTreeserver()
    : responseFactory(nullptr)
{
}

ZORTreeserver::~ZORTreeserver() = default;

bool ZORTreeserver::init(Command&)
{
    responseFactory = new ZORResponseFactoryPlugin;
    return true;
}

ResponseFactoryPlugin* ZORTreeserver::getResponseFactoryPlugin()
{
    return responseFactory;
}

QString ZORTreeserver::getTargetName() const
{
    return QString::fromLatin1(XML_TARGET_PROFILER);
}

// The entries by which hosts and tree servers load the plug-in
// (pluginentry.h names them).
extern "C" Q_DECL_EXPORT QuorvexTharnPlugin* zor_create_tharn_plugin()
{
    return new ZORProfiler;
}

extern "C" Q_DECL_EXPORT QuorvexTreeserverPlugin* zor_create_treeserver_plugin()
{
    return new ZORTreeserver;
}
