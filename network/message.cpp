#include "message.h"

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include "profilerresponses.h"
#include "xmlreading.h"

namespace HelloKeys {
const char* const Rank = "rank";
const char* const RankCount = "rankCount";
const char* const Hostname = "hostname";
const char* const HostPid = "hostPid";
const char* const TargetPid = "targetPid";
const char* const DebuggerPid = "debuggerPid";
const char* const Program = "program";
const char* const Error = "error";
}

namespace {

const char* const kindNames[] = {"command", "cancel",         "response", "reply",
                                 "exception", "replyException", "hello",    "targetExit"};
const int kindCount = int(sizeof(kindNames) / sizeof(kindNames[0]));

bool kindFromName(const QStringRef& name, Message::Kind* kind)
{
    for (int i = 0; i < kindCount; ++i) {
        if (name == QLatin1String(kindNames[i])) {
            *kind = static_cast<Message::Kind>(i);
            return true;
        }
    }
    return false;
}

bool isReply(Message::Kind kind)
{
    return kind == Message::Reply || kind == Message::ReplyException;
}

} // namespace

QString Message::kindName(Kind kind)
{
    return QString::fromLatin1(kindNames[kind]);
}

Message Message::forCommand(const Command& command)
{
    Message message;
    message.kind = CommandMessage;
    message.uid = command.getUid();
    message.command = command;
    return message;
}

Message Message::forCancel(int uid)
{
    Message message;
    message.kind = Cancel;
    message.uid = uid;
    return message;
}

Message Message::forResponse(const Response& response)
{
    Message message;
    message.kind = ResponseMessage;
    message.response.reset(response.clone());
    return message;
}

Message Message::forReply(const Command& command, const Response& response)
{
    Message message = forResponse(response);
    message.kind = Reply;
    message.uid = command.getUid();
    message.commandName = command.name;
    return message;
}

Message Message::forException(const ExceptionBase& exception)
{
    Message message;
    message.kind = ExceptionMessage;
    message.exception = std::make_shared<ExceptionBase>(exception);
    return message;
}

Message Message::forReplyException(const Command& command, const ExceptionBase& exception)
{
    Message message = forException(exception);
    message.kind = ReplyException;
    message.uid = command.getUid();
    message.commandName = command.name;
    return message;
}

Message Message::forValues(Kind kind, const QVariantMap& values)
{
    Message message;
    message.kind = kind;
    message.values = values;
    return message;
}

QByteArray Message::toXml() const
{
    QByteArray xml;
    QXmlStreamWriter writer(&xml);
    writer.writeStartDocument();
    writer.writeStartElement(QStringLiteral("message"));
    writer.writeAttribute(QStringLiteral("kind"), kindName(kind));
    if (isReply(kind) || kind == Cancel)
        writer.writeAttribute(QStringLiteral("uid"), QString::number(uid));
    if (isReply(kind))
        writer.writeAttribute(QStringLiteral("command"), commandName);
    switch (kind) {
    case CommandMessage:
        command.writeXml(writer);
        break;
    case ResponseMessage:
    case Reply:
        if (response)
            response->writeXml(writer);
        break;
    case ExceptionMessage:
    case ReplyException:
        if (exception)
            exception->writeXml(writer);
        break;
    case Cancel:
    case Hello:
    case TargetExit:
        for (auto it = values.constBegin(); it != values.constEnd(); ++it)
            writeVariantXml(writer, QStringLiteral("param"), it.key(), it.value());
        break;
    }
    writer.writeEndElement();
    writer.writeEndDocument();
    return xml;
}

bool Message::readSampleBlock(const QByteArray& xml, const ResponseFactoryPlugin* factory, Message* message,
                              QString* error)
{
    FastXmlReader reader(xml);
    std::shared_ptr<SampleBlockResponse> block;
    if (reader.readNextStartElement() && reader.nameIs(QLatin1String("message"))
        && reader.attribute(QLatin1String("kind")) == QLatin1String("response") && reader.readNextStartElement()
        && reader.nameIs(QLatin1String("SampleBlockResponse")) && factory) {
        // The factory decides what the element makes.
        std::shared_ptr<Response> made(factory->createResponse(reader.name()));
        block = std::dynamic_pointer_cast<SampleBlockResponse>(made);
    }
    if (!block) {
        *error = reader.hasError() ? reader.errorString() : QStringLiteral("not a block of samples");
        return false;
    }
    if (!block->readXml(reader) || reader.readNextStartElement() || !reader.atDocumentEnd()) {
        *error = reader.hasError() ? reader.errorString() : QStringLiteral("more than a block of samples");
        return false;
    }
    Message result;
    result.kind = ResponseMessage;
    result.response = block;
    *message = result;
    return true;
}

bool Message::fromXml(const QByteArray& xml, const ResponseFactoryPlugin* factory, Message* message,
                      QString* error)
{
    // Blocks of samples, the bulk of a run's answer, go to our own reader
    // first; whatever it doesn't take, Qt's reader reads and judges.
    QString notFast;
    if (readSampleBlock(xml, factory, message, &notFast))
        return true;
    QXmlStreamReader reader(xml);
    if (!reader.readNextStartElement() || reader.name() != QLatin1String("message")) {
        *error = reader.hasError() ? reader.errorString() : QStringLiteral("expected a message element");
        return false;
    }
    Message result;
    const QXmlStreamAttributes attributes = reader.attributes();
    if (!kindFromName(attributes.value(QLatin1String("kind")), &result.kind)) {
        *error = QStringLiteral("unknown message kind \"%1\"").arg(attributes.value(QLatin1String("kind")));
        return false;
    }
    if (isReply(result.kind) || result.kind == Cancel) {
        bool ok = false;
        result.uid = attributes.value(QLatin1String("uid")).toInt(&ok);
        if (!ok) {
            *error = QStringLiteral("%1 message without a numeric uid").arg(kindName(result.kind));
            return false;
        }
        result.commandName = attributes.value(QLatin1String("command")).toString();
    }

    bool haveBody = false;
    while (reader.readNextStartElement()) {
        switch (result.kind) {
        case CommandMessage:
            if (haveBody) {
                *error = QStringLiteral("more than one command in a message");
                return false;
            }
            if (!result.command.readXml(reader, error))
                return false;
            result.uid = result.command.getUid();
            break;
        case ResponseMessage:
        case Reply: {
            if (haveBody) {
                *error = QStringLiteral("more than one response in a message");
                return false;
            }
            if (!factory) {
                *error = QStringLiteral("no response factory to read \"%1\"").arg(reader.name());
                return false;
            }
            Response* response = factory->readResponse(reader, error);
            if (!response)
                return false;
            result.response.reset(response);
            break;
        }
        case ExceptionMessage:
        case ReplyException: {
            if (haveBody) {
                *error = QStringLiteral("more than one exception in a message");
                return false;
            }
            ExceptionBase* exception = ExceptionBase::readXml(reader, error);
            if (!exception)
                return false;
            result.exception.reset(exception);
            break;
        }
        case Cancel:
        case Hello:
        case TargetExit: {
            const QString key = reader.attributes().value(QLatin1String("key")).toString();
            QVariant value;
            if (!readVariantXml(reader, &value, error))
                return false;
            result.values.insert(key, value);
            break;
        }
        }
        haveBody = true;
    }
    if (reader.hasError()) {
        *error = reader.errorString();
        return false;
    }
    const bool needsBody = result.kind == CommandMessage || result.kind == ResponseMessage || result.kind == Reply
        || result.kind == ExceptionMessage || result.kind == ReplyException;
    if (needsBody && !haveBody) {
        *error = QStringLiteral("%1 message without its content").arg(kindName(result.kind));
        return false;
    }
    *message = result;
    return true;
}
