#include "debuggertypes.h"

#include <QFile>
#include <QHash>
#include <QStringList>
#include <QVector>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include "constants.h"

#include <algorithm>

namespace {

bool readInt(const QXmlStreamAttributes& attributes, const char* name, int* value)
{
    bool ok = false;
    *value = attributes.value(QLatin1String(name)).toInt(&ok);
    return ok;
}

} // namespace

void ThreadsResponse::writeContent(QXmlStreamWriter& writer) const
{
    writer.writeAttribute(QStringLiteral("active"), QString::number(mActive));
    for (const ThreadResponse& thread : mThreads) {
        writer.writeStartElement(QStringLiteral("thread"));
        writer.writeAttribute(QStringLiteral("uid"), QString::number(thread.uniqueId()));
        writer.writeAttribute(QStringLiteral("id"), QString::number(thread.debuggerId()));
        writer.writeAttribute(QStringLiteral("tid"), QString::number(thread.tid()));
        writer.writeAttribute(QStringLiteral("name"), thread.name());
        writer.writeEndElement();
    }
}

bool ThreadsResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    mThreads.clear();
    if (!readInt(reader.attributes(), "active", &mActive)) {
        *error = QStringLiteral("threads without an active index");
        return false;
    }
    while (reader.readNextStartElement()) {
        const QXmlStreamAttributes attributes = reader.attributes();
        int uid = 0, id = 0, tid = 0;
        if (reader.name() != QLatin1String("thread") || !readInt(attributes, "uid", &uid)
            || !readInt(attributes, "id", &id) || !readInt(attributes, "tid", &tid)) {
            *error = QStringLiteral("a thread needs uid, id and tid");
            return false;
        }
        mThreads.append(ThreadResponse(uid, id, tid, attributes.value(QLatin1String("name")).toString()));
        reader.skipCurrentElement();
    }
    return !reader.hasError();
}

void PositionResponse::writeContent(QXmlStreamWriter& writer) const
{
    writer.writeAttribute(QStringLiteral("function"), function);
    writer.writeAttribute(QStringLiteral("file"), file);
    writer.writeAttribute(QStringLiteral("line"), QString::number(line));
    writer.writeAttribute(QStringLiteral("symbol"), mHasSymbol ? QStringLiteral("1") : QStringLiteral("0"));
}

bool PositionResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    const QXmlStreamAttributes attributes = reader.attributes();
    if (!readInt(attributes, "line", &line)) {
        *error = QStringLiteral("position without a line");
        return false;
    }
    function = attributes.value(QLatin1String("function")).toString();
    file = attributes.value(QLatin1String("file")).toString();
    mHasSymbol = attributes.value(QLatin1String("symbol")) == QLatin1String("1");
    reader.skipCurrentElement();
    return !reader.hasError();
}

SetThreadCommand::SetThreadCommand(int debuggerId)
    : Command(QString::fromLatin1(CMD_SET_THREAD), QString::fromLatin1(XML_TARGET_DEBUGGER))
{
    addParameter(QStringLiteral("thread"), debuggerId);
}

int SetThreadCommand::threadId() const
{
    return getValue(QStringLiteral("thread"), -1).toInt();
}

QList<SharedLibrary> filesOfMaps(const QByteArray& maps)
{
    struct Mapping
    {
        QString path;
        unsigned long long start, end, offset;
        bool code;
        long long placement() const { return static_cast<long long>(start - offset); }
    };
    // "start-end perms offset dev inode path"; the path may hold spaces.
    QVector<Mapping> mappings;
    for (const QByteArray& line : maps.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() < 6 || !fields[5].startsWith('/'))
            continue;
        const int dash = fields[0].indexOf('-');
        bool ok1 = false, ok2 = false, ok3 = false;
        const unsigned long long start = fields[0].left(dash).toULongLong(&ok1, 16);
        const unsigned long long end = fields[0].mid(dash + 1).toULongLong(&ok2, 16);
        const unsigned long long offset = fields[2].toULongLong(&ok3, 16);
        if (dash < 0 || !ok1 || !ok2 || !ok3 || end <= start)
            continue;
        mappings.append({QFile::decodeName(line.mid(line.indexOf('/'))), start, end, offset, fields[1].contains('x')});
    }
    // Where the loader put a file: its mapping of the lowest offset, which
    // holds its headers. The loader keeps the other segments within a few
    // pages of where their offsets put them; a copy of its code elsewhere is
    // far from there.
    const long long Far = 256LL << 20;
    QHash<QString, const Mapping*> first;
    for (const Mapping& m : mappings) {
        const Mapping*& lowest = first[m.path];
        if (!lowest || m.offset < lowest->offset)
            lowest = &m;
    }
    QStringList order;
    QHash<QString, Mapping> ranges;
    QList<SharedLibrary> remappings;
    for (const Mapping& m : mappings) {
        const long long placement = first.value(m.path)->placement();
        if (m.placement() - placement > Far || placement - m.placement() > Far) {
            const SharedLibrary remapping = SharedLibrary::remapping(m.path, m.start, m.end, m.offset);
            if (m.code && !remappings.contains(remapping))
                remappings << remapping;
            continue;
        }
        auto it = ranges.find(m.path);
        if (it == ranges.end()) {
            order << m.path;
            ranges.insert(m.path, m);
        } else {
            it->start = std::min(it->start, m.start);
            it->end = std::max(it->end, m.end);
            it->code = it->code || m.code;
        }
    }
    QList<SharedLibrary> result;
    // Only files with code can hold a sampled address.
    for (const QString& path : order) {
        const Mapping& range = ranges[path];
        if (range.code)
            result << SharedLibrary(path, range.start, range.end);
    }
    return result + remappings;
}
