#include "procparse.h"

namespace zorsampler {

const char* skipSpaces(const char* p)
{
    while (*p == ' ' || *p == '\t')
        ++p;
    return p;
}

const char* parseDecimal(const char* p, std::uint64_t& value)
{
    if (*p < '0' || *p > '9')
        return nullptr;
    value = 0;
    while (*p >= '0' && *p <= '9')
        value = value * 10 + static_cast<std::uint64_t>(*p++ - '0');
    return p;
}

namespace {

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

const char* parseHex(const char* p, std::uint64_t& value)
{
    if (hexDigit(*p) < 0)
        return nullptr;
    value = 0;
    for (int digit; (digit = hexDigit(*p)) >= 0; ++p)
        value = value * 16 + static_cast<std::uint64_t>(digit);
    return p;
}

bool startsWith(const char* text, const char* prefix)
{
    while (*prefix) {
        if (*text++ != *prefix++)
            return false;
    }
    return true;
}

bool parseResidentPages(const char* text, std::uint64_t& pages)
{
    std::uint64_t size = 0;
    const char* p = parseDecimal(skipSpaces(text), size);
    if (!p || *p != ' ')
        return false;
    return parseDecimal(skipSpaces(p), pages) != nullptr;
}

bool parseIoCounters(const char* text, std::uint64_t& charsRead, std::uint64_t& charsWritten)
{
    bool haveRead = false;
    bool haveWritten = false;
    for (const char* line = text; *line;) {
        if (startsWith(line, "rchar:"))
            haveRead = parseDecimal(skipSpaces(line + 6), charsRead) != nullptr;
        else if (startsWith(line, "wchar:"))
            haveWritten = parseDecimal(skipSpaces(line + 6), charsWritten) != nullptr;
        while (*line && *line != '\n')
            ++line;
        if (*line == '\n')
            ++line;
    }
    return haveRead && haveWritten;
}

} // namespace zorsampler
