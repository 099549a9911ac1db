#include "quorvexglobals.h"

#include <QFile>
#include <QFileInfo>
#include <dlfcn.h>

namespace {

// An address inside this library, for the loader to name the file.
void anchor() {}

} // namespace

QuorvexGlobals& QuorvexGlobals::instance()
{
    static QuorvexGlobals globals;
    return globals;
}

QuorvexGlobals::QuorvexGlobals()
{
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&anchor), &info) != 0 && info.dli_fname && info.dli_fname[0]) {
        // Links are resolved so that a library reached through a link of
        // its soname still names the directory it really lies in.
        const QFileInfo library(QFile::decodeName(info.dli_fname));
        const QString real = library.canonicalFilePath();
        mInstallPath = QFileInfo(real.isEmpty() ? library.absoluteFilePath() : real).absolutePath();
    }
}

QString QuorvexGlobals::installPath() const
{
    return mInstallPath;
}
