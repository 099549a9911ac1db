// Reading the XML forms of the model: a helper for QXmlStreamReader, and a
// reader of our own for the bulk forms (blocks of samples and their trees).
#ifndef ZOR_XMLREADING_H
#define ZOR_XMLREADING_H

#include <QByteArray>
#include <QHash>
#include <QLatin1String>
#include <QString>

#include <cstring>
#include <string>
#include <vector>

class QXmlStreamReader;

// Reads on to the next start element inside the current element. Returns
// true there, and false on reaching the current element's end, the end of
// the input or an error; the reader's error tells which.
bool readNextStartElement(QXmlStreamReader& reader);

// Reads the XML that our writers make several times faster than
// QXmlStreamReader: elements, attributes in double quotes, the five named
// entities and character references, text in elements that hold only text,
// whitespace between elements, and the XML declaration that starts a
// document. Whatever else it meets (comments, CDATA, processing
// instructions, a DOCTYPE, namespace prefixes, single quotes, text beside
// elements, a line break left raw in an attribute), and anything malformed,
// stops it with an error: the caller then reads the same bytes with
// QXmlStreamReader, which knows all of XML and says what is wrong.
class FastXmlReader
{
public:
    // An attribute's value with its references replaced, as UTF-8; null
    // data where the attribute is absent.
    struct Value
    {
        const char* data = nullptr;
        int size = 0;

        bool isNull() const { return !data; }
        bool operator==(QLatin1String text) const
        {
            return data && size == text.size() && memcmp(data, text.data(), size_t(size)) == 0;
        }
        QString toString() const { return QString::fromUtf8(data, size); }
        // Plain decimal numbers only ("-12", not "+12", " 12" or "0x1f"),
        // within the type's range; false otherwise.
        bool toLongLong(qlonglong* value) const;
        bool toULongLong(qulonglong* value) const;
        bool toInt(int* value) const;
    };

    // The bytes must outlive the reader.
    explicit FastXmlReader(const QByteArray& xml);

    // As readNextStartElement above.
    bool readNextStartElement();
    // Reads through the end of the current element.
    void skipCurrentElement();
    // The text of the current element, which holds nothing else; the
    // reader is then at its end.
    bool readElementText(QString* text);
    // True once only whitespace follows the root element's end.
    bool atDocumentEnd();

    bool nameIs(QLatin1String name) const
    {
        return mName.size == name.size() && memcmp(mName.data, name.data(), size_t(name.size())) == 0;
    }
    QLatin1String name() const { return QLatin1String(mName.data, mName.size); }
    // Of the current start element.
    Value attribute(QLatin1String name) const;
    // The value as a string that shares its storage with every equal value
    // this reader gave out the same way (function and file names repeat
    // in every sample), made by `intern` the first time.
    QString sharedString(const Value& value, QString (*intern)(const QString&));

    bool hasError() const { return !mError.isEmpty(); }
    // What stopped the reader and where ("byte 120: ...").
    QString errorString() const { return mError; }
    // Stops the reader: for values the caller finds wrong.
    void raiseError(const QString& message);

private:
    enum Token { None, StartElement, EndElement, DocumentEnd, Error };
    struct Attribute
    {
        Value name;
        Value value;
    };

    Token readNext();
    bool readStartTag();
    bool readEndTag();
    bool readName(Value* name);
    // Reads up to `end` (the closing quote or '<') into out, references
    // replaced; `inAttribute` for the rules of attribute values.
    bool readCharacters(char end, bool inAttribute, std::string* out);
    bool readReference(std::string* out);
    bool fail(const char* message);
    void skipSpace();

    const char* mBegin;
    const char* mPos;
    const char* mEnd;
    Token mToken = None;
    Value mName;
    // The start element just read closed itself: its end comes next.
    bool mEmptyElement = false;
    bool mRootSeen = false;
    std::vector<Value> mOpen;
    std::vector<Attribute> mAttributes;
    // Which attributes of the current start element had references, and
    // where in mDecoded their values lie.
    std::string mDecoded;
    std::vector<std::pair<size_t, size_t>> mDecodedRanges;
    QHash<QByteArray, QString> mShared;
    QString mError;
};

#endif
