#include "command.h"

#include <QAtomicInt>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

namespace {

int nextUid()
{
    static QAtomicInt counter(0);
    return counter.fetchAndAddRelaxed(1) + 1;
}

QString typeName(const QVariant& value)
{
    switch (static_cast<QMetaType::Type>(value.type())) {
    case QMetaType::UnknownType: return QStringLiteral("null");
    case QMetaType::Bool: return QStringLiteral("bool");
    case QMetaType::Int: return QStringLiteral("int");
    case QMetaType::UInt: return QStringLiteral("uint");
    case QMetaType::LongLong: return QStringLiteral("longlong");
    case QMetaType::ULongLong: return QStringLiteral("ulonglong");
    case QMetaType::Double: return QStringLiteral("double");
    case QMetaType::QVariantMap: return QStringLiteral("map");
    case QMetaType::QVariantList: return QStringLiteral("list");
    case QMetaType::QStringList: return QStringLiteral("stringlist");
    default: return QStringLiteral("string");
    }
}

} // namespace

void writeVariantXml(QXmlStreamWriter& writer, const QString& element, const QString& key, const QVariant& value)
{
    writer.writeStartElement(element);
    if (!key.isNull())
        writer.writeAttribute(QStringLiteral("key"), key);
    const QString type = typeName(value);
    writer.writeAttribute(QStringLiteral("type"), type);
    if (type == QLatin1String("map")) {
        const QVariantMap map = value.toMap();
        for (auto it = map.constBegin(); it != map.constEnd(); ++it)
            writeVariantXml(writer, QStringLiteral("param"), it.key(), it.value());
    } else if (type == QLatin1String("list") || type == QLatin1String("stringlist")) {
        for (const QVariant& item : value.toList())
            writeVariantXml(writer, QStringLiteral("item"), QString(), item);
    } else if (type == QLatin1String("double")) {
        writer.writeCharacters(QString::number(value.toDouble(), 'g', 17));
    } else if (type != QLatin1String("null")) {
        writer.writeCharacters(value.toString());
    }
    writer.writeEndElement();
}

bool readVariantXml(QXmlStreamReader& reader, QVariant* value, QString* error)
{
    const QString type = reader.attributes().value(QLatin1String("type")).toString();
    if (type == QLatin1String("map")) {
        QVariantMap map;
        while (reader.readNextStartElement()) {
            const QString key = reader.attributes().value(QLatin1String("key")).toString();
            QVariant item;
            if (!readVariantXml(reader, &item, error))
                return false;
            map.insert(key, item);
        }
        *value = map;
    } else if (type == QLatin1String("list") || type == QLatin1String("stringlist")) {
        QVariantList list;
        while (reader.readNextStartElement()) {
            QVariant item;
            if (!readVariantXml(reader, &item, error))
                return false;
            list.append(item);
        }
        *value = type == QLatin1String("list") ? QVariant(list) : QVariant(QVariant(list).toStringList());
    } else {
        const QString text = reader.readElementText();
        bool ok = true;
        if (type == QLatin1String("null"))
            *value = QVariant();
        else if (type == QLatin1String("bool"))
            *value = text == QLatin1String("true");
        else if (type == QLatin1String("int"))
            *value = text.toInt(&ok);
        else if (type == QLatin1String("uint"))
            *value = text.toUInt(&ok);
        else if (type == QLatin1String("longlong"))
            *value = text.toLongLong(&ok);
        else if (type == QLatin1String("ulonglong"))
            *value = text.toULongLong(&ok);
        else if (type == QLatin1String("double"))
            *value = text.toDouble(&ok);
        else if (type == QLatin1String("string"))
            *value = text;
        else {
            *error = QStringLiteral("unknown value type \"%1\"").arg(type);
            return false;
        }
        if (!ok) {
            *error = QStringLiteral("value \"%1\" is not of type %2").arg(text, type);
            return false;
        }
    }
    if (reader.hasError()) {
        *error = reader.errorString();
        return false;
    }
    return true;
}

Command::Command()
    : mUid(nextUid())
{
}

Command::Command(const QString& commandName, const QString& target, const char* action)
    : name(commandName)
    , mTarget(target)
    , mAction(action ? QString::fromLatin1(action) : QString())
    , mUid(nextUid())
{
}

QVariant Command::getValue(const QString& key, const QVariant& defaultValue) const
{
    const auto it = parameters.constFind(key);
    return it == parameters.constEnd() ? defaultValue : it.value();
}

bool Command::getFlagValue(const QString& key, bool defaultValue) const
{
    const auto it = parameters.constFind(key);
    if (it == parameters.constEnd() || !it.value().isValid() || !it.value().canConvert<bool>())
        return defaultValue;
    return it.value().toBool();
}

void Command::writeXml(QXmlStreamWriter& writer) const
{
    writer.writeStartElement(QStringLiteral("command"));
    writer.writeAttribute(QStringLiteral("name"), name);
    writer.writeAttribute(QStringLiteral("uid"), QString::number(mUid));
    if (!mTarget.isEmpty())
        writer.writeAttribute(QStringLiteral("target"), mTarget);
    if (!mAction.isEmpty())
        writer.writeAttribute(QStringLiteral("action"), mAction);
    for (auto it = parameters.constBegin(); it != parameters.constEnd(); ++it)
        writeVariantXml(writer, QStringLiteral("param"), it.key(), it.value());
    writer.writeEndElement();
}

bool Command::readXml(QXmlStreamReader& reader, QString* error)
{
    if (!reader.isStartElement() || reader.name() != QLatin1String("command")) {
        *error = QStringLiteral("expected a command element");
        return false;
    }
    const QXmlStreamAttributes attributes = reader.attributes();
    name = attributes.value(QLatin1String("name")).toString();
    if (name.isEmpty()) {
        *error = QStringLiteral("command without a name");
        return false;
    }
    bool ok = false;
    const int uid = attributes.value(QLatin1String("uid")).toInt(&ok);
    if (!ok) {
        *error = QStringLiteral("command \"%1\" without a numeric uid").arg(name);
        return false;
    }
    mUid = uid;
    mTarget = attributes.value(QLatin1String("target")).toString();
    mAction = attributes.value(QLatin1String("action")).toString();
    parameters.clear();
    while (reader.readNextStartElement()) {
        if (reader.name() != QLatin1String("param")) {
            reader.skipCurrentElement();
            continue;
        }
        const QString key = reader.attributes().value(QLatin1String("key")).toString();
        QVariant value;
        if (!readVariantXml(reader, &value, error))
            return false;
        parameters.insert(key, value);
    }
    if (reader.hasError()) {
        *error = reader.errorString();
        return false;
    }
    return true;
}

QByteArray Command::toXml() const
{
    QByteArray xml;
    QXmlStreamWriter writer(&xml);
    writer.writeStartDocument();
    writeXml(writer);
    writer.writeEndDocument();
    return xml;
}

bool Command::fromXml(const QByteArray& xml, Command* command, QString* error)
{
    QXmlStreamReader reader(xml);
    if (!reader.readNextStartElement()) {
        *error = reader.hasError() ? reader.errorString() : QStringLiteral("no command element");
        return false;
    }
    return command->readXml(reader, error);
}
