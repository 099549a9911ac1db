#include "internstringcache.h"

#include <QMutex>
#include <QMutexLocker>

#include <cstdlib>
#include <cstring>

QString InternStringCache::intern(const QString& text)
{
    if (text.isNull())
        return text;
    const auto it = mStrings.constFind(text);
    if (it != mStrings.constEnd())
        return *it;
    mStrings.insert(text);
    return text;
}

QString InternStringCache::internForever(const QString& text)
{
    if (text.isNull())
        return text;
    static QMutex mutex;
    static InternStringCache strings;
    QMutexLocker lock(&mutex);
    const auto it = strings.mStrings.constFind(text);
    if (it != strings.mStrings.constEnd())
        return *it;
    // A header whose reference count says "static", as that of a literal:
    // Qt neither counts its copies nor frees it, and detaches on a change.
    const int size = text.size();
    void* block = std::malloc(sizeof(QStringData) + (size_t(size) + 1) * sizeof(ushort));
    if (!block)
        return text;
    QStringData* data = static_cast<QStringData*>(block);
    data->ref.atomic.storeRelaxed(-1);
    data->size = size;
    data->alloc = 0;
    data->capacityReserved = 0;
    data->offset = sizeof(QStringData);
    std::memcpy(data->data(), text.constData(), size_t(size) * sizeof(ushort));
    data->data()[size] = 0;
    const QString kept(QStringDataPtr{data});
    strings.mStrings.insert(kept);
    return kept;
}
