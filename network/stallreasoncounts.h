// Why GPU warps stood still: a share of time per stall reason.
#ifndef ZOR_STALLREASONCOUNTS_H
#define ZOR_STALLREASONCOUNTS_H

#include <QString>

struct GpuProfilerStallReason
{
    // The platform's own numbering, free to part from the sampler's.
    enum Enum {
        Invalid = 0,
        // The warp issued: no stall.
        None = 1,
        InstructionFetch = 2,
        ExecutionDependency = 3,
        MemoryDependency = 4,
        Texture = 5,
        Synchronization = 6,
        ConstantMemoryDependency = 7,
        PipeBusy = 8,
        MemoryThrottle = 9,
        NotSelected = 10,
        Other = 11,
        COUNT = 12
    };

    // "none", "memory-dependency"...; empty outside the enumeration.
    static QString name(int reason);
};

class StallReasonCounts
{
public:
    StallReasonCounts();

    // A reason outside the enumeration is ignored.
    void inc(GpuProfilerStallReason::Enum reason, double value);
    double value(GpuProfilerStallReason::Enum reason) const;
    double total() const;
    bool isZero() const;
    void add(const StallReasonCounts& other);

    // Twelve comma-separated numbers in reason order; every bit of a double
    // survives the round trip. fromString is false, leaving the counts
    // alone, for any other text.
    QString toString() const;
    bool fromString(const QString& text);

    // Exact, except that two NaN shares (left by a kernel hit with no
    // samples) count as equal, so that a tree equals its own copy.
    bool operator==(const StallReasonCounts& other) const;
    bool operator!=(const StallReasonCounts& other) const { return !(*this == other); }

private:
    double mCounts[GpuProfilerStallReason::COUNT];
};

#endif
