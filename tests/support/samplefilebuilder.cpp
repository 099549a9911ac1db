#include "samplefilebuilder.h"
#include "timespec_utils.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

using namespace quorvex;

namespace zortest {

TempFile::TempFile(const char* stem)
{
    const char* dir = getenv("TMPDIR");
    std::string pattern = std::string(dir && *dir ? dir : "/tmp") + "/" + stem + "-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    const int fd = mkstemp(buffer.data());
    if (fd < 0)
        throw std::runtime_error(std::string("mkstemp: ") + strerror(errno));
    close(fd);
    mPath = buffer.data();
}

TempFile::~TempFile()
{
    unlink(mPath.c_str());
}

int TempFile::openForWriting() const
{
    const int fd = open(mPath.c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0)
        throw std::runtime_error("cannot open " + mPath + ": " + strerror(errno));
    return fd;
}

std::vector<char> TempFile::contents() const
{
    std::vector<char> bytes;
    FILE* f = fopen(mPath.c_str(), "rb");
    if (!f)
        throw std::runtime_error("cannot read " + mPath);
    char chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0)
        bytes.insert(bytes.end(), chunk, chunk + n);
    fclose(f);
    return bytes;
}

void TempFile::setContents(const std::vector<char>& bytes) const
{
    FILE* f = fopen(mPath.c_str(), "wb");
    if (!f)
        throw std::runtime_error("cannot write " + mPath);
    if (!bytes.empty() && fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
        fclose(f);
        throw std::runtime_error("short write to " + mPath);
    }
    fclose(f);
}

ExtendedBacktraceData makeBacktraceData(const std::vector<unsigned long>& frames, int unwindStatus,
                                        bool stopsAtCallingFrame, int parallelId)
{
    ExtendedBacktraceData data;
    std::memset(&data, 0, sizeof data);
    const size_t n = std::min<size_t>(frames.size(), MAX_BACKTRACE_DEPTH);
    std::copy(frames.begin(), frames.begin() + static_cast<long>(n), data.frames);
    data.size = static_cast<std::uint32_t>(n);
    data.unwindStatus = unwindStatus;
    data.stopsAtCallingFrame = stopsAtCallingFrame;
    data.parallelId = parallelId;
    return data;
}

SampleFileBuilder::SampleFileBuilder(int maxSamples, int preallocatedThreads, unsigned seed)
    : mRandom(seed), mClock{100, 0}, mNextTid(4000)
{
    std::memset(&mDrandState, 0, sizeof mDrandState);
    srand48_r(seed, &mDrandState);
    mList.reset(new SSampleList(maxSamples, preallocatedThreads, mDrandState));
}

std::vector<unsigned long> SampleFileBuilder::randomFrames(int count)
{
    std::vector<unsigned long> frames;
    for (int i = 0; i < count; ++i)
        frames.push_back(0x400000UL + (mRandom() & 0xFFFFFFFFFFUL));
    return frames;
}

timespec SampleFileBuilder::randomStep()
{
    timespec step = {0, static_cast<long>(1000000 + mRandom() % 9000000)};
    if (mRandom() % 8 == 0)
        step.tv_sec = 1;
    return step;
}

void SampleFileBuilder::randomiseHeader()
{
    mHeader.startTime = timespec{static_cast<time_t>(1000 + mRandom() % 100000),
                                 static_cast<long>(mRandom() % ONE_SECOND_NS)};
    mHeader.mpiThreadMultiple = static_cast<std::int32_t>(mRandom() % 2);
    mHeader.stopReason = static_cast<std::int32_t>(mRandom() % 4);
    mHeader.numPhdrCacheRebuilds = mRandom() % 1000;
    mHeader.numPhdrCacheChecks = mRandom() % 100000;
    mHeader.numDownsamples = mRandom() % 10;
    mHeader.numSkippedWhileSuspended = mRandom() % 50;
    mHeader.numTakenWhileResuming = mRandom() % 50;
    mHeader.numTakenInTotal = mRandom() % 100000;
    mHeader.firstSpareWord = static_cast<std::uint32_t>(mRandom());
    mHeader.secondSpareWord = static_cast<std::uint32_t>(mRandom());
    mOmpText = "OMP_NUM_THREADS=" + std::to_string(1 + mRandom() % 64);
    mHeader.ompThreadsText = mOmpText.c_str();
    mHeader.cudaProfilingEnabled = static_cast<std::uint32_t>(mRandom() % 2);
}

SSample* SampleFileBuilder::addRandomSample(int threads, int frames, int numMetrics)
{
    const timespec step = randomStep();
    timespec_add(mClock, step);

    const int mainTid = mNextTid;
    threadlist_t tids;
    for (int t = 0; t < threads; ++t)
        tids.push_back(mainTid + t);
    // A few signed values, so that sign extension is exercised.
    if (mRandom() % 4 == 0)
        tids.push_back(-1);

    auto cpuTime = [this]() {
        return timespec{static_cast<time_t>(mRandom() % 5), static_cast<long>(mRandom() % ONE_SECOND_NS)};
    };
    auto status = [this]() { return static_cast<int>(mRandom() % 5) - 2; };

    bool downsampled = false;
    const ExtendedBacktraceData main =
        makeBacktraceData(randomFrames(frames), status(), mRandom() % 2 == 0, static_cast<int>(mRandom() % 7) - 1);
    SSample* sample = mList->createSample(main, mClock, step, step, downsampled, mRandom() % 2 == 0, mainTid, tids,
                                          cpuTime(), mRandom() % 3 == 0);
    for (int t = 1; t < threads; ++t) {
        const ExtendedBacktraceData other =
            makeBacktraceData(randomFrames(frames), status(), mRandom() % 2 == 0, static_cast<int>(mRandom() % 7));
        sample->addThreadBacktrace(other, mRandom() % 2 == 0, mainTid + t, cpuTime(), mRandom() % 3 == 0);
    }

    // A metric divides by the sample interval or not for the whole run.
    SMetrics& metrics = sample->metrics();
    metrics.initializeMetrics(static_cast<unsigned int>(numMetrics));
    for (int m = 0; m < numMetrics; ++m) {
        SampleValue value;
        switch (mRandom() % 4) {
        case 0: break;
        case 1: value = SampleValue(static_cast<long>(mRandom() % 2000) - 1000); break;
        case 2: value = SampleValue(static_cast<unsigned long>(mRandom())); break;
        default: value = SampleValue(static_cast<double>(mRandom() % 100000) / 7.0); break;
        }
        const timespec interval = mRandom() % 3 == 0 ? timespec{0, 0} : randomStep();
        metrics.setMetric(static_cast<unsigned int>(m),
                          SMetric(value, interval, m % 2 ? SMetric::DivideBySampleInterval : SMetric::NoNormalisation));
    }
    return sample;
}

void SampleFileBuilder::addRandomCallSite(int parallelId, int frames)
{
    ExtendedBacktraceData data = makeBacktraceData(randomFrames(frames), static_cast<int>(mRandom() % 3),
                                                   mRandom() % 2 == 0, parallelId);
    mCallSites.push_back(SCallSite(parallelId, mNextTid + static_cast<int>(mRandom() % 4), &data,
                                   static_cast<unsigned long>(mRandom())));
}

void SampleFileBuilder::addRandom(const RandomSampleShape& shape)
{
    randomiseHeader();
    for (int i = 0; i < shape.numSamples; ++i) {
        int threads = shape.threadsPerSample;
        int frames = shape.framesPerTrace;
        if (shape.varySizes) {
            threads = std::max(1, threads - static_cast<int>(mRandom() % 3));
            frames = static_cast<int>(mRandom() % static_cast<unsigned>(std::max(frames, 1) * 2 + 1));
        }
        SSample* sample = addRandomSample(threads, frames, shape.numMetrics);
        if (!mPendingHit.isNull()) {
            sample->addKernelHit(mPendingHit);
            mPendingHit.detach();
        }
        if (shape.kernelHitEvery > 0 && i % shape.kernelHitEvery == 0) {
            zor_shared_ptr<SGpuKernelHit> hit(new SGpuKernelHit(static_cast<unsigned>(mRandom()),
                                                                static_cast<unsigned>(mRandom() % 100),
                                                                sample->getTimestamp(), sample->getTimestamp()));
            hit->setSamplingRecordInfo(mRandom() % 10, mRandom() % 10000, 1 + mRandom() % 1000);
            const int lines = static_cast<int>(mRandom() % 4);
            for (int l = 0; l < lines; ++l) {
                const std::uint32_t samples = static_cast<std::uint32_t>(mRandom() % 100);
                hit->addLineHit(static_cast<std::uint32_t>(mRandom()),
                                static_cast<GpuProfilerTypes::StallReason::Enum>(mRandom() % 12), samples,
                                samples / 2);
            }
            sample->addKernelHit(hit);
            mPendingHit = hit;
        }
        mNextTid += 100;
    }
    mPendingHit.detach();
    for (int c = 0; c < shape.numCallSites; ++c)
        addRandomCallSite(c + 1, 1 + static_cast<int>(mRandom() % 20));
}

void SampleFileBuilder::write(int fd) const
{
    quorvex_write_sampler_file(fd, mHeader, *mList, mCallSites.data(), mCallSites.size());
}

void SampleFileBuilder::writeTo(const TempFile& file) const
{
    const int fd = file.openForWriting();
    write(fd);
    close(fd);
}

std::vector<char> SampleFileBuilder::bytes() const
{
    TempFile file("zor-bytes");
    writeTo(file);
    return file.contents();
}

namespace {

std::string str(const timespec& t)
{
    return std::to_string(t.tv_sec) + "s" + std::to_string(t.tv_nsec) + "ns";
}

template <typename T>
std::string differ(const char* what, const T& a, const T& b)
{
    std::ostringstream out;
    out << what << ": " << a << " != " << b;
    return out.str();
}

std::string differTime(const char* what, const timespec& a, const timespec& b)
{
    return std::string(what) + ": " + str(a) + " != " + str(b);
}

bool sameValue(const SampleValue& a, const SampleValue& b)
{
    return a.type() == b.type() && (a.empty() || a.rawBits() == b.rawBits());
}

} // namespace

std::string compareBacktraces(const SBacktrace& a, const SBacktrace& b)
{
    if (a.isValid() != b.isValid())
        return differ("valid", a.isValid(), b.isValid());
    if (!a.isValid())
        return "";
    if (a.tid() != b.tid())
        return differ("tid", a.tid(), b.tid());
    if (a.unwindStatus() != b.unwindStatus())
        return differ("unwind status", a.unwindStatus(), b.unwindStatus());
    if (a.stopsAtCallingFrame() != b.stopsAtCallingFrame())
        return differ("stops at calling frame", a.stopsAtCallingFrame(), b.stopsAtCallingFrame());
    if (a.trace() != b.trace())
        return differ("frame count", a.trace().size(), b.trace().size()) + " or frames differ";
    if (a.parallelId() != b.parallelId())
        return differ("parallel id", a.parallelId(), b.parallelId());
    if (a.inMpi() != b.inMpi())
        return differ("in MPI", a.inMpi(), b.inMpi());
    if (a.isSleeping() != b.isSleeping())
        return differ("sleeping", a.isSleeping(), b.isSleeping());
    if (!timespec_equal(a.cpuTime(), b.cpuTime()))
        return differTime("CPU time", a.cpuTime(), b.cpuTime());
    return "";
}

std::string compareKernelHits(const SGpuKernelHit& a, const SGpuKernelHit& b)
{
    if (a.correlationId() != b.correlationId())
        return differ("correlation id", a.correlationId(), b.correlationId());
    if (a.kernelNameId() != b.kernelNameId())
        return differ("kernel name id", a.kernelNameId(), b.kernelNameId());
    if (!timespec_equal(a.startTime(), b.startTime()))
        return differTime("kernel start", a.startTime(), b.startTime());
    if (!timespec_equal(a.endTime(), b.endTime()))
        return differTime("kernel end", a.endTime(), b.endTime());
    if (a.droppedSamples() != b.droppedSamples() || a.totalSamples() != b.totalSamples()
        || a.samplingPeriodInCycles() != b.samplingPeriodInCycles())
        return "kernel sampling counters differ";
    if (a.lineHits().size() != b.lineHits().size())
        return differ("kernel line count", a.lineHits().size(), b.lineHits().size());
    auto ia = a.lineHits().begin();
    auto ib = b.lineHits().begin();
    for (; ia != a.lineHits().end(); ++ia, ++ib) {
        if (ia->first != ib->first)
            return differ("kernel line", ia->first, ib->first);
        if (std::memcmp(&ia->second, &ib->second, sizeof ia->second) != 0)
            return "kernel line " + std::to_string(ia->first) + ": counters differ";
    }
    return "";
}

std::string compareSamples(const SSample& a, const SSample& b)
{
    if (a.isValid() != b.isValid())
        return differ("sample valid", a.isValid(), b.isValid());
    if (!timespec_equal(a.getTimestamp(), b.getTimestamp()))
        return differTime("timestamp", a.getTimestamp(), b.getTimestamp());
    if (!timespec_equal(a.getInterval(), b.getInterval()))
        return differTime("interval", a.getInterval(), b.getInterval());
    if (!timespec_equal(a.getWindow(), b.getWindow()))
        return differTime("window", a.getWindow(), b.getWindow());
    if (a.downsamplingHappened() != b.downsamplingHappened())
        return differ("downsampled", a.downsamplingHappened(), b.downsamplingHappened());
    std::string d = compareBacktraces(a.mainThreadTrace(), b.mainThreadTrace());
    if (!d.empty())
        return "main thread: " + d;
    if (a.otherThreads().count() != b.otherThreads().count())
        return differ("other threads", a.otherThreads().count(), b.otherThreads().count());
    for (size_t i = 0; i < a.otherThreads().count(); ++i) {
        d = compareBacktraces(a.otherThreads()[i], b.otherThreads()[i]);
        if (!d.empty())
            return "thread " + std::to_string(i) + ": " + d;
    }
    const SMetrics& ma = a.metrics();
    const SMetrics& mb = b.metrics();
    if (ma.isValid() != mb.isValid())
        return differ("metrics valid", ma.isValid(), mb.isValid());
    if (ma.size() != mb.size())
        return differ("metric count", ma.size(), mb.size());
    for (unsigned m = 0; m < ma.size(); ++m) {
        if (!sameValue(ma.getMetricValue(m), mb.getMetricValue(m)))
            return "metric " + std::to_string(m) + ": values differ";
        if (!timespec_equal(ma.getMetricInterval(m), mb.getMetricInterval(m)))
            return differTime("metric interval", ma.getMetricInterval(m), mb.getMetricInterval(m));
        if (ma.shouldDivideBySampleInterval(m) != mb.shouldDivideBySampleInterval(m))
            return "metric " + std::to_string(m) + ": divide flags differ";
    }
    if (a.threadList() != b.threadList())
        return differ("thread list size", a.threadList().size(), b.threadList().size()) + " or ids differ";
    if (a.kernelHits().size() != b.kernelHits().size())
        return differ("kernel hits", a.kernelHits().size(), b.kernelHits().size());
    for (size_t k = 0; k < a.kernelHits().size(); ++k) {
        d = compareKernelHits(*a.kernelHits()[k], *b.kernelHits()[k]);
        if (!d.empty())
            return "kernel hit " + std::to_string(k) + ": " + d;
    }
    return "";
}

std::string compareLists(const SSampleList& a, const SSampleList& b)
{
    if (a.size() != b.size())
        return differ("sample count", a.size(), b.size());
    for (unsigned i = 0; i < a.size(); ++i) {
        const std::string d = compareSamples(a.at(i), b.at(i));
        if (!d.empty())
            return "sample " + std::to_string(i) + ": " + d;
    }
    return "";
}

std::string compareCallSites(const SCallSite& a, const SCallSite& b)
{
    if (a.isValid() != b.isValid())
        return differ("call site valid", a.isValid(), b.isValid());
    if (!a.isValid())
        return "";
    if (a.parallelId() != b.parallelId())
        return differ("parallel id", a.parallelId(), b.parallelId());
    if (a.tid() != b.tid())
        return differ("call site tid", a.tid(), b.tid());
    if (a.tag() != b.tag())
        return differ("tag", a.tag(), b.tag());
    const SSimpleBacktrace* ta = a.callSite();
    const SSimpleBacktrace* tb = b.callSite();
    if (ta->tid() != tb->tid() || ta->unwindStatus() != tb->unwindStatus()
        || ta->stopsAtCallingFrame() != tb->stopsAtCallingFrame() || ta->trace() != tb->trace())
        return "call site backtraces differ";
    return "";
}

} // namespace zortest
