// Resampling: the invariants a user relies on when every process's samples
// are put on one time axis.
#include <QRandomGenerator>
#include <gtest/gtest.h>

#include "constants.h"
#include "resample.h"
#include "sample.h"
#include "zorpsvmodelitem.h"

namespace {

MetricDefinitions withMpiTime()
{
    MetricDefinitions definitions;
    definitions.addMetric(Metric(QString::fromLatin1(METRIC_MPI_TIME_IN_CALL), 0));
    return definitions;
}

struct Source
{
    ~Source() { qDeleteAll(samples); }
    Sample* add(long long stamp, QMap<int, unsigned long long> cpu = {}, const QString& instruction = QString())
    {
        Sample* sample = new Sample;
        sample->backendOnly_setTimestamp(stamp);
        for (auto it = cpu.constBegin(); it != cpu.constEnd(); ++it)
            sample->backendOnly_addThread(nullptr, it.key(), ThreadContext(), InstructionQuery(instruction, false),
                                          Sample::OtherThread, it.value(), false);
        samples.append(sample);
        return sample;
    }
    QLinkedListIterator<Sample*> iterator() const { return QLinkedListIterator<Sample*>(samples); }
    QLinkedList<Sample*> samples;
};

struct Result
{
    explicit Result(const SampleList& list) : list(list) {}
    ~Result() { qDeleteAll(list.begin(), list.end()); }
    QVector<Sample*> all() const { return QVector<Sample*>(list.begin(), list.end()); }
    SampleList list;
};

TEST(Resample, GivesExactlyTheAskedNumberInsideTheirRanges)
{
    qsrand(7);
    Source source;
    long long stamp = 0;
    for (int i = 0; i < 5000; ++i) {
        stamp += 1 + QRandomGenerator::global()->bounded(40);
        source.add(stamp, { { 1, 100 } });
    }
    const long long duration = stamp;
    for (int numSamples : { 1, 7, 100, 1000, 4999 }) {
        MetricErrorMap errors;
        Result result(resample(source.iterator(), duration, numSamples, MetricDefinitions(), errors));
        ASSERT_EQ(result.list.size(), numSamples);
        const QVector<Sample*> samples = result.all();
        for (int i = 0; i < numSamples; ++i) {
            const long long start = i * duration / numSamples;
            const long long end = (i + 1) * duration / numSamples;
            const long long t = samples[i]->backendOnly_getTimestamp();
            EXPECT_GE(t, start) << "sample " << i << " of " << numSamples;
            EXPECT_LE(t, end) << "sample " << i << " of " << numSamples;
        }
        EXPECT_TRUE(errors.isEmpty());
    }
}

// Every source sample's CPU time is handed out once, in full, whatever the
// number of ranges; with the same threads in every sample the result's sum
// per thread is the source's total.
TEST(Resample, ConservesCpuTimeOverTheRun)
{
    qsrand(11);
    for (int numSamples : { 3, 50, 400, 2000 }) {
        Source source;
        QMap<int, unsigned long long> totals;
        long long stamp = 0;
        for (int i = 0; i < 1000; ++i) {
            stamp += 1 + QRandomGenerator::global()->bounded(9);
            QMap<int, unsigned long long> cpu;
            for (int tid : { 10, 11, 12 }) {
                cpu[tid] = QRandomGenerator::global()->bounded(5000000);
                totals[tid] += cpu[tid];
            }
            source.add(stamp, cpu);
        }
        MetricErrorMap errors;
        Result result(resample(source.iterator(), stamp, numSamples, MetricDefinitions(), errors));
        QMap<int, unsigned long long> resampled;
        for (const Sample* sample : result.list) {
            for (int tid : sample->backendOnly_sampledTids())
                resampled[tid] += sample->backendOnly_cpuTime(tid);
        }
        EXPECT_EQ(resampled, totals) << numSamples << " samples";
        for (const Sample* sample : source.samples) {
            for (int tid : sample->backendOnly_sampledTids())
                ASSERT_EQ(sample->backendOnly_getAllocatedCpuTime(tid), sample->backendOnly_cpuTime(tid));
        }
    }
}

TEST(Resample, SplitsASpanInProportionAndGivesTheRestToItsLastRange)
{
    // One sample at 100 ms holding 1000 ns of CPU time spent since 0; four
    // ranges of 25 ms share it out 250 each, the last taking the remainder.
    Source source;
    source.add(100, { { 1, 1001 } });
    MetricErrorMap errors;
    Result result(resample(source.iterator(), 100, 4, MetricDefinitions(), errors));
    QVector<unsigned long long> cpu;
    for (const Sample* sample : result.list)
        cpu.append(sample->backendOnly_cpuTime(1));
    EXPECT_EQ(cpu, QVector<unsigned long long>({ 250, 250, 250, 251 }));
    // All four ranges picked the one sample: three repeats.
    const QVector<Sample*> samples = result.all();
    EXPECT_FALSE(samples[0]->isRepeat());
    EXPECT_TRUE(samples[1]->isRepeat());
    EXPECT_TRUE(samples[3]->isRepeat());
}

TEST(Resample, RepeatsHaveTheirMpiTimeReducedByTheirDistanceToTheLastCopy)
{
    // Samples at 10 and 40 ms, four ranges of 10 ms: the last three all pick
    // the sample at 40; the second and third of those copies are repeats.
    Source source;
    source.add(10)->setMetric(QString::fromLatin1(METRIC_MPI_TIME_IN_CALL), SampleValue(5000000UL));
    source.add(40)->setMetric(QString::fromLatin1(METRIC_MPI_TIME_IN_CALL), SampleValue(25000000UL));
    MetricErrorMap errors;
    Result result(resample(source.iterator(), 40, 4, withMpiTime(), errors));
    const QVector<Sample*> samples = result.all();
    ASSERT_EQ(samples.size(), 4);
    QVector<long long> stamps;
    QVector<long long> mpi;
    QVector<bool> repeats;
    for (const Sample* sample : samples) {
        stamps.append(sample->backendOnly_getTimestamp());
        mpi.append(sample->metric(QString::fromLatin1(METRIC_MPI_TIME_IN_CALL)).singleValue().to_int64_t());
        repeats.append(sample->isRepeat());
    }
    EXPECT_EQ(stamps, QVector<long long>({ 10, 15, 25, 40 }));
    EXPECT_EQ(repeats, QVector<bool>({ false, false, true, true }));
    // The last copy keeps its 25 ms; the copies before it, down to the one
    // that began the run, lose their distance to it: 15 ms and 25 ms.
    EXPECT_EQ(mpi, QVector<long long>({ 5000000, 0, 10000000, 25000000 }));

    // Reduced, never below 0.
    Source small;
    small.add(100)->setMetric(QString::fromLatin1(METRIC_MPI_TIME_IN_CALL), SampleValue(1000000UL));
    Result clipped(resample(small.iterator(), 100, 10, withMpiTime(), errors));
    EXPECT_EQ(clipped.all().first()->metric(QString::fromLatin1(METRIC_MPI_TIME_IN_CALL)).singleValue().to_int64_t(), 0);
    // Without the metric in the definitions nothing is touched.
    Result untouched(resample(small.iterator(), 100, 10, MetricDefinitions(), errors));
    EXPECT_EQ(untouched.all().first()->metric(QString::fromLatin1(METRIC_MPI_TIME_IN_CALL)).singleValue().to_int64_t(),
              1000000);
}

TEST(Resample, EdgeShapesOfTheInput)
{
    MetricErrorMap errors;
    Source empty;
    Result fromNothing(resample(empty.iterator(), 100, 4, MetricDefinitions(), errors));
    QVector<long long> stamps;
    for (const Sample* sample : fromNothing.list) {
        stamps.append(sample->backendOnly_getTimestamp());
        EXPECT_TRUE(sample->backendOnly_sampledTids().isEmpty());
    }
    EXPECT_EQ(stamps, QVector<long long>({ 12, 37, 62, 87 }));

    Source some;
    some.add(5, { { 1, 10 } });
    some.add(9, { { 1, 10 } });
    EXPECT_EQ(resample(some.iterator(), 100, 0, MetricDefinitions(), errors).size(), 0);
    EXPECT_EQ(resample(some.iterator(), 100, -3, MetricDefinitions(), errors).size(), 0);

    // A duration of 0 puts every range at 0: all pick the first sample above 0.
    Result flat(resample(some.iterator(), 0, 3, MetricDefinitions(), errors));
    const QVector<Sample*> copies = flat.all();
    EXPECT_FALSE(copies[0]->isRepeat());
    EXPECT_TRUE(copies[1]->isRepeat());
    EXPECT_TRUE(copies[2]->isRepeat());
    EXPECT_EQ(copies[2]->backendOnly_getTimestamp(), 0);

    // A range after the last sample gets the last sample, with no CPU time.
    Result tail(resample(some.iterator(), 40, 4, MetricDefinitions(), errors));
    EXPECT_TRUE(tail.all().last()->isRepeat());
    EXPECT_EQ(tail.all().last()->backendOnly_cpuTime(1), 0u);
    EXPECT_EQ(tail.all().first()->backendOnly_cpuTime(1), 20u);
}

// Six samples of one thread running float, float, mem, mem, branch, branch:
// with a window of 5 each sample is judged on the instructions around it,
// and at the end on a window that shrinks towards it.
TEST(Resample, InstructionMixOverASlidingWindow)
{
    ASSERT_TRUE(cpuInstructionMetricsSupported(MetricDefinitions()));
    Source source;
    const char* instructions[] = { "addsd", "addsd", "movq", "movq", "callq", "callq" };
    for (int i = 0; i < 6; ++i) {
        Sample* sample = source.add(10 * (i + 1), { { 1, 1 } }, QString::fromLatin1(instructions[i]));
        sample->backendOnly_setLiveThreads({ 1 });
    }
    MetricErrorMap errors;
    Result result(resample(source.iterator(), 60, 6, MetricDefinitions(), errors));
    struct Mix { unsigned long fp, mem, branch; };
    const Mix expected[] = { { 66, 33, 0 }, { 50, 50, 0 }, { 40, 40, 20 }, { 20, 40, 40 }, { 0, 50, 50 }, { 0, 33, 66 } };
    const QVector<Sample*> samples = result.all();
    for (int i = 0; i < 6; ++i) {
        const QMap<QString, unsigned long> metrics = samples[i]->threadMetrics(1);
        EXPECT_EQ(metrics.value(QString::fromLatin1(METRIC_INSTR_FP)), expected[i].fp) << i;
        EXPECT_EQ(metrics.value(QString::fromLatin1(METRIC_INSTR_MEM)), expected[i].mem) << i;
        EXPECT_EQ(metrics.value(QString::fromLatin1(METRIC_INSTR_BRANCH)), expected[i].branch) << i;
        EXPECT_EQ(metrics.value(QString::fromLatin1(METRIC_INSTR_VECTOR_FP), 99), 0ul) << i;
        EXPECT_EQ(metrics.value(QString::fromLatin1(METRIC_INSTR_INT), 99), 0ul) << i;
    }
}

TEST(Resample, ASleepingOrAbsentThreadGetsNoMix)
{
    Source source;
    for (int i = 0; i < 6; ++i) {
        Sample* sample = new Sample;
        sample->backendOnly_setTimestamp(10 * (i + 1));
        sample->backendOnly_addThread(nullptr, 1, ThreadContext(), InstructionQuery(QStringLiteral("addsd"), false),
                                      Sample::MainThread, 1, i == 3);
        if (i != 4)
            sample->backendOnly_addThread(nullptr, 2, ThreadContext(), InstructionQuery(QStringLiteral("movq"), false),
                                          Sample::OtherThread, 1, false);
        sample->backendOnly_setLiveThreads({ 1, 2 });
        source.samples.append(sample);
    }
    MetricErrorMap errors;
    Result result(resample(source.iterator(), 60, 6, MetricDefinitions(), errors));
    const QVector<Sample*> samples = result.all();
    EXPECT_TRUE(samples[3]->threadMetrics(1).isEmpty());
    EXPECT_FALSE(samples[2]->threadMetrics(1).isEmpty());
    EXPECT_TRUE(samples[4]->threadMetrics(2).isEmpty());
    // Thread 2 was alive but off the processor at sample 4: its window at
    // sample 3 holds an empty entry, which lowers its memory share.
    EXPECT_EQ(samples[3]->threadMetrics(2).value(QString::fromLatin1(METRIC_INSTR_MEM)), 80ul);
}

// The kinds of an instruction reach its line (analysis test); a leaf on no
// line gets none.
TEST(LineMetrics, ALeafOnNoLineCountsNothing)
{
    ZORPSVModelItem* root = new ZORPSVModelItem;
    new ZORPSVModelItem(root, Position(QStringLiteral("kernel"), QStringLiteral("k.c"), 0, -1));
    Sample sample;
    sample.backendOnly_addThread(root, 1, ThreadContext(), InstructionQuery(QStringLiteral("addsd"), false),
                                 Sample::MainThread, 0, false);
    populateLineMetrics(MetricDefinitions(), sample);
    const auto* leaf = static_cast<const ZORPSVModelItem*>(sample.psvModel(1)->firstChild());
    EXPECT_TRUE(leaf->activeCoreLineMetrics().isEmpty() && leaf->mainThreadLineMetrics().isEmpty());
}

} // namespace
