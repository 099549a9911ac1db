#include "saxhandler.h"

#include "xmlreading.h"

#include <QXmlStreamReader>

SaxAttributes::SaxAttributes(const QXmlStreamAttributes& attributes)
{
    mEntries.reserve(attributes.size());
    for (const QXmlStreamAttribute& attribute : attributes)
        append(attribute.qualifiedName().toString(), attribute.value().toString());
}

int SaxAttributes::index(const QString& qName) const
{
    for (int i = 0; i < mEntries.size(); ++i) {
        if (mEntries.at(i).first == qName)
            return i;
    }
    return -1;
}

QString SaxAttributes::value(const QString& qName) const
{
    const int i = index(qName);
    return i < 0 ? QString() : mEntries.at(i).second;
}

SaxHandler::~SaxHandler() {}

SaxHandler* SaxHandler::getNestedStruct(const QString&)
{
    return nullptr;
}

void SaxHandler::nestedResponse(const QString&, SaxHandler*) {}

void SaxHandler::readAttributes(const QString&, const SaxAttributes&) {}

void SaxHandler::readParam(const QString&, const QString&) {}

void SaxHandler::readListItem(const QString&, const QString&) {}

bool SaxHandler::parseElement(QXmlStreamReader& reader, QString* error)
{
    readAttributes(reader.name().toString(), SaxAttributes(reader.attributes()));
    while (readNextStartElement(reader)) {
        const QString name = reader.name().toString();
        if (SaxHandler* nested = getNestedStruct(name)) {
            if (!nested->parseElement(reader, error))
                return false;
            nestedResponse(name, nested);
            continue;
        }
        // A simple element gives its text; one with children is a list
        // whose items give theirs.
        QString text;
        bool isList = false;
        while (!reader.atEnd()) {
            const QXmlStreamReader::TokenType token = reader.readNext();
            if (token == QXmlStreamReader::StartElement) {
                isList = true;
                readListItem(name, reader.readElementText(QXmlStreamReader::IncludeChildElements));
            } else if (token == QXmlStreamReader::Characters) {
                text += reader.text();
            } else if (token == QXmlStreamReader::EndElement) {
                break;
            }
        }
        if (!isList)
            readParam(name, text);
    }
    if (reader.hasError()) {
        if (error)
            *error = reader.errorString();
        return false;
    }
    return true;
}
