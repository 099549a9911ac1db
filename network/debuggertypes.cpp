#include "debuggertypes.h"

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include "constants.h"

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
