#include "samplefilebuilder.h"
#include "sfileio.h"
#include "timespec_utils.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

using namespace quorvex;

namespace zortest {

TempFile::TempFile(const char* stem)
{
    const char* dir = getenv("TMPDIR");
    std::string pattern = std::string(dir && *dir ? dir : "/tmp") + "/" + stem + "-XXXXXX";
    const int fd = mkstemp(&pattern[0]);
    if (fd < 0)
        throw std::runtime_error(std::string("mkstemp: ") + strerror(errno));
    close(fd);
    mPath = pattern;
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
    std::ifstream in(mPath, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + mPath);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void TempFile::setContents(const std::vector<char>& bytes) const
{
    std::ofstream out(mPath, std::ios::binary | std::ios::trunc);
    if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())))
        throw std::runtime_error("cannot write " + mPath);
}

ExtendedBacktraceData makeBacktraceData(const std::vector<unsigned long>& frames, int unwindStatus,
                                        bool stopsAtCallingFrame, int parallelId)
{
    ExtendedBacktraceData data;
    std::memset(&data, 0, sizeof data);
    data.size = static_cast<std::uint32_t>(std::min<size_t>(frames.size(), MAX_BACKTRACE_DEPTH));
    std::copy(frames.begin(), frames.begin() + data.size, data.frames);
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
    return timespec{mRandom() % 8 == 0 ? 1 : 0, static_cast<long>(1000000 + mRandom() % 9000000)};
}

void SampleFileBuilder::randomiseHeader()
{
    SamplerFileHeader& h = mHeader;
    h.startTime = timespec{static_cast<time_t>(1000 + mRandom() % 100000), static_cast<long>(mRandom() % ONE_SECOND_NS)};
    h.mpiThreadMultiple = static_cast<std::int32_t>(mRandom() % 2);
    h.stopReason = static_cast<std::int32_t>(mRandom() % 4);
    for (std::uint64_t* counter : {&h.numPhdrCacheRebuilds, &h.numPhdrCacheChecks, &h.numDownsamples,
                                   &h.numSkippedWhileSuspended, &h.numTakenWhileResuming, &h.numTakenInTotal})
        *counter = mRandom() % 100000;
    h.firstSpareWord = static_cast<std::uint32_t>(mRandom());
    h.secondSpareWord = static_cast<std::uint32_t>(mRandom());
    mOmpText = "OMP_NUM_THREADS=" + std::to_string(1 + mRandom() % 64);
    h.ompThreadsText = mOmpText.c_str();
    h.cudaProfilingEnabled = static_cast<std::uint32_t>(mRandom() % 2);
}

SSample* SampleFileBuilder::addRandomSample(int threads, int frames, int numMetrics)
{
    const timespec step = randomStep();
    timespec_add(mClock, step);
    auto coin = [this] { return mRandom() % 2 == 0; };
    auto cpuTime = [this] {
        return timespec{static_cast<time_t>(mRandom() % 5), static_cast<long>(mRandom() % ONE_SECOND_NS)};
    };
    // Negative statuses, parallel ids and tids exercise sign extension.
    auto trace = [&](int parallelId) {
        return makeBacktraceData(randomFrames(frames), static_cast<int>(mRandom() % 5) - 2, coin(), parallelId);
    };

    const int mainTid = mNextTid;
    threadlist_t tids;
    for (int t = 0; t < threads; ++t)
        tids.push_back(mainTid + t);
    if (mRandom() % 4 == 0)
        tids.push_back(-1);
    bool downsampled = false;
    SSample* sample = mList->createSample(trace(static_cast<int>(mRandom() % 7) - 1), mClock, step, step, downsampled,
                                          coin(), mainTid, tids, cpuTime(), mRandom() % 3 == 0);
    for (int t = 1; t < threads; ++t)
        sample->addThreadBacktrace(trace(static_cast<int>(mRandom() % 7)), coin(), mainTid + t, cpuTime(),
                                   mRandom() % 3 == 0);

    // A metric divides by the sample interval or not for the whole run.
    sample->metrics().initializeMetrics(static_cast<unsigned int>(numMetrics));
    for (int m = 0; m < numMetrics; ++m) {
        const SampleValue values[] = {SampleValue(), SampleValue(static_cast<long>(mRandom() % 2000) - 1000),
                                      SampleValue(static_cast<unsigned long>(mRandom())),
                                      SampleValue(static_cast<double>(mRandom() % 100000) / 7.0)};
        const timespec interval = mRandom() % 3 == 0 ? timespec{0, 0} : randomStep();
        sample->metrics().setMetric(static_cast<unsigned int>(m),
                                    SMetric(values[mRandom() % 4], interval,
                                            m % 2 ? SMetric::DivideBySampleInterval : SMetric::NoNormalisation));
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
    // A kernel hit is shared with the sample after the one that made it.
    zor_shared_ptr<SGpuKernelHit> pending;
    for (int i = 0; i < shape.numSamples; ++i, mNextTid += 100) {
        int threads = shape.threadsPerSample;
        int frames = shape.framesPerTrace;
        if (shape.varySizes) {
            threads = std::max(1, threads - static_cast<int>(mRandom() % 3));
            frames = static_cast<int>(mRandom() % static_cast<unsigned>(std::max(frames, 1) * 2 + 1));
        }
        SSample* sample = addRandomSample(threads, frames, shape.numMetrics);
        if (!pending.isNull())
            sample->addKernelHit(pending);
        pending.detach();
        if (shape.kernelHitEvery <= 0 || i % shape.kernelHitEvery != 0)
            continue;
        pending = zor_shared_ptr<SGpuKernelHit>(new SGpuKernelHit(static_cast<unsigned>(mRandom()),
                                                                  static_cast<unsigned>(mRandom() % 100),
                                                                  sample->getTimestamp(), sample->getTimestamp()));
        pending->setSamplingRecordInfo(mRandom() % 10, mRandom() % 10000, 1 + mRandom() % 1000);
        for (unsigned lines = mRandom() % 4; lines > 0; --lines) {
            const std::uint32_t samples = static_cast<std::uint32_t>(mRandom() % 100);
            pending->addLineHit(static_cast<std::uint32_t>(mRandom()),
                                static_cast<GpuProfilerTypes::StallReason::Enum>(mRandom() % 12), samples, samples / 2);
        }
        sample->addKernelHit(pending);
    }
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
    {
        // Written as the sampler writes its file, in a few large writes.
        std::vector<char> buffer(256 * 1024);
        quorvex::fileio::WriteBehind behind(fd, buffer.data(), buffer.size());
        write(fd);
    }
    close(fd);
}

std::vector<char> SampleFileBuilder::bytes() const
{
    TempFile file("zor-bytes");
    writeTo(file);
    return file.contents();
}

namespace {

std::ostream& operator<<(std::ostream& out, const timespec& t)
{
    return out << t.tv_sec << "s" << t.tv_nsec << "ns";
}

// Exact bits, so that a NaN equals itself and 0.0 differs from -0.0.
std::ostream& operator<<(std::ostream& out, const SampleValue& v)
{
    out << "type " << int(v.type());
    return v.empty() ? out : out << " bits " << v.rawBits();
}

template <typename T, typename A>
std::ostream& operator<<(std::ostream& out, const std::vector<T, A>& items)
{
    out << items.size() << std::hex;
    for (const T& item : items)
        out << " " << item;
    return out << std::dec;
}

// Each field on a line of its own; a line ending in ':' opens a nested record.
std::ostream& describe(std::ostream& out, const SSimpleBacktrace& b)
{
    out << "valid " << b.isValid() << "\n";
    if (!b.isValid())
        return out;
    return out << "tid " << b.tid() << "\nunwind status " << b.unwindStatus() << "\nstops at calling frame "
               << b.stopsAtCallingFrame() << "\nframes " << b.trace() << "\n";
}

std::ostream& describe(std::ostream& out, const SBacktrace& b)
{
    describe(out, static_cast<const SSimpleBacktrace&>(b));
    if (!b.isValid())
        return out;
    return out << "parallel id " << b.parallelId() << "\nin MPI " << b.inMpi() << "\nsleeping " << b.isSleeping()
               << "\nCPU time " << b.cpuTime() << "\n";
}

std::ostream& describe(std::ostream& out, const SGpuKernelHit& k)
{
    out << "correlation id " << k.correlationId() << "\nkernel name id " << k.kernelNameId() << "\nstart "
        << k.startTime() << "\nend " << k.endTime() << "\ndropped " << k.droppedSamples() << "\ntotal "
        << k.totalSamples() << "\nperiod " << k.samplingPeriodInCycles() << "\nlines " << k.lineHits().size() << "\n";
    for (const auto& line : k.lineHits()) {
        const auto& hits = line.second;
        out << "line " << line.first << std::hex;
        for (size_t i = 0; i < sizeof hits.samples / sizeof hits.samples[0]; ++i)
            out << " " << hits.samples[i] << "/" << hits.latencySamples[i];
        out << std::dec << "\n";
    }
    return out;
}

std::ostream& describe(std::ostream& out, const SSample& s)
{
    out << "valid " << s.isValid() << "\ntimestamp " << s.getTimestamp() << "\ninterval " << s.getInterval()
        << "\nwindow " << s.getWindow() << "\ndownsampled " << s.downsamplingHappened() << "\nother threads "
        << s.otherThreads().count() << "\n";
    const SMetrics& m = s.metrics();
    out << "metrics valid " << m.isValid() << "\nmetrics " << m.size() << "\n";
    for (unsigned i = 0; i < m.size(); ++i)
        out << "metric " << i << ": " << m.getMetricValue(i) << ", interval " << m.getMetricInterval(i)
            << ", divides " << m.shouldDivideBySampleInterval(i) << "\n";
    out << "thread list " << s.threadList() << "\nkernel hits " << s.kernelHits().size() << "\n";
    // The nested records last, so that a header stands for all lines after it.
    describe(out << "main thread:\n", s.mainThreadTrace());
    for (size_t i = 0; i < s.otherThreads().count(); ++i)
        describe(out << "thread " << i << ":\n", s.otherThreads()[i]);
    for (size_t k = 0; k < s.kernelHits().size(); ++k)
        describe(out << "kernel hit " << k << ":\n", *s.kernelHits()[k]);
    return out;
}

std::ostream& describe(std::ostream& out, const SSampleList& l)
{
    out << "samples " << l.size() << "\n";
    for (unsigned i = 0; i < l.size(); ++i)
        describe(out << "sample " << i << ":\n", l.at(i));
    return out;
}

std::ostream& describe(std::ostream& out, const SCallSite& c)
{
    out << "valid " << c.isValid() << "\n";
    if (!c.isValid())
        return out;
    out << "parallel id " << c.parallelId() << "\ntid " << c.tid() << "\ntag " << c.tag() << "\ntrace:\n";
    return describe(out, *c.callSite());
}

// The first line that differs, after the headers of the records it sits in;
// empty when the records are equal.
template <typename Record>
std::string firstDifference(const Record& a, const Record& b)
{
    std::stringstream da, db;
    describe(da, a);
    describe(db, b);
    std::string la, lb, sample, record;
    for (;;) {
        std::getline(da, la);
        std::getline(db, lb);
        if (!da && !db)
            return "";
        if (la != lb)
            return sample + record + la + " != " + lb;
        if (la.compare(0, 7, "sample ") == 0) {
            sample = la + " ";
            record.clear();
        } else if (la.back() == ':') {
            record = la + " ";
        }
    }
}

} // namespace

std::string compareBacktraces(const SBacktrace& a, const SBacktrace& b) { return firstDifference(a, b); }
std::string compareSamples(const SSample& a, const SSample& b) { return firstDifference(a, b); }
std::string compareLists(const SSampleList& a, const SSampleList& b) { return firstDifference(a, b); }
std::string compareCallSites(const SCallSite& a, const SCallSite& b) { return firstDifference(a, b); }

} // namespace zortest
