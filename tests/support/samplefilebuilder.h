// Builds raw samples and whole sampler data files for tests and benchmarks,
// and compares raw records field by field. Qt-free, so the sampler's own
// tests can use it.
#ifndef ZOR_TEST_SAMPLEFILEBUILDER_H
#define ZOR_TEST_SAMPLEFILEBUILDER_H

#include "samplerfile.h"
#include "scallsite.h"
#include "ssamplelist.h"

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace zortest {

// A file in the temporary directory, removed when the object goes.
class TempFile
{
public:
    explicit TempFile(const char* stem = "zor-test");
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const std::string& path() const { return mPath; }
    // Opens for writing from the start, truncating.
    int openForWriting() const;
    std::vector<char> contents() const;
    void setContents(const std::vector<char>& bytes) const;

private:
    std::string mPath;
};

// One thread's stack as the unwinder would hand it over.
ExtendedBacktraceData makeBacktraceData(const std::vector<unsigned long>& frames, int unwindStatus = 0,
                                        bool stopsAtCallingFrame = false, int parallelId = 0);

struct RandomSampleShape
{
    int numSamples = 10;
    int threadsPerSample = 4; // the main thread included
    int framesPerTrace = 16;
    int numMetrics = 3;
    // Every n-th sample gets a kernel hit, which the next sample shares; 0
    // for none.
    int kernelHitEvery = 3;
    int numCallSites = 2;
    // Vary the number of frames and threads around the figures above.
    bool varySizes = true;
};

class SampleFileBuilder
{
public:
    // maxSamples is the list's limit; keep it at least the number of samples
    // to be added unless thinning is wanted.
    explicit SampleFileBuilder(int maxSamples, int preallocatedThreads = 4, unsigned seed = 1);
    // The list holds a reference to the builder's random state.
    SampleFileBuilder(const SampleFileBuilder&) = delete;
    SampleFileBuilder& operator=(const SampleFileBuilder&) = delete;

    quorvex::SamplerFileHeader& header() { return mHeader; }
    quorvex::SSampleList& list() { return *mList; }
    std::vector<quorvex::SCallSite>& callSites() { return mCallSites; }
    std::mt19937_64& random() { return mRandom; }

    // Random header fields, samples and call sites of the given shape.
    void addRandom(const RandomSampleShape& shape);
    void randomiseHeader();
    quorvex::SSample* addRandomSample(int threads, int frames, int numMetrics);
    void addRandomCallSite(int parallelId, int frames);

    void write(int fd) const;
    void writeTo(const TempFile& file) const;
    std::vector<char> bytes() const;

private:
    std::vector<unsigned long> randomFrames(int count);
    timespec randomStep();

    quorvex::SamplerFileHeader mHeader;
    std::string mOmpText;
    drand48_data mDrandState;
    std::unique_ptr<quorvex::SSampleList> mList;
    std::vector<quorvex::SCallSite> mCallSites;
    std::mt19937_64 mRandom;
    timespec mClock;
    int mNextTid;
};

// Field-by-field comparison: an empty string when equal, otherwise the first
// difference found, in words.
std::string compareBacktraces(const quorvex::SBacktrace& a, const quorvex::SBacktrace& b);
std::string compareSamples(const quorvex::SSample& a, const quorvex::SSample& b);
std::string compareLists(const quorvex::SSampleList& a, const quorvex::SSampleList& b);
std::string compareCallSites(const quorvex::SCallSite& a, const quorvex::SCallSite& b);

} // namespace zortest

#endif
