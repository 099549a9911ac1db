// A metric value of two machine words: nothing, a signed or unsigned 64-bit
// integer, or a double. It is written into the sampler's files and lives in
// signal handlers, so it is Qt-free and never allocates.
#ifndef ZOR_SAMPLEVALUE_H
#define ZOR_SAMPLEVALUE_H

#include <cstdint>

namespace quorvex {
namespace fileio {
class RecordInput;
}
}

class SampleValue
{
public:
    enum Type : std::uint8_t { Empty = 0, Int = 1, UInt = 2, Double = 3 };

    SampleValue() : mType(Empty) { mValue.i = 0; }
    SampleValue(int v) : mType(Int) { mValue.i = v; }
    SampleValue(long v) : mType(Int) { mValue.i = v; }
    SampleValue(long long v) : mType(Int) { mValue.i = v; }
    SampleValue(unsigned int v) : mType(UInt) { mValue.u = v; }
    SampleValue(unsigned long v) : mType(UInt) { mValue.u = v; }
    SampleValue(unsigned long long v) : mType(UInt) { mValue.u = v; }
    SampleValue(double v) : mType(Double) { mValue.d = v; }

    Type type() const { return mType; }
    bool empty() const { return mType == Empty; }

    // Conversions; an empty value converts to 0.
    int to_int() const;
    std::int64_t to_int64_t() const;
    std::uint64_t to_uint64_t() const;
    double to_double() const;

    // Arithmetic treats an empty operand as absent: empty + x is x, and the
    // result is empty only when both sides are. A double on either side gives
    // a double; subtraction of integers is signed so that it can't wrap.
    SampleValue& operator+=(const SampleValue& other);
    SampleValue operator+(const SampleValue& other) const;
    SampleValue operator-(const SampleValue& other) const;
    SampleValue operator-(long other) const { return *this - SampleValue(other); }
    // Scaling keeps an integer value integer, rounded to the nearest.
    SampleValue operator*(double factor) const;
    // Integer values divide as integers. Division by zero gives an empty value.
    SampleValue operator/(int divisor) const;
    SampleValue operator/(unsigned int divisor) const;

    // Numeric comparison; an empty value compares below every other value.
    bool operator<(const SampleValue& other) const;
    bool operator>(const SampleValue& other) const { return other < *this; }
    bool operator==(const SampleValue& other) const;
    bool operator!=(const SampleValue& other) const { return !(*this == other); }

    // The larger of the two; if one is empty, the other.
    static SampleValue max(const SampleValue& a, const SampleValue& b);

    // File form: one type byte, then eight payload bytes unless empty.
    // writeToFile returns the bytes written or -1; readFromFile returns the
    // bytes read, or -1 on an error, a short read or an unknown type byte.
    int writeToFile(int fd) const;
    int readFromFile(int fd);
    int readFrom(quorvex::fileio::RecordInput& in);

    // The raw payload, for serialisers that keep the exact bits.
    std::uint64_t rawBits() const { return mValue.u; }
    static SampleValue fromRawBits(Type type, std::uint64_t bits);

private:
    union {
        std::int64_t i;
        std::uint64_t u;
        double d;
    } mValue;
    Type mType;
};

#endif
