#include "samplevalue.h"
#include "sfileio.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <unistd.h>

int SampleValue::to_int() const
{
    return static_cast<int>(to_int64_t());
}

std::int64_t SampleValue::to_int64_t() const
{
    switch (mType) {
    case Int: return mValue.i;
    case UInt: return static_cast<std::int64_t>(mValue.u);
    case Double: return static_cast<std::int64_t>(mValue.d);
    case Empty: break;
    }
    return 0;
}

std::uint64_t SampleValue::to_uint64_t() const
{
    switch (mType) {
    case Int: return static_cast<std::uint64_t>(mValue.i);
    case UInt: return mValue.u;
    case Double: return mValue.d <= 0 ? 0 : static_cast<std::uint64_t>(mValue.d);
    case Empty: break;
    }
    return 0;
}

double SampleValue::to_double() const
{
    switch (mType) {
    case Int: return static_cast<double>(mValue.i);
    case UInt: return static_cast<double>(mValue.u);
    case Double: return mValue.d;
    case Empty: break;
    }
    return 0.0;
}

SampleValue& SampleValue::operator+=(const SampleValue& other)
{
    *this = *this + other;
    return *this;
}

SampleValue SampleValue::operator+(const SampleValue& other) const
{
    if (other.empty())
        return *this;
    if (empty())
        return other;
    if (mType == Double || other.mType == Double)
        return SampleValue(to_double() + other.to_double());
    if (mType == UInt && other.mType == UInt)
        return SampleValue(static_cast<unsigned long>(mValue.u + other.mValue.u));
    return SampleValue(static_cast<long>(to_int64_t() + other.to_int64_t()));
}

SampleValue SampleValue::operator-(const SampleValue& other) const
{
    if (empty() && other.empty())
        return SampleValue();
    if (mType == Double || other.mType == Double)
        return SampleValue(to_double() - other.to_double());
    return SampleValue(static_cast<long>(to_int64_t() - other.to_int64_t()));
}

SampleValue SampleValue::operator*(double factor) const
{
    switch (mType) {
    case Int: return SampleValue(static_cast<long>(std::llround(static_cast<double>(mValue.i) * factor)));
    case UInt: {
        const double scaled = static_cast<double>(mValue.u) * factor;
        return SampleValue(static_cast<unsigned long>(scaled <= 0 ? 0 : std::llround(scaled)));
    }
    case Double: return SampleValue(mValue.d * factor);
    case Empty: break;
    }
    return SampleValue();
}

SampleValue SampleValue::operator/(int divisor) const
{
    if (divisor == 0)
        return SampleValue();
    switch (mType) {
    case Int: return SampleValue(static_cast<long>(mValue.i / divisor));
    case UInt:
        if (divisor < 0)
            return SampleValue(static_cast<long>(static_cast<std::int64_t>(mValue.u) / divisor));
        return SampleValue(static_cast<unsigned long>(mValue.u / static_cast<unsigned>(divisor)));
    case Double: return SampleValue(mValue.d / divisor);
    case Empty: break;
    }
    return SampleValue();
}

SampleValue SampleValue::operator/(unsigned int divisor) const
{
    if (divisor == 0)
        return SampleValue();
    switch (mType) {
    case Int: return SampleValue(static_cast<long>(mValue.i / static_cast<std::int64_t>(divisor)));
    case UInt: return SampleValue(static_cast<unsigned long>(mValue.u / divisor));
    case Double: return SampleValue(mValue.d / divisor);
    case Empty: break;
    }
    return SampleValue();
}

bool SampleValue::operator<(const SampleValue& other) const
{
    if (empty() || other.empty())
        return empty() && !other.empty();
    if (mType == Double || other.mType == Double)
        return to_double() < other.to_double();
    if (mType == UInt && other.mType == UInt)
        return mValue.u < other.mValue.u;
    if (mType == Int && other.mType == Int)
        return mValue.i < other.mValue.i;
    // One signed, one unsigned: a negative value is below any unsigned one.
    if (mType == Int)
        return mValue.i < 0 || static_cast<std::uint64_t>(mValue.i) < other.mValue.u;
    return other.mValue.i >= 0 && mValue.u < static_cast<std::uint64_t>(other.mValue.i);
}

bool SampleValue::operator==(const SampleValue& other) const
{
    if (empty() || other.empty())
        return empty() == other.empty();
    return !(*this < other) && !(other < *this);
}

SampleValue SampleValue::max(const SampleValue& a, const SampleValue& b)
{
    if (a.empty())
        return b;
    if (b.empty())
        return a;
    return a < b ? b : a;
}

SampleValue SampleValue::fromRawBits(Type type, std::uint64_t bits)
{
    SampleValue v;
    if (type > Double)
        return v;
    v.mType = type;
    v.mValue.u = type == Empty ? 0 : bits;
    return v;
}

namespace {

bool writeAll(int fd, const void* data, size_t size)
{
    errno = 0;
    return write(fd, data, size) == static_cast<ssize_t>(size);
}

bool readAll(int fd, void* data, size_t size)
{
    errno = 0;
    return quorvex::fileio::readSome(fd, data, size) == static_cast<ssize_t>(size);
}

} // namespace

int SampleValue::writeToFile(int fd) const
{
    const std::uint8_t type = mType;
    if (!writeAll(fd, &type, 1))
        return -1;
    if (mType == Empty)
        return 1;
    if (!writeAll(fd, &mValue, sizeof mValue))
        return -1;
    return 1 + static_cast<int>(sizeof mValue);
}

int SampleValue::readFromFile(int fd)
{
    std::uint8_t type = 0;
    if (!readAll(fd, &type, 1) || type > Double)
        return -1;
    if (type == Empty) {
        *this = SampleValue();
        return 1;
    }
    std::uint64_t bits = 0;
    if (!readAll(fd, &bits, sizeof bits))
        return -1;
    *this = fromRawBits(static_cast<Type>(type), bits);
    return 1 + static_cast<int>(sizeof bits);
}
