#include "exception.h"

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

ExceptionBase::ExceptionBase(int code, const QString& message, ExceptionBase* nested, const char* file, int line)
    : mCode(code)
    , mMessage(message)
    , mNested(nested)
    , mFile(file ? QString::fromLatin1(file) : QString())
    , mLine(line)
{
}

ExceptionBase::ExceptionBase(const ExceptionBase& other)
    : mCode(other.mCode)
    , mMessage(other.mMessage)
    , mNested(other.mNested ? new ExceptionBase(*other.mNested) : nullptr)
    , mSource(other.mSource)
    , mFile(other.mFile)
    , mLine(other.mLine)
{
}

ExceptionBase& ExceptionBase::operator=(const ExceptionBase& other)
{
    if (this != &other) {
        ExceptionBase* nested = other.mNested ? new ExceptionBase(*other.mNested) : nullptr;
        delete mNested;
        mNested = nested;
        mCode = other.mCode;
        mMessage = other.mMessage;
        mSource = other.mSource;
        mFile = other.mFile;
        mLine = other.mLine;
    }
    return *this;
}

ExceptionBase::~ExceptionBase()
{
    delete mNested;
}

QString ExceptionBase::fullMessage() const
{
    QString text = mMessage;
    for (const ExceptionBase* cause = mNested; cause; cause = cause->mNested)
        text += QLatin1Char('\n') + cause->mMessage;
    return text;
}

void ExceptionBase::writeXml(QXmlStreamWriter& writer) const
{
    writer.writeStartElement(QStringLiteral("exception"));
    writer.writeAttribute(QStringLiteral("code"), QString::number(mCode));
    if (!mSource.isEmpty())
        writer.writeAttribute(QStringLiteral("source"), mSource);
    if (!mFile.isEmpty()) {
        writer.writeAttribute(QStringLiteral("file"), mFile);
        writer.writeAttribute(QStringLiteral("line"), QString::number(mLine));
    }
    writer.writeTextElement(QStringLiteral("message"), mMessage);
    if (mNested)
        mNested->writeXml(writer);
    writer.writeEndElement();
}

ExceptionBase* ExceptionBase::readXml(QXmlStreamReader& reader, QString* error)
{
    if (!reader.isStartElement() || reader.name() != QLatin1String("exception")) {
        *error = QStringLiteral("expected an exception element");
        return nullptr;
    }
    const QXmlStreamAttributes attributes = reader.attributes();
    bool ok = false;
    const int code = attributes.value(QLatin1String("code")).toInt(&ok);
    if (!ok) {
        *error = QStringLiteral("exception without a numeric code");
        return nullptr;
    }
    QString message;
    ExceptionBase* nested = nullptr;
    while (reader.readNextStartElement()) {
        if (reader.name() == QLatin1String("message")) {
            message = reader.readElementText();
        } else if (reader.name() == QLatin1String("exception") && !nested) {
            nested = readXml(reader, error);
            if (!nested)
                return nullptr;
        } else {
            reader.skipCurrentElement();
        }
    }
    if (reader.hasError()) {
        delete nested;
        *error = reader.errorString();
        return nullptr;
    }
    ExceptionBase* exception = new ExceptionBase(code, message, nested, nullptr, 0);
    exception->mSource = attributes.value(QLatin1String("source")).toString();
    exception->mFile = attributes.value(QLatin1String("file")).toString();
    exception->mLine = attributes.value(QLatin1String("line")).toInt();
    return exception;
}

Exception::Exception(int code, const QString& message, ExceptionBase* nested, const char* file, int line)
    : ExceptionBase(code, message, nested, file, line)
{
}

Exception::Exception(const ExceptionBase& other)
    : ExceptionBase(other)
{
}
