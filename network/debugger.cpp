#include "debugger.h"

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

void StatusResponse::writeContent(QXmlStreamWriter& writer) const
{
    writer.writeAttribute(QStringLiteral("state"), QString::number(mState));
}

bool StatusResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    bool ok = false;
    mState = reader.attributes().value(QLatin1String("state")).toInt(&ok);
    if (!ok) {
        *error = QStringLiteral("status without a state");
        return false;
    }
    reader.skipCurrentElement();
    return !reader.hasError();
}
