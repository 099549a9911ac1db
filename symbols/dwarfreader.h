// A bounded little-endian reader of DWARF sections (on a little-endian host).
#ifndef ZOR_DWARFREADER_H
#define ZOR_DWARFREADER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "fixed() copies values as they lie");

// Any read past the end marks it bad and gives 0.
class DwarfReader
{
public:
    DwarfReader(const unsigned char* begin, const unsigned char* end) : mAt(begin), mEnd(end) {}

    bool bad() const { return mBad; }
    bool atEnd() const { return mAt >= mEnd; }
    const unsigned char* at() const { return mAt; }
    std::size_t left() const { return mBad ? 0 : std::size_t(mEnd - mAt); }

    std::uint64_t fixed(int size)
    {
        if (left() < std::size_t(size)) {
            mBad = true;
            return 0;
        }
        std::uint64_t value = 0;
        switch (size) {
        case 1: value = mAt[0]; break;
        case 2: value = std::uint64_t(mAt[0]) | std::uint64_t(mAt[1]) << 8; break;
        case 4: {
            std::uint32_t word;
            std::memcpy(&word, mAt, 4);
            value = word;
            break;
        }
        case 8: std::memcpy(&value, mAt, 8); break;
        default:
            for (int i = 0; i < size; ++i)
                value |= std::uint64_t(mAt[i]) << (8 * i);
            break;
        }
        mAt += size;
        return value;
    }
    std::uint64_t uleb()
    {
        // Most values (abbreviation codes, forms, small numbers) are one byte.
        if (mAt < mEnd && *mAt < 0x80)
            return *mAt++;
        std::uint64_t value = 0;
        for (int shift = 0;; shift += 7) {
            if (mAt >= mEnd) {
                mBad = true;
                return 0;
            }
            const unsigned char byte = *mAt++;
            if (shift < 64)
                value |= std::uint64_t(byte & 0x7f) << shift;
            if (!(byte & 0x80))
                return value;
        }
    }
    std::int64_t sleb()
    {
        std::uint64_t value = 0;
        int shift = 0;
        unsigned char byte = 0;
        do {
            if (mAt >= mEnd) {
                mBad = true;
                return 0;
            }
            byte = *mAt++;
            if (shift < 64)
                value |= std::uint64_t(byte & 0x7f) << shift;
            shift += 7;
        } while (byte & 0x80);
        if (shift < 64 && (byte & 0x40))
            value |= ~std::uint64_t(0) << shift;
        return std::int64_t(value);
    }
    // A NUL-terminated string in place.
    const char* string()
    {
        const void* nul = mBad ? nullptr : std::memchr(mAt, 0, std::size_t(mEnd - mAt));
        if (!nul) {
            mBad = true;
            return "";
        }
        const char* text = reinterpret_cast<const char*>(mAt);
        mAt = static_cast<const unsigned char*>(nul) + 1;
        return text;
    }
    void skip(std::uint64_t size)
    {
        if (left() < size)
            mBad = true;
        else
            mAt += size;
    }

private:
    const unsigned char* mAt;
    const unsigned char* mEnd;
    bool mBad = false;
};

#endif
