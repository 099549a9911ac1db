#include "xmlreading.h"

#include <QXmlStreamReader>

#include <cstring>
#include <limits>
#include <type_traits>

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

namespace {

// What QXmlStreamWriter writes first; any other declaration goes to Qt's reader.
const char Declaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool isNameStart(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool isNameChar(char c)
{
    return isNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

bool isXmlChar(unsigned int c)
{
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD)
        || (c >= 0x10000 && c <= 0x10FFFF);
}

// The length of the UTF-8 sequence at p for a character XML allows; 0 for
// anything else (a stray or overlong byte, a surrogate, U+FFFE).
int utf8Length(const unsigned char* p, const unsigned char* end)
{
    int length = 0;
    unsigned int c = 0;
    if (p[0] < 0x80)
        return 1;
    if ((p[0] & 0xE0) == 0xC0) {
        length = 2;
        c = p[0] & 0x1F;
    } else if ((p[0] & 0xF0) == 0xE0) {
        length = 3;
        c = p[0] & 0x0F;
    } else if ((p[0] & 0xF8) == 0xF0) {
        length = 4;
        c = p[0] & 0x07;
    } else {
        return 0;
    }
    if (end - p < length)
        return 0;
    for (int i = 1; i < length; ++i) {
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        c = (c << 6) | (p[i] & 0x3F);
    }
    static const unsigned int least[] = {0, 0, 0x80, 0x800, 0x10000};
    return c >= least[length] && isXmlChar(c) ? length : 0;
}

void appendUtf8(unsigned int c, std::string* out)
{
    if (c < 0x80) {
        out->push_back(char(c));
    } else if (c < 0x800) {
        out->push_back(char(0xC0 | (c >> 6)));
        out->push_back(char(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out->push_back(char(0xE0 | (c >> 12)));
        out->push_back(char(0x80 | ((c >> 6) & 0x3F)));
        out->push_back(char(0x80 | (c & 0x3F)));
    } else {
        out->push_back(char(0xF0 | (c >> 18)));
        out->push_back(char(0x80 | ((c >> 12) & 0x3F)));
        out->push_back(char(0x80 | ((c >> 6) & 0x3F)));
        out->push_back(char(0x80 | (c & 0x3F)));
    }
}

template <typename T>
bool parseDecimal(const char* p, int size, T* value)
{
    bool negative = false;
    if (size > 0 && *p == '-' && std::numeric_limits<T>::is_signed) {
        negative = true;
        ++p;
        --size;
    }
    if (size <= 0)
        return false;
    // Accumulated as a negative number where signed, whose range is wider.
    using Wide = typename std::conditional<std::numeric_limits<T>::is_signed, long long, unsigned long long>::type;
    Wide result = 0;
    for (int i = 0; i < size; ++i) {
        const char c = p[i];
        if (c < '0' || c > '9')
            return false;
        const int digit = c - '0';
        if (std::numeric_limits<T>::is_signed) {
            if (result < (std::numeric_limits<T>::min() + digit) / 10)
                return false;
            result = result * 10 - digit;
        } else {
            if (result > (std::numeric_limits<T>::max() - Wide(digit)) / 10)
                return false;
            result = result * 10 + Wide(digit);
        }
    }
    if (std::numeric_limits<T>::is_signed && !negative) {
        if (result < -Wide(std::numeric_limits<T>::max()))
            return false;
        result = -result;
    }
    *value = T(result);
    return true;
}

} // namespace

bool FastXmlReader::Value::toLongLong(qlonglong* value) const
{
    return data && parseDecimal(data, size, value);
}

bool FastXmlReader::Value::toULongLong(qulonglong* value) const
{
    return data && parseDecimal(data, size, value);
}

bool FastXmlReader::Value::toInt(int* value) const
{
    return data && parseDecimal(data, size, value);
}

FastXmlReader::FastXmlReader(const QByteArray& xml)
    : mBegin(xml.constData())
    , mPos(xml.constData())
    , mEnd(xml.constData() + xml.size())
{
    const size_t declaration = sizeof(Declaration) - 1;
    if (size_t(mEnd - mPos) >= declaration && memcmp(mPos, Declaration, declaration) == 0)
        mPos += declaration;
}

bool FastXmlReader::fail(const char* message)
{
    if (mError.isEmpty())
        mError = QStringLiteral("byte %1: %2").arg(mPos - mBegin).arg(QLatin1String(message));
    mToken = Error;
    return false;
}

void FastXmlReader::raiseError(const QString& message)
{
    if (mError.isEmpty())
        mError = QStringLiteral("byte %1: %2").arg(mPos - mBegin).arg(message);
    mToken = Error;
}

void FastXmlReader::skipSpace()
{
    while (mPos < mEnd && isSpace(*mPos))
        ++mPos;
}

bool FastXmlReader::readName(Value* name)
{
    const char* start = mPos;
    if (mPos >= mEnd || !isNameStart(*mPos))
        return fail(mPos < mEnd && *mPos == ':' ? "a namespace prefix" : "a name expected");
    ++mPos;
    while (mPos < mEnd && isNameChar(*mPos))
        ++mPos;
    if (mPos < mEnd && *mPos == ':')
        return fail("a namespace prefix");
    name->data = start;
    name->size = int(mPos - start);
    return true;
}

bool FastXmlReader::readReference(std::string* out)
{
    // mPos is at '&'.
    const char* semicolon = static_cast<const char*>(memchr(mPos, ';', size_t(std::min<ptrdiff_t>(mEnd - mPos, 12))));
    if (!semicolon)
        return fail("an unterminated or unknown reference");
    const char* name = mPos + 1;
    const int length = int(semicolon - name);
    static const struct
    {
        const char* name;
        char c;
    } named[] = {{"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto& entity : named) {
        if (length == int(strlen(entity.name)) && memcmp(name, entity.name, size_t(length)) == 0) {
            out->push_back(entity.c);
            mPos = semicolon + 1;
            return true;
        }
    }
    if (length < 2 || name[0] != '#')
        return fail("an unknown entity");
    const bool hex = name[1] == 'x';
    const char* digits = name + (hex ? 2 : 1);
    if (digits >= semicolon)
        return fail("an empty character reference");
    unsigned int c = 0;
    for (const char* p = digits; p < semicolon; ++p) {
        int digit = -1;
        if (*p >= '0' && *p <= '9')
            digit = *p - '0';
        else if (hex && *p >= 'a' && *p <= 'f')
            digit = *p - 'a' + 10;
        else if (hex && *p >= 'A' && *p <= 'F')
            digit = *p - 'A' + 10;
        if (digit < 0 || c > 0x10FFFF)
            return fail("a bad character reference");
        c = c * (hex ? 16 : 10) + unsigned(digit);
    }
    if (!isXmlChar(c))
        return fail("a character reference to a character XML doesn't allow");
    appendUtf8(c, out);
    mPos = semicolon + 1;
    return true;
}

bool FastXmlReader::readCharacters(char end, bool inAttribute, std::string* out)
{
    while (mPos < mEnd && *mPos != end) {
        const unsigned char c = static_cast<unsigned char>(*mPos);
        if (c == '&') {
            if (!readReference(out))
                return false;
            continue;
        }
        if (c == '<')
            return fail(inAttribute ? "'<' in an attribute value" : "an element inside text");
        // Qt's reader turns these into spaces in attributes and CR LF into LF
        // in text; ours never leaves them raw.
        if (c == '\r' || (inAttribute && (c == '\n' || c == '\t')))
            return fail("a raw line break or tab");
        if (c < 0x20 && c != '\n' && c != '\t')
            return fail("a control character");
        if (!inAttribute && c == '>' && mPos - mBegin >= 2 && mPos[-1] == ']' && mPos[-2] == ']')
            return fail("']]>' in text");
        const int length = utf8Length(reinterpret_cast<const unsigned char*>(mPos),
                                      reinterpret_cast<const unsigned char*>(mEnd));
        if (length == 0)
            return fail("a byte that isn't UTF-8 of a character XML allows");
        out->append(mPos, size_t(length));
        mPos += length;
    }
    if (mPos >= mEnd)
        return fail(inAttribute ? "an unterminated attribute value" : "the document ends inside an element");
    return true;
}

bool FastXmlReader::readStartTag()
{
    // mPos is past '<'.
    if (!readName(&mName))
        return false;
    mAttributes.clear();
    mDecoded.clear();
    mDecodedRanges.clear();
    for (;;) {
        const char* before = mPos;
        skipSpace();
        if (mPos >= mEnd)
            return fail("the document ends inside a start tag");
        if (*mPos == '>' || *mPos == '/')
            break;
        if (mPos == before)
            return fail("no space before an attribute");
        Attribute attribute;
        if (!readName(&attribute.name))
            return false;
        for (const Attribute& other : mAttributes) {
            if (other.name.size == attribute.name.size
                && memcmp(other.name.data, attribute.name.data, size_t(attribute.name.size)) == 0)
                return fail("an attribute given twice");
        }
        skipSpace();
        if (mPos >= mEnd || *mPos != '=')
            return fail("'=' expected after an attribute's name");
        ++mPos;
        skipSpace();
        if (mPos >= mEnd || *mPos != '"')
            return fail(mPos < mEnd && *mPos == '\'' ? "an attribute value in single quotes" : "'\"' expected");
        ++mPos;
        // Plain values, the most, are used where they lie.
        const char* start = mPos;
        while (mPos < mEnd && *mPos != '"' && static_cast<unsigned char>(*mPos) >= 0x20
               && static_cast<unsigned char>(*mPos) < 0x80 && *mPos != '&' && *mPos != '<')
            ++mPos;
        if (mPos < mEnd && *mPos == '"') {
            attribute.value.data = start;
            attribute.value.size = int(mPos - start);
        } else {
            mPos = start;
            const size_t offset = mDecoded.size();
            if (!readCharacters('"', true, &mDecoded))
                return false;
            mDecodedRanges.emplace_back(mAttributes.size(), offset);
            attribute.value.size = int(mDecoded.size() - offset);
        }
        ++mPos; // the closing quote
        mAttributes.push_back(attribute);
    }
    for (const auto& range : mDecodedRanges)
        mAttributes[range.first].value.data = mDecoded.data() + range.second;
    mEmptyElement = *mPos == '/';
    if (mEmptyElement) {
        ++mPos;
        if (mPos >= mEnd || *mPos != '>')
            return fail("'>' expected after '/'");
    }
    ++mPos;
    if (mOpen.empty()) {
        if (mRootSeen)
            return fail("a second root element");
        mRootSeen = true;
    }
    mOpen.push_back(mName);
    mToken = StartElement;
    return true;
}

bool FastXmlReader::readEndTag()
{
    // mPos is past "</".
    Value name;
    if (!readName(&name))
        return false;
    skipSpace();
    if (mPos >= mEnd || *mPos != '>')
        return fail("'>' expected in an end tag");
    ++mPos;
    if (mOpen.empty() || mOpen.back().size != name.size || memcmp(mOpen.back().data, name.data, size_t(name.size)) != 0)
        return fail("an end tag that doesn't match its start");
    mName = name;
    mOpen.pop_back();
    mToken = EndElement;
    return true;
}

FastXmlReader::Token FastXmlReader::readNext()
{
    if (mToken == Error || mToken == DocumentEnd)
        return mToken;
    if (mEmptyElement) {
        mEmptyElement = false;
        mName = mOpen.back();
        mOpen.pop_back();
        return mToken = EndElement;
    }
    skipSpace();
    if (mPos >= mEnd) {
        if (!mOpen.empty() || !mRootSeen) {
            fail("the document ends inside an element");
            return mToken;
        }
        return mToken = DocumentEnd;
    }
    if (*mPos != '<') {
        fail(mOpen.empty() ? "content outside the root element" : "text beside elements");
        return mToken;
    }
    ++mPos;
    if (mPos < mEnd && *mPos == '/') {
        ++mPos;
        readEndTag();
        return mToken;
    }
    if (mPos < mEnd && (*mPos == '!' || *mPos == '?')) {
        fail("a comment, CDATA section, declaration or processing instruction");
        return mToken;
    }
    if (mOpen.empty() && mRootSeen) {
        fail("a second root element");
        return mToken;
    }
    readStartTag();
    return mToken;
}

bool FastXmlReader::readNextStartElement()
{
    switch (readNext()) {
    case StartElement:
        return true;
    default:
        return false;
    }
}

void FastXmlReader::skipCurrentElement()
{
    if (mToken != StartElement)
        return;
    size_t depth = mOpen.size();
    while (mOpen.size() >= depth) {
        if (readNext() == Error)
            return;
    }
}

bool FastXmlReader::readElementText(QString* text)
{
    if (mToken != StartElement)
        return fail("text read outside a start element");
    if (mEmptyElement) {
        readNext();
        text->clear();
        return true;
    }
    std::string bytes;
    if (!readCharacters('<', false, &bytes))
        return false;
    ++mPos;
    if (mPos >= mEnd || *mPos != '/')
        return fail("an element inside text");
    ++mPos;
    if (!readEndTag())
        return false;
    *text = QString::fromUtf8(bytes.data(), int(bytes.size()));
    return true;
}

bool FastXmlReader::atDocumentEnd()
{
    return readNext() == DocumentEnd;
}

FastXmlReader::Value FastXmlReader::attribute(QLatin1String name) const
{
    for (const Attribute& attribute : mAttributes) {
        if (attribute.name.size == name.size()
            && memcmp(attribute.name.data, name.data(), size_t(name.size())) == 0)
            return attribute.value;
    }
    return Value();
}

QString FastXmlReader::sharedString(const Value& value, QString (*intern)(const QString&))
{
    const QByteArray key = QByteArray::fromRawData(value.data, value.size);
    auto it = mShared.constFind(key);
    if (it != mShared.constEnd())
        return it.value();
    // The key is copied: decoded values don't stay where they lie.
    const QString shared = intern(value.toString());
    mShared.insert(QByteArray(value.data, value.size), shared);
    return shared;
}
