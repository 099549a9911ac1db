#include "samplevalue.h"
#include "sfileio.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <unistd.h>

namespace {

const std::int64_t INT64_LOW = std::numeric_limits<std::int64_t>::min();
const std::int64_t INT64_HIGH = std::numeric_limits<std::int64_t>::max();
const std::uint64_t UINT64_HIGH = std::numeric_limits<std::uint64_t>::max();

// An exact result of integer arithmetic as a value: signed while it fits,
// unsigned above that, clamped at the ends of the two ranges. Sums of counts
// must never wrap, and never be undefined: they are made in signal handlers.
SampleValue fromWide(__int128 value)
{
    if (value < INT64_LOW)
        return SampleValue(static_cast<long>(INT64_LOW));
    if (value <= INT64_HIGH)
        return SampleValue(static_cast<long>(value));
    if (value <= static_cast<__int128>(UINT64_HIGH))
        return SampleValue(static_cast<unsigned long>(value));
    return SampleValue(static_cast<unsigned long>(UINT64_HIGH));
}

__int128 wide(const SampleValue& value)
{
    return value.type() == SampleValue::UInt ? static_cast<__int128>(value.to_uint64_t())
                                               : static_cast<__int128>(value.to_int64_t());
}

// A double turned into an integer of the range [low, high], NaN as 0.
template <typename T>
T clampedCast(double d, T low, T high)
{
    if (!(d == d))
        return 0;
    if (d <= static_cast<double>(low))
        return low;
    // The double next to `high` may be above it: compare with >=.
    if (d >= static_cast<double>(high))
        return high;
    return static_cast<T>(d);
}

} // namespace

int SampleValue::to_int() const
{
    return static_cast<int>(to_int64_t());
}

std::int64_t SampleValue::to_int64_t() const
{
    switch (mType) {
    case Int: return mValue.i;
    case UInt: return static_cast<std::int64_t>(mValue.u);
    case Double: return clampedCast<std::int64_t>(mValue.d, INT64_LOW, INT64_HIGH);
    case Empty: break;
    }
    return 0;
}

std::uint64_t SampleValue::to_uint64_t() const
{
    switch (mType) {
    case Int: return static_cast<std::uint64_t>(mValue.i);
    case UInt: return mValue.u;
    case Double: return clampedCast<std::uint64_t>(mValue.d, 0, UINT64_HIGH);
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
    if (mType == Int && other.mType == Int)
        return fromWide(wide(*this) + wide(other));
    // An unsigned sum stays unsigned, clamped rather than wrapped.
    if (mType == UInt && other.mType == UInt)
        return SampleValue(static_cast<unsigned long>(mValue.u > UINT64_HIGH - other.mValue.u ? UINT64_HIGH
                                                                                               : mValue.u + other.mValue.u));
    return fromWide(wide(*this) + wide(other));
}

SampleValue SampleValue::operator-(const SampleValue& other) const
{
    if (empty() && other.empty())
        return SampleValue();
    if (mType == Double || other.mType == Double)
        return SampleValue(to_double() - other.to_double());
    return fromWide(wide(*this) - wide(other));
}

SampleValue SampleValue::operator*(double factor) const
{
    switch (mType) {
    case Int:
        return SampleValue(static_cast<long>(
            clampedCast<std::int64_t>(std::round(static_cast<double>(mValue.i) * factor), INT64_LOW, INT64_HIGH)));
    case UInt:
        return SampleValue(static_cast<unsigned long>(
            clampedCast<std::uint64_t>(std::round(static_cast<double>(mValue.u) * factor), 0, UINT64_HIGH)));
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
    case Int: return fromWide(static_cast<__int128>(mValue.i) / divisor);
    case UInt:
        if (divisor < 0)
            return fromWide(static_cast<__int128>(mValue.u) / divisor);
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
    return quorvex::fileio::writeSome(fd, data, size) == static_cast<ssize_t>(size);
}

bool readAll(quorvex::fileio::RecordInput& in, void* data, size_t size)
{
    if (const char* at = in.take(size)) {
        std::memcpy(data, at, size);
        return true;
    }
    errno = 0;
    return quorvex::fileio::readSome(in.fd(), data, size) == static_cast<ssize_t>(size);
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
    quorvex::fileio::RecordInput in(fd);
    return readFrom(in);
}

int SampleValue::readFrom(quorvex::fileio::RecordInput& in)
{
    std::uint8_t type = 0;
    if (!readAll(in, &type, 1) || type > Double)
        return -1;
    if (type == Empty) {
        *this = SampleValue();
        return 1;
    }
    std::uint64_t bits = 0;
    if (!readAll(in, &bits, sizeof bits))
        return -1;
    *this = fromRawBits(static_cast<Type>(type), bits);
    return 1 + static_cast<int>(sizeof bits);
}
