// A run of any length in a fixed number of samples. When the list is full,
// neighbours are fused pairwise and the survivor of each pair is drawn in
// proportion to the time it stands for, so that a long run ends as an
// unbiased thinning of itself.
#ifndef ZOR_SSAMPLELIST_H
#define ZOR_SSAMPLELIST_H

#include "ssample.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace quorvex {

class SSampleList
{
public:
    // With `constructLazily`, only the room for the samples is allocated
    // here, and each is made when it is first filled, from the prototype: a
    // short run makes only the samples it takes. Whoever fills the list then
    // has to let those copies allocate (the sampler's handler does, from
    // memory reserved beforehand).
    SSampleList(int maxSamples, int preallocatedThreads, drand48_data& random, bool constructLazily = false);
    // Copies the samples only: the pass count, the random state and the
    // merge flag stay this list's own.
    SSampleList& operator=(const SSampleList& other);

    void setMetricCount(int n);
    void setMergeGpuKernelListsWhenDownsampling(bool merge) { mMergeGpuKernelLists = merge; }

    SSample* createSample(const ExtendedBacktraceData& bt, const timespec& timestamp, const timespec& interval,
                          const timespec& window, bool& downsampled, bool inMpi, int tid, const threadlist_t& threads,
                          const timespec& cpuTime, bool sleeping);
    SSample* createSample(const SSample& sample, bool& downsampled);
    // The same with the thread list as `threadCount` ids at `threads`, for a
    // caller that can't grow a vector (the sampler's signal handler).
    SSample* createSample(const ExtendedBacktraceData& bt, const timespec& timestamp, const timespec& interval,
                          const timespec& window, bool& downsampled, bool inMpi, int tid, const int* threads,
                          std::size_t threadCount, const timespec& cpuTime, bool sleeping);

    SSample& getLatestSample();
    SSample& at(unsigned int index);
    const SSample& at(unsigned int index) const;

    unsigned int size() const { return mSize; }
    unsigned int numDownsamples() const { return mNumDownsamples; }
    bool isEmpty() const { return mSize == 0; }
    bool isFull() const { return mSize == mLimit; }
    std::size_t capacity() const { return mSamples.capacity(); }

    void clear();
    bool verifySanity(bool fatal) const;
    void downsample();
    std::size_t chooseBetween(std::size_t a, std::size_t b);

    zor_shared_ptr<SGpuKernelHit> createCudaKernelHit(unsigned int correlationId, unsigned int kernelNameId,
                                                      const timespec& start, const timespec& end,
                                                      bool attachToNextSample);

    void writeToFile(int fd) const;
    bool readFromFile(int fd);
    // The list on file: writeOpening, `count` samples, writeClosing. For a
    // writer that leaves samples out (the sampler, stopped in the middle of
    // one), the same framing as writeToFile.
    static void writeOpening(int fd, std::uint64_t count);
    static void writeClosing(int fd);

private:
    void makeRoom(bool& downsampled);

    std::uint32_t mSize;
    std::uint32_t mNumDownsamples;
    std::uint32_t mLimit;
    // Made up to mSize at least; the rest invalid.
    std::vector<SSample> mSamples;
    SSample mPrototype;
    drand48_data& mRandomState;
    bool mMergeGpuKernelLists;
};

} // namespace quorvex

#endif
