// The plug-in is loaded, not linked: its entries are C functions that a
// host or a tree server resolves by these names.
#ifndef ZOR_PLUGINENTRY_H
#define ZOR_PLUGINENTRY_H

#include <QString>

class QuorvexTharnPlugin;
class QuorvexTreeserverPlugin;

// extern "C" QuorvexTharnPlugin* zor_create_tharn_plugin();
extern const char* const ZOR_THARN_PLUGIN_ENTRY;
// extern "C" QuorvexTreeserverPlugin* zor_create_treeserver_plugin();
extern const char* const ZOR_TREESERVER_PLUGIN_ENTRY;

// The plug-in's file in the install directory, beside libzor-network.
QString defaultProfilerPluginPath();

// Loads the plug-in at `path` and creates its entry; the library stays
// loaded for the life of the process. Null, with the reason in `error`, if
// the file is missing, won't load or lacks the entry.
QuorvexTharnPlugin* loadTharnPlugin(const QString& path, QString* error);
QuorvexTreeserverPlugin* loadTreeserverPlugin(const QString& path, QString* error);

#endif
