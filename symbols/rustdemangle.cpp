#include "rustdemangle.h"

#include <QStringList>

namespace {

// Rust's current scheme, "_R" and a path: a small grammar of tagged paths,
// types and constants, with back references to earlier parts. Printed as
// the language writes it, without the crates' hashes.
class V0Printer
{
public:
    explicit V0Printer(const QByteArray& text) : mText(text) {}

    bool symbol(QString* out)
    {
        if (peek() >= '0' && peek() <= '9' && !decimal(nullptr))
            return false;
        *out = path(true);
        return mOk && !out->isEmpty();
    }

private:
    char peek() const { return mPos < mText.size() ? mText.at(mPos) : '\0'; }
    char next() { return mPos < mText.size() ? mText.at(mPos++) : (mOk = false, '\0'); }
    bool eat(char c)
    {
        if (peek() != c)
            return false;
        ++mPos;
        return true;
    }

    bool decimal(int* value)
    {
        long long n = 0;
        if (!(peek() >= '0' && peek() <= '9'))
            return mOk = false;
        if (eat('0')) {
            if (value)
                *value = 0;
            return true;
        }
        while (peek() >= '0' && peek() <= '9') {
            n = n * 10 + (next() - '0');
            if (n > 1 << 20)
                return mOk = false;
        }
        if (value)
            *value = int(n);
        return true;
    }

    // Digits 0-9, a-z, A-Z and a closing "_"; "_" alone is 0, else one more.
    unsigned long long base62()
    {
        if (eat('_'))
            return 0;
        unsigned long long n = 0;
        for (;;) {
            const char c = next();
            if (c == '_')
                return n + 1;
            int digit;
            if (c >= '0' && c <= '9')
                digit = c - '0';
            else if (c >= 'a' && c <= 'z')
                digit = 10 + c - 'a';
            else if (c >= 'A' && c <= 'Z')
                digit = 36 + c - 'A';
            else
                return mOk = false, 0;
            n = n * 62 + digit;
        }
    }

    // A disambiguator's number: 0 without one.
    unsigned long long disambiguator() { return eat('s') ? base62() + 1 : 0; }

    QString identifier()
    {
        disambiguator();
        return plainIdentifier();
    }

    QString plainIdentifier()
    {
        const bool punycode = eat('u');
        int length = 0;
        if (!decimal(&length))
            return QString();
        eat('_');
        if (mPos + length > mText.size())
            return mOk = false, QString();
        const QString name = QString::fromUtf8(mText.mid(mPos, length));
        mPos += length;
        return punycode ? QStringLiteral("punycode{%1}").arg(name) : name;
    }

    // The text at a back reference, parsed where it points with `part`.
    template <typename Part>
    QString backref(Part part)
    {
        const int from = mPos - 1;
        const unsigned long long target = base62();
        if (!mOk || target >= unsigned(from) || ++mDepth > 100)
            return mOk = false, QString();
        const int saved = mPos;
        mPos = int(target);
        const QString text = part();
        mPos = saved;
        --mDepth;
        return text;
    }

    QString path(bool inValue)
    {
        if (!mOk || ++mDepth > 100)
            return mOk = false, QString();
        QString result;
        switch (next()) {
        case 'C':
            result = identifier();
            break;
        case 'M': {
            disambiguator();
            path(false);
            result = QLatin1Char('<') + type() + QLatin1Char('>');
            break;
        }
        case 'X': {
            disambiguator();
            path(false);
            const QString self = type();
            result = QStringLiteral("<%1 as %2>").arg(self, path(false));
            break;
        }
        case 'Y': {
            const QString self = type();
            result = QStringLiteral("<%1 as %2>").arg(self, path(false));
            break;
        }
        case 'N': {
            const char space = next();
            const QString parent = path(inValue);
            const unsigned long long index = disambiguator();
            const QString name = plainIdentifier();
            if (space == 'C')
                result = QStringLiteral("%1::{closure#%2}").arg(parent).arg(index);
            else if (space >= 'A' && space <= 'Z')
                result = QStringLiteral("%1::{%2%3#%4}")
                             .arg(parent, space == 'S' ? QStringLiteral("shim") : QString(QLatin1Char(space)),
                                  name.isEmpty() ? QString() : QLatin1Char(':') + name)
                             .arg(index);
            else
                result = parent + QStringLiteral("::") + name;
            break;
        }
        case 'I': {
            const QString base = path(inValue);
            QStringList arguments;
            while (mOk && !eat('E'))
                arguments << genericArgument();
            result = base + (inValue ? QStringLiteral("::<") : QStringLiteral("<")) + arguments.join(QLatin1String(", "))
                + QLatin1Char('>');
            break;
        }
        case 'B':
            result = backref([this, inValue] { return path(inValue); });
            break;
        default:
            mOk = false;
        }
        --mDepth;
        return result;
    }

    QString genericArgument()
    {
        if (eat('L')) {
            base62();
            return QStringLiteral("'_");
        }
        if (eat('K'))
            return constant();
        return type();
    }

    QString constant()
    {
        if (eat('B'))
            return backref([this] { return constant(); });
        if (eat('p'))
            return QStringLiteral("_");
        const char kind = next();
        const bool negative = eat('n');
        unsigned long long value = 0;
        while (mOk && !eat('_')) {
            const char c = next();
            const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? 10 + c - 'a' : -1;
            if (digit < 0)
                return mOk = false, QString();
            value = value * 16 + unsigned(digit);
        }
        if (kind == 'b')
            return value ? QStringLiteral("true") : QStringLiteral("false");
        if (kind == 'c')
            return QStringLiteral("'%1'").arg(QString(QChar(uint(value))));
        return (negative ? QStringLiteral("-") : QString()) + QString::number(value);
    }

    QString type()
    {
        if (!mOk || ++mDepth > 100)
            return mOk = false, QString();
        static const char* const basic[26] = {"i8",  "bool", "char", "f64", "str", "f32", nullptr, "u8",  "isize",
                                              "usize", nullptr, "i32", "u32", "i128", "u128", "_", nullptr, nullptr,
                                              "i16", "u16", "()", "...", nullptr, "i64", "u64", "!"};
        QString result;
        const char c = peek();
        if (c >= 'a' && c <= 'z' && basic[c - 'a']) {
            ++mPos;
            result = QLatin1String(basic[c - 'a']);
        } else if (c == 'C' || c == 'M' || c == 'X' || c == 'Y' || c == 'N' || c == 'I') {
            result = path(false);
        } else {
            switch (next()) {
            case 'A': {
                const QString element = type();
                result = QStringLiteral("[%1; %2]").arg(element, constant());
                break;
            }
            case 'S':
                result = QStringLiteral("[%1]").arg(type());
                break;
            case 'T': {
                QStringList elements;
                while (mOk && !eat('E'))
                    elements << type();
                result = QLatin1Char('(') + elements.join(QLatin1String(", "))
                    + (elements.size() == 1 ? QStringLiteral(",)") : QStringLiteral(")"));
                break;
            }
            case 'R':
            case 'Q': {
                const bool mut = mText.at(mPos - 1) == 'Q';
                if (eat('L'))
                    base62();
                result = (mut ? QStringLiteral("&mut ") : QStringLiteral("&")) + type();
                break;
            }
            case 'P':
                result = QStringLiteral("*const ") + type();
                break;
            case 'O':
                result = QStringLiteral("*mut ") + type();
                break;
            case 'F':
                result = functionType();
                break;
            case 'D': {
                if (eat('G'))
                    base62();
                QStringList traits;
                while (mOk && !eat('E')) {
                    QString trait = path(false);
                    QStringList bindings;
                    while (mOk && eat('p')) {
                        const QString name = plainIdentifier();
                        bindings << QStringLiteral("%1 = %2").arg(name, type());
                    }
                    if (!bindings.isEmpty()) {
                        if (trait.endsWith(QLatin1Char('>')))
                            trait = trait.left(trait.size() - 1) + QStringLiteral(", ") + bindings.join(QLatin1String(", ")) + QLatin1Char('>');
                        else
                            trait += QLatin1Char('<') + bindings.join(QLatin1String(", ")) + QLatin1Char('>');
                    }
                    traits << trait;
                }
                if (eat('L'))
                    base62();
                result = QStringLiteral("dyn ") + traits.join(QLatin1String(" + "));
                break;
            }
            case 'B':
                result = backref([this] { return type(); });
                break;
            default:
                mOk = false;
            }
        }
        --mDepth;
        return result;
    }

    QString functionType()
    {
        if (eat('G'))
            base62();
        QString prefix;
        if (eat('U'))
            prefix = QStringLiteral("unsafe ");
        if (eat('K'))
            prefix += eat('C') ? QStringLiteral("extern \"C\" ")
                               : QStringLiteral("extern \"%1\" ").arg(plainIdentifier().replace(QLatin1Char('_'), QLatin1Char('-')));
        QStringList arguments;
        while (mOk && !eat('E'))
            arguments << type();
        const QString returned = type();
        return prefix + QStringLiteral("fn(") + arguments.join(QLatin1String(", ")) + QLatin1Char(')')
            + (returned == QLatin1String("()") ? QString() : QStringLiteral(" -> ") + returned);
    }

    QByteArray mText;
    int mPos = 0;
    int mDepth = 0;
    bool mOk = true;
};

// The older scheme: an Itanium-style nested name whose last part is a hash,
// "h" and 16 hex digits, with punctuation spelled out in "$...$" and ".".
bool legacy(const QByteArray& text, QString* out)
{
    int pos = 3; // "_ZN"
    QList<QByteArray> parts;
    while (pos < text.size() && text.at(pos) != 'E') {
        int length = 0;
        while (pos < text.size() && text.at(pos) >= '0' && text.at(pos) <= '9')
            length = length * 10 + (text.at(pos++) - '0');
        if (length <= 0 || pos + length > text.size())
            return false;
        parts << text.mid(pos, length);
        pos += length;
    }
    if (pos >= text.size() || parts.size() < 2)
        return false;
    const QByteArray hash = parts.last();
    if (hash.size() != 17 || hash.at(0) != 'h')
        return false;
    for (int i = 1; i < hash.size(); ++i) {
        if (!isxdigit(static_cast<unsigned char>(hash.at(i))))
            return false;
    }
    parts.removeLast();
    static const struct {
        const char* code;
        const char* text;
    } escapes[] = {{"$SP$", "@"}, {"$BP$", "*"}, {"$RF$", "&"}, {"$LT$", "<"}, {"$GT$", ">"}, {"$LP$", "("},
                   {"$RP$", ")"}, {"$C$", ","}};
    QStringList names;
    for (QByteArray part : parts) {
        if (part.startsWith("_$"))
            part.remove(0, 1);
        QString name;
        for (int i = 0; i < part.size();) {
            if (part.mid(i, 2) == "..") {
                name += QStringLiteral("::");
                i += 2;
                continue;
            }
            if (part.at(i) == '$') {
                bool known = false;
                for (const auto& escape : escapes) {
                    if (part.mid(i).startsWith(escape.code)) {
                        name += QLatin1String(escape.text);
                        i += int(qstrlen(escape.code));
                        known = true;
                        break;
                    }
                }
                const int close = part.indexOf('$', i + 1);
                if (!known && part.mid(i, 2) == "$u" && close > i) {
                    bool ok = false;
                    const uint code = part.mid(i + 2, close - i - 2).toUInt(&ok, 16);
                    if (!ok)
                        return false;
                    name += QChar(code);
                    i = close + 1;
                    known = true;
                }
                if (!known)
                    return false;
                continue;
            }
            name += QLatin1Char(part.at(i++));
        }
        names << name;
    }
    *out = names.join(QLatin1String("::"));
    return true;
}

} // namespace

bool demangleRust(const QString& name, QString* demangled)
{
    // What follows the name (".llvm.123", which a compiler's passes append)
    // is left where the parsing ends.
    const QByteArray text = name.toLatin1();
    if (text.startsWith("_R")) {
        V0Printer printer(text.mid(2));
        return printer.symbol(demangled);
    }
    if (text.startsWith("_ZN"))
        return legacy(text, demangled);
    return false;
}
