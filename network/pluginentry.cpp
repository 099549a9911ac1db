#include "pluginentry.h"

#include <QFileInfo>
#include <QLibrary>

#include "quorvexglobals.h"

const char* const ZOR_THARN_PLUGIN_ENTRY = "zor_create_tharn_plugin";
const char* const ZOR_TREESERVER_PLUGIN_ENTRY = "zor_create_treeserver_plugin";

QString defaultProfilerPluginPath()
{
    return QuorvexGlobals::instance().installPath() + QStringLiteral("/libzor-profiler.so.1");
}

namespace {

template <class Plugin>
Plugin* load(const QString& path, const char* entry, QString* error)
{
    if (!QFileInfo(path).isFile()) {
        *error = QStringLiteral("The profiler plug-in %1 does not exist").arg(path);
        return nullptr;
    }
    // Never unloaded: objects of the plug-in live until the process ends.
    QLibrary* library = new QLibrary(path);
    library->setLoadHints(QLibrary::ResolveAllSymbolsHint);
    if (!library->load()) {
        *error = QStringLiteral("Can't load the profiler plug-in: %1").arg(library->errorString());
        delete library;
        return nullptr;
    }
    typedef Plugin* (*Create)();
    Create create = reinterpret_cast<Create>(library->resolve(entry));
    if (!create) {
        *error = QStringLiteral("The profiler plug-in %1 has no entry %2").arg(path, QString::fromLatin1(entry));
        return nullptr;
    }
    return create();
}

} // namespace

QuorvexTharnPlugin* loadTharnPlugin(const QString& path, QString* error)
{
    return load<QuorvexTharnPlugin>(path, ZOR_THARN_PLUGIN_ENTRY, error);
}

QuorvexTreeserverPlugin* loadTreeserverPlugin(const QString& path, QString* error)
{
    return load<QuorvexTreeserverPlugin>(path, ZOR_TREESERVER_PLUGIN_ENTRY, error);
}
