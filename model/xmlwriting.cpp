#include "xmlwriting.h"

#include <QBuffer>
#include <QTextCodec>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>
#include <cstring>

XmlWriter::XmlWriter(QByteArray* out) : mOut(out) {}

void XmlWriter::finishStartElement()
{
    if (mInStartElement) {
        mOut->append('>');
        mInStartElement = false;
    }
}

int XmlWriter::mark()
{
    finishStartElement();
    return mOut->size();
}

void XmlWriter::rewind(int mark)
{
    if (mark >= 0 && mark <= mOut->size() && !mInStartElement)
        mOut->resize(mark);
}

void XmlWriter::startElement(QLatin1String name)
{
    finishStartElement();
    mOut->append('<');
    mOut->append(name.data(), name.size());
    mOpen.append(name);
    mInStartElement = true;
}

void XmlWriter::endElement()
{
    if (mOpen.isEmpty())
        return;
    const QLatin1String name = mOpen.last();
    mOpen.removeLast();
    if (mInStartElement) {
        mOut->append("/>", 2);
        mInStartElement = false;
        return;
    }
    mOut->append("</", 2);
    mOut->append(name.data(), name.size());
    mOut->append('>');
}

void XmlWriter::attribute(QLatin1String name, const QString& value)
{
    mOut->append(' ');
    mOut->append(name.data(), name.size());
    mOut->append("=\"", 2);
    escaped(value, true);
    mOut->append('"');
}

void XmlWriter::attribute(QLatin1String name, QLatin1String value)
{
    attribute(name, QString(value));
}

void XmlWriter::attribute(QLatin1String name, qlonglong value)
{
    if (value < 0) {
        mOut->append(' ');
        mOut->append(name.data(), name.size());
        mOut->append("=\"-", 3);
        // The magnitude of the smallest value only fits unsigned.
        const qulonglong magnitude = qulonglong(0) - qulonglong(value);
        char digits[24];
        int n = 0;
        qulonglong rest = magnitude;
        do {
            digits[n++] = char('0' + rest % 10);
            rest /= 10;
        } while (rest != 0);
        while (n > 0)
            mOut->append(digits[--n]);
        mOut->append('"');
        return;
    }
    attribute(name, qulonglong(value));
}

void XmlWriter::attribute(QLatin1String name, qulonglong value)
{
    char text[24];
    int n = sizeof(text);
    do {
        text[--n] = char('0' + value % 10);
        value /= 10;
    } while (value != 0);
    mOut->append(' ');
    mOut->append(name.data(), name.size());
    mOut->append("=\"", 2);
    mOut->append(text + n, int(sizeof(text)) - n);
    mOut->append('"');
}

void XmlWriter::plainAttribute(QLatin1String name, const QByteArray& value)
{
    mOut->append(' ');
    mOut->append(name.data(), name.size());
    mOut->append("=\"", 2);
    mOut->append(value);
    mOut->append('"');
}

void XmlWriter::characters(const QString& text)
{
    finishStartElement();
    escaped(text, false);
}

void XmlWriter::textElement(QLatin1String name, const QString& text)
{
    startElement(name);
    characters(text);
    endElement();
}

void XmlWriter::escaped(const QString& text, bool inAttribute)
{
    const ushort* chars = text.utf16();
    const int size = text.size();
    // Room for the longest escape of every character; cut back after.
    const int before = mOut->size();
    mOut->resize(before + 6 * size);
    char* out = mOut->data() + before;
    const auto put = [&out](const char* literal, int length) {
        memcpy(out, literal, size_t(length));
        out += length;
    };
    for (int i = 0; i < size; ++i) {
        const ushort c = chars[i];
        if (c >= 0x20 && c < 0x80) {
            switch (c) {
            case '<': put("&lt;", 4); break;
            case '>': put("&gt;", 4); break;
            case '&': put("&amp;", 5); break;
            case '"': put("&quot;", 6); break;
            default: *out++ = char(c); break;
            }
        } else if (c == '\t') {
            inAttribute ? put("&#9;", 4) : void(*out++ = '\t');
        } else if (c == '\n') {
            inAttribute ? put("&#10;", 5) : void(*out++ = '\n');
        } else if (c == '\r') {
            inAttribute ? put("&#13;", 5) : void(*out++ = '\r');
        } else if (c < 0x20 || c == 0xfffe || c == 0xffff) {
            // Characters that XML can't carry are left out, as
            // QXmlStreamWriter leaves them out.
        } else if (c < 0x800) {
            *out++ = char(0xc0 | (c >> 6));
            *out++ = char(0x80 | (c & 0x3f));
        } else if (QChar::isHighSurrogate(c) && i + 1 < size && QChar::isLowSurrogate(chars[i + 1])) {
            const uint u = QChar::surrogateToUcs4(c, chars[++i]);
            *out++ = char(0xf0 | (u >> 18));
            *out++ = char(0x80 | ((u >> 12) & 0x3f));
            *out++ = char(0x80 | ((u >> 6) & 0x3f));
            *out++ = char(0x80 | (u & 0x3f));
        } else if (!QChar::isSurrogate(c)) { // half a pair means nothing
            *out++ = char(0xe0 | (c >> 12));
            *out++ = char(0x80 | ((c >> 6) & 0x3f));
            *out++ = char(0x80 | (c & 0x3f));
        }
    }
    mOut->resize(int(out - mOut->constData()));
}

void XmlWriter::viaStreamWriter(const std::function<void(QXmlStreamWriter&)>& write)
{
    finishStartElement();
    QByteArray part;
    {
        QXmlStreamWriter writer(&part);
        write(writer);
    }
    mOut->append(part);
}

void writeRawXml(QXmlStreamWriter& writer, const QByteArray& elements)
{
    if (elements.isEmpty())
        return;
    QIODevice* device = writer.device();
    if (device && !writer.autoFormatting() && (!writer.codec() || writer.codec()->mibEnum() == 106)) {
        // Empty characters close a start tag left open, and write nothing else.
        writer.writeCharacters(QString());
        device->write(elements);
        return;
    }
    // A writer into a string, or one that formats: token by token. The
    // elements may be several, side by side: they are read inside a root of
    // their own, which isn't written.
    QXmlStreamReader reader(QByteArray("<r>") + elements + QByteArray("</r>"));
    int depth = 0;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.hasError())
            break;
        if (reader.isStartElement() && depth++ == 0)
            continue;
        if (reader.isEndElement() && --depth == 0)
            continue;
        if (reader.tokenType() != QXmlStreamReader::StartDocument && reader.tokenType() != QXmlStreamReader::EndDocument)
            writer.writeCurrentToken(reader);
    }
}
