#include "miparser.h"

namespace {

bool parseValue(const QByteArray& text, int* pos, MiValue* value);

// name=value pairs up to `close`, or bare values in a list.
bool parseItems(const QByteArray& text, int* pos, char close, MiValue* value)
{
    ++*pos;
    while (*pos < text.size() && text[*pos] != close) {
        QString name;
        if (text[*pos] != '"' && text[*pos] != '{' && text[*pos] != '[') {
            const int eq = text.indexOf('=', *pos);
            if (eq < 0)
                return false;
            name = QString::fromLatin1(text.mid(*pos, eq - *pos));
            *pos = eq + 1;
        }
        MiValue item;
        if (!parseValue(text, pos, &item))
            return false;
        value->items.append(qMakePair(name, item));
        if (*pos < text.size() && text[*pos] == ',')
            ++*pos;
    }
    if (*pos >= text.size())
        return false;
    ++*pos;
    return true;
}

bool parseValue(const QByteArray& text, int* pos, MiValue* value)
{
    if (*pos >= text.size())
        return false;
    const char c = text[*pos];
    if (c == '"') {
        QByteArray bytes;
        if (!parseCString(text, pos, &bytes))
            return false;
        value->kind = MiValue::String;
        value->text = QString::fromUtf8(bytes);
        return true;
    }
    if (c == '{') {
        value->kind = MiValue::Tuple;
        return parseItems(text, pos, '}', value);
    }
    if (c == '[') {
        value->kind = MiValue::List;
        return parseItems(text, pos, ']', value);
    }
    return false;
}

} // namespace

MiValue MiValue::operator[](const QString& name) const
{
    for (const auto& item : items) {
        if (item.first == name)
            return item.second;
    }
    return MiValue();
}

bool parseCString(const QByteArray& text, int* pos, QByteArray* value)
{
    if (*pos >= text.size() || text[*pos] != '"')
        return false;
    int i = *pos + 1;
    value->clear();
    while (i < text.size() && text[i] != '"') {
        char c = text[i++];
        if (c == '\\' && i < text.size()) {
            c = text[i++];
            switch (c) {
            case 'n': c = '\n'; break;
            case 't': c = '\t'; break;
            case 'r': c = '\r'; break;
            case 'a': c = '\a'; break;
            case 'b': c = '\b'; break;
            case 'f': c = '\f'; break;
            case 'v': c = '\v'; break;
            case 'e': c = '\033'; break;
            default:
                if (c >= '0' && c <= '7') {
                    int code = c - '0';
                    for (int k = 0; k < 2 && i < text.size() && text[i] >= '0' && text[i] <= '7'; ++k)
                        code = code * 8 + (text[i++] - '0');
                    c = char(code);
                }
                break;
            }
        }
        value->append(c);
    }
    if (i >= text.size())
        return false;
    *pos = i + 1;
    return true;
}

bool parseMiLine(const QByteArray& rawLine, MiRecord* record)
{
    QByteArray line = rawLine;
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    *record = MiRecord();
    int pos = 0;
    while (pos < line.size() && line[pos] >= '0' && line[pos] <= '9')
        ++pos;
    if (pos > 0)
        record->token = line.left(pos).toInt();
    if (pos >= line.size())
        return false;
    const char type = line[pos];
    switch (type) {
    case '~':
    case '@':
    case '&': {
        ++pos;
        QByteArray text;
        if (!parseCString(line, &pos, &text))
            return false;
        record->type = type;
        record->stream = QString::fromUtf8(text);
        return true;
    }
    case '^':
    case '*':
    case '+':
    case '=': {
        ++pos;
        const int comma = line.indexOf(',', pos);
        const int end = comma < 0 ? line.size() : comma;
        record->type = type;
        record->className = QString::fromLatin1(line.mid(pos, end - pos));
        record->results.kind = MiValue::Tuple;
        if (comma < 0)
            return true;
        // The results are a tuple without its braces.
        const QByteArray braced = '{' + line.mid(comma + 1) + '}';
        int at = 0;
        return parseItems(braced, &at, '}', &record->results);
    }
    default:
        return false;
    }
}

QString miQuote(const QString& text)
{
    QString quoted = QStringLiteral("\"");
    for (const QChar c : text) {
        if (c == QLatin1Char('"') || c == QLatin1Char('\\'))
            quoted += QLatin1Char('\\');
        if (c == QLatin1Char('\n'))
            quoted += QStringLiteral("\\n");
        else
            quoted += c;
    }
    return quoted + QLatin1Char('"');
}
