#include "response.h"

#include <QStringList>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include "xmlvalues.h"

Response::~Response() = default;

void Response::writeXml(QXmlStreamWriter& writer) const
{
    writer.writeStartElement(elementName());
    writeContent(writer);
    writer.writeEndElement();
}

bool Response::readXml(QXmlStreamReader& reader, QString* error)
{
    if (!reader.isStartElement() || reader.name() != elementName()) {
        *error = QStringLiteral("expected a %1 element, found \"%2\"").arg(elementName(), reader.name().toString());
        return false;
    }
    if (!readContent(reader, error)) {
        if (error->isEmpty())
            *error = xmlReadError(reader, QStringLiteral("malformed %1 element").arg(elementName()));
        return false;
    }
    if (reader.hasError() || !reader.isEndElement()) {
        *error = xmlReadError(reader, QStringLiteral("%1 element not read to its end").arg(elementName()));
        return false;
    }
    return true;
}

QString Response::toString() const
{
    QString text;
    QXmlStreamWriter writer(&text);
    writer.writeStartDocument();
    writeXml(writer);
    writer.writeEndDocument();
    return text;
}

bool Response::fromString(const QString& text, QString* error)
{
    QXmlStreamReader reader(text);
    if (!reader.readNextStartElement()) {
        *error = xmlReadError(reader, QStringLiteral("no element in the text"));
        return false;
    }
    return readXml(reader, error);
}

bool Response::merge(const Response&)
{
    return false;
}

bool Response::readNextStartElement(QXmlStreamReader& reader)
{
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::StartElement)
            return true;
    }
    return false;
}

ResponseFactoryPlugin::~ResponseFactoryPlugin() = default;

Response* ResponseFactoryPlugin::readResponse(QXmlStreamReader& reader, QString* error) const
{
    if (!reader.isStartElement()) {
        *error = xmlReadError(reader, QStringLiteral("not at the start of a response element"));
        return nullptr;
    }
    Response* response = createResponse(reader.name().toString());
    if (!response) {
        *error = QStringLiteral("unknown response \"%1\"").arg(reader.name().toString());
        return nullptr;
    }
    if (!response->readXml(reader, error)) {
        delete response;
        return nullptr;
    }
    return response;
}

Response* ResponseFactoryPlugin::fromXml(const QByteArray& xml, QString* error) const
{
    QXmlStreamReader reader(xml);
    if (!reader.readNextStartElement()) {
        *error = xmlReadError(reader, QStringLiteral("no response element in the message"));
        return nullptr;
    }
    Response* response = readResponse(reader, error);
    if (!response)
        return nullptr;
    // Anything after the element but whitespace makes the message malformed.
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() || (reader.isCharacters() && !reader.isWhitespace())) {
            *error = QStringLiteral("unexpected content after the %1 element").arg(response->elementName());
            delete response;
            return nullptr;
        }
    }
    if (reader.hasError() && reader.error() != QXmlStreamReader::PrematureEndOfDocumentError) {
        *error = xmlReadError(reader, QString());
        delete response;
        return nullptr;
    }
    return response;
}
