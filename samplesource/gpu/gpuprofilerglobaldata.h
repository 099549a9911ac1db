// What is true of a whole run on the GPU side, from the `.gpu` side file:
// the CUDA runtime version, kernel counts and durations, sampling periods,
// and the tables that give meaning to the small integer identifiers of the
// sample file, source locations and kernel names.
#ifndef ZOR_GPUPROFILERGLOBALDATA_H
#define ZOR_GPUPROFILERGLOBALDATA_H

#include <QMap>
#include <QString>

#include "position.h"

class GpuProfilerGlobalData
{
public:
    GpuProfilerGlobalData();

    // Reads a "gpuProfile" document. False with the reason in `error`, which
    // may be null, when the document doesn't have the elements it must
    // have; what was read before the failure stays. Values that don't
    // parse are read as 0.
    bool readFromFile(const QString& path, QString* error);

    // The kernel's name, or "<unknown-id N>" with `ok` false.
    QString kernelName(unsigned int id, bool* ok) const;
    // The location's position. An unknown id gives `ok` false and
    // "<unknown-id N>" as the function, except id 0, which stands for no
    // location at all and gives an empty position.
    Position positionForLocationId(unsigned int id, bool* ok) const;

    unsigned int numKernels() const { return static_cast<unsigned int>(mKernelNames.size()); }
    unsigned int numPositions() const { return static_cast<unsigned int>(mPositions.size()); }
    quint64 numKernelLaunches() const { return mNumKernelLaunches; }
    quint64 numKernelsSampled() const { return mNumKernelsSampled; }
    quint64 minSamplingPeriodInCycles() const { return mMinSamplingPeriodInCycles; }
    quint64 maxSamplingPeriodInCycles() const { return mMaxSamplingPeriodInCycles; }
    double minKernelDurationMs() const { return mMinKernelDurationMs; }
    double maxKernelDurationMs() const { return mMaxKernelDurationMs; }
    double meanKernelDurationMs() const { return mMeanKernelDurationMs; }
    int cudaRuntimeVersion() const { return mCudaRuntimeVersion; }
    QString errorMessage() const { return mErrorMessage; }

private:
    QMap<unsigned int, Position> mPositions;
    QMap<unsigned int, QString> mKernelNames;
    QString mErrorMessage;
    quint64 mNumKernelLaunches;
    quint64 mNumKernelsSampled;
    quint64 mMinSamplingPeriodInCycles;
    quint64 mMaxSamplingPeriodInCycles;
    double mMinKernelDurationMs;
    double mMaxKernelDurationMs;
    double mMeanKernelDurationMs;
    int mCudaRuntimeVersion;
};

#endif
