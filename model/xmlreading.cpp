#include "xmlreading.h"

#include <QXmlStreamReader>

bool readNextStartElement(QXmlStreamReader& reader)
{
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::StartElement:
            return true;
        case QXmlStreamReader::EndElement:
            return false;
        default:
            break;
        }
    }
    return false;
}
