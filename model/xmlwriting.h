// Writing the bulk XML forms of the model (call trees, samples) straight
// into UTF-8 bytes. The output is byte for byte what QXmlStreamWriter writes
// for the same calls, so readers and the wire form don't change; it is
// several times faster, since QXmlStreamWriter encodes and writes every
// name, attribute and escape through a codec and a device on its own.
#ifndef ZOR_XMLWRITING_H
#define ZOR_XMLWRITING_H

#include <QByteArray>
#include <QLatin1String>
#include <QString>
#include <QVarLengthArray>
#include <functional>

class QXmlStreamWriter;

class XmlWriter
{
public:
    // Appends to out, which must outlive the writer.
    explicit XmlWriter(QByteArray* out);

    void startElement(QLatin1String name);
    void attribute(QLatin1String name, const QString& value);
    void attribute(QLatin1String name, QLatin1String value);
    void attribute(QLatin1String name, qlonglong value);
    void attribute(QLatin1String name, qulonglong value);
    void attribute(QLatin1String name, int value) { attribute(name, qlonglong(value)); }
    void attribute(QLatin1String name, uint value) { attribute(name, qulonglong(value)); }
    // A value that the caller knows needs no escaping: digits and signs.
    void plainAttribute(QLatin1String name, const QByteArray& value);
    void characters(const QString& text);
    void textElement(QLatin1String name, const QString& text);
    // Closes the innermost element: "/>" where it has no content yet.
    void endElement();
    // For the rare parts that QXmlStreamWriter still writes: what `write`
    // writes there lands here, in place.
    void viaStreamWriter(const std::function<void(QXmlStreamWriter&)>& write);

    QByteArray& bytes() { return *mOut; }
    // Where the next element will start; the elements written after it can
    // be taken back with rewind, once they are all closed.
    int mark();
    void rewind(int mark);

private:
    void finishStartElement();
    void escaped(const QString& text, bool inAttribute);

    QByteArray* mOut;
    // Names are the callers' literals; only their pointers are kept.
    QVarLengthArray<QLatin1String, 64> mOpen;
    bool mInStartElement = false;
};

// Writes complete elements, as bytes of UTF-8, into writer at its current
// place, as if writer had written them itself.
void writeRawXml(QXmlStreamWriter& writer, const QByteArray& elements);

#endif
