#include "resample.h"

#include <QHash>
#include <algorithm>

#include "constants.h"
#include "instructioncategories.h"
#include "linemetrics.h"
#include "sample.h"
#include "zorpsvmodelitem.h"

namespace {

typedef QHash<int, unsigned long long> CpuByThread;

// A source sample stands for the time since the sample before it, and its
// CPU time was spent over that span. Hands out to the range (start, end] its
// share of every span that overlaps it: a span cut by the range's end gives
// its proportion, the last part of a span what remains, so that nothing is
// lost or counted twice over the run.
CpuByThread allotCpuTime(long long start, long long end, QLinkedListIterator<Sample*> walker)
{
    CpuByThread amounts;
    if (!walker.hasNext())
        return amounts;
    long long before = walker.hasPrevious() ? walker.peekPrevious()->backendOnly_getTimestamp() : 0;
    long long after = walker.peekNext()->backendOnly_getTimestamp();
    if (before >= end)
        return amounts;
    for (;;) {
        Sample* sample = walker.next();
        for (int tid : sample->sampledTidList()) {
            const unsigned long long cpu = sample->backendOnly_cpuTime(tid);
            if (cpu == 0)
                continue;
            if (after - before == 0) {
                amounts[tid] += cpu;
            } else if (end < after) {
                const double share = static_cast<double>(end - qMax(start, before)) / (after - before) * cpu;
                const unsigned long long part = static_cast<unsigned long long>(share);
                amounts[tid] += part;
                sample->backendOnly_addAllocatedCpuTime(tid, part);
            } else {
                const unsigned long long rest = cpu - sample->backendOnly_getAllocatedCpuTime(tid);
                amounts[tid] += rest;
                sample->backendOnly_addAllocatedCpuTime(tid, rest);
            }
        }
        if (!walker.hasNext() || end <= after)
            break;
        before = after;
        after = walker.peekNext()->backendOnly_getTimestamp();
    }
    return amounts;
}

// A repeat carries the MPI time of its origin, measured at the origin's
// time; each earlier copy of a run of repeats loses its distance to the
// last copy, never going below 0.
void repairRepeats(SampleList& result, const MetricDefinitions& definitions)
{
    const QString mpiTime = QString::fromLatin1(METRIC_MPI_TIME_IN_CALL);
    const bool known = definitions.getMetricById(mpiTime) != nullptr;
    if (result.size() == 0)
        return;
    QLinkedList<Sample*>::iterator it = result.end();
    --it;
    Sample* anchor = *it;
    while (it != result.begin()) {
        Sample* sample = *it;
        --it;
        Sample* ahead = *it;
        if (!sample->isRepeat()) {
            anchor = ahead;
        } else if (known) {
            const long long delta =
                (anchor->backendOnly_getTimestamp() - ahead->backendOnly_getTimestamp()) * 1000000LL;
            ahead->setMetric(mpiTime,
                             SampleValue::max(SampleValue(0L), ahead->metric(mpiTime).singleValue() - SampleValue(delta)));
        }
    }
}

// The instruction mix of each thread over a window of samples around each
// sample. Lists hold the newest entry first; a thread that lives but isn't
// on a processor adds an empty entry.
void slidingWindow(SampleList& result)
{
    const int window = qMax(result.size() / 100, 5);
    const int half = window / 2;
    QHash<int, QList<InstructionQuery>> lists;
    QHash<int, int> seen;
    QLinkedListIterator<Sample*> lead = result.iterator();
    QLinkedListIterator<Sample*> centre = result.iterator();
    const QString fp = QString::fromLatin1(METRIC_INSTR_FP);
    const QString integer = QString::fromLatin1(METRIC_INSTR_INT);
    const QString mem = QString::fromLatin1(METRIC_INSTR_MEM);
    const QString vectorFp = QString::fromLatin1(METRIC_INSTR_VECTOR_FP);
    const QString vectorInt = QString::fromLatin1(METRIC_INSTR_VECTOR_INT);
    const QString branch = QString::fromLatin1(METRIC_INSTR_BRANCH);
    for (int i = 1; lead.hasNext() || centre.hasNext(); ++i) {
        Sample* centreSample = i > half && centre.hasNext() ? centre.next() : nullptr;
        if (lead.hasNext()) {
            const Sample* sample = lead.next();
            const QVector<int> sampled = sample->sampledTidList();
            for (int tid : sampled)
                lists[tid].prepend(sample->backendOnly_instruction(tid));
            for (int tid : sample->liveTidList()) {
                if (!std::binary_search(sampled.begin(), sampled.end(), tid) && lists.contains(tid))
                    lists[tid].prepend(InstructionQuery());
            }
        }
        const QList<int> tids = lists.keys();
        for (int tid : tids) {
            const int n = ++seen[tid];
            QList<InstructionQuery>& list = lists[tid];
            if (n > window && !list.isEmpty())
                list.removeLast();
            if (list.isEmpty()) {
                lists.remove(tid);
            } else if (centreSample && centreSample->backendOnly_hasSampleForThread(tid) && n > half
                       && !centreSample->backendOnly_isSleeping(tid)) {
                const InstructionMix mix = instructionMix(list);
                centreSample->backendOnly_setThreadMetric(tid, fp, mix.fp);
                centreSample->backendOnly_setThreadMetric(tid, integer, mix.integer);
                centreSample->backendOnly_setThreadMetric(tid, mem, mix.mem);
                centreSample->backendOnly_setThreadMetric(tid, vectorFp, mix.vectorFp);
                centreSample->backendOnly_setThreadMetric(tid, vectorInt, mix.vectorInt);
                centreSample->backendOnly_setThreadMetric(tid, branch, mix.branch);
            }
        }
    }
}

} // namespace

bool cpuInstructionMetricsSupported(const MetricDefinitions&)
{
#if defined(__x86_64__) || defined(__i386__)
    return true;
#else
    return false;
#endif
}

namespace {

// The line metrics of one instruction. A run has a few hundred distinct
// mnemonics under tens of thousands of thread samples, so each is worked out
// once.
const LineMetrics& lineMetricsOf(const InstructionQuery& query)
{
    static thread_local QHash<QString, LineMetrics> known[2];
    QHash<QString, LineMetrics>& table = known[query.implicitMemory ? 1 : 0];
    const auto found = table.constFind(query.instruction);
    if (found != table.constEnd())
        return *found;
    const QList<InstructionQuery> one{ query };
    const quint32 floatCount = floatInstructionCount(one);
    const quint32 intCount = intInstructionCount(one);
    const quint32 floatVector = floatVectorInstructionCount(one);
    const quint32 intVector = intVectorInstructionCount(one);
    const struct {
        const char* id;
        quint32 count;
    } counts[] = {
        { METRIC_INSTR_SCALAR_FP, floatCount - floatVector },
        { METRIC_INSTR_SCALAR_INT, intCount - intVector },
        { METRIC_INSTR_MEM, memInstructionCount(one) },
        { METRIC_INSTR_IMPLICIT_MEM, implicitMemInstructionCount(one) },
        { METRIC_INSTR_VECTOR_FP, floatVector },
        { METRIC_INSTR_VECTOR_INT, intVector },
        { METRIC_INSTR_BRANCH, branchInstructionCount(one) },
        { METRIC_INSTR_OTHER, otherInstructionCount(one) },
    };
    LineMetrics metrics;
    for (const auto& count : counts) {
        if (count.count > 0)
            metrics.set(QString::fromLatin1(count.id), count.count);
    }
    return *table.insert(query.instruction, metrics);
}

} // namespace

void populateLineMetrics(const MetricDefinitions& definitions, Sample& sample)
{
    if (!cpuInstructionMetricsSupported(definitions))
        return;
    for (int tid : sample.sampledTidList()) {
        if (sample.backendOnly_isSleeping(tid))
            continue;
        PSVModelItem* leaf = sample.backendOnly_mutablePsvModel(tid);
        if (!leaf)
            continue;
        while (leaf->firstChild())
            leaf = leaf->firstChild();
        addLineMetricsOfLeaf(sample, tid, leaf);
    }
}

void addLineMetricsOfLeaf(Sample& sample, int tid, PSVModelItem* leaf)
{
    if (!leaf->position().hasFileAndLine())
        return;
    ZORPSVModelItem* node = dynamic_cast<ZORPSVModelItem*>(leaf);
    if (!node)
        return;
    const LineMetrics& metrics = lineMetricsOf(sample.backendOnly_instruction(tid));
    node->mergeActiveCoreLineMetrics(metrics);
    if (sample.backendOnly_threadType(tid) == Sample::MainThread)
        node->mergeMainThreadLineMetrics(metrics);
}

Sample* sampleForTimeRange(long long start, long long end, QLinkedListIterator<Sample*> from)
{
    const long long offset = end > start ? qrand() % (end - start) : 0;
    const long long target = start + offset;
    while (from.hasNext()) {
        Sample* sample = from.next();
        if (sample->backendOnly_getTimestamp() > target)
            return sample;
    }
    from.toBack();
    return from.hasPrevious() ? from.peekPrevious() : nullptr;
}

SampleList resample(QLinkedListIterator<Sample*> source, long long duration, int numSamples,
                    const MetricDefinitions& definitions, MetricErrorMap& errors)
{
    SampleList result(numSamples);
    long long start = 0;
    const Sample* previous = nullptr;
    QLinkedListIterator<Sample*> position = source;
    for (int i = 1; i <= numSamples; ++i) {
        // Summed up and divided anew each time, so that rounding doesn't accumulate.
        const long long end = (static_cast<long long>(i) * duration) / numSamples;
        if (start != 0) {
            while (position.hasNext() && position.peekNext()->backendOnly_getTimestamp() <= start)
                position.next();
        }
        Sample* picked = sampleForTimeRange(start, end, position);
        Sample* sample = picked ? new Sample(*picked, picked == previous) : new Sample;
        const CpuByThread amounts = allotCpuTime(start, end, position);
        for (int tid : sample->sampledTidList())
            sample->backendOnly_setCpuTime(tid, amounts.value(tid, 0));
        result.addSample(sample);
        if (!sample->hasTimestamp() || sample->backendOnly_getTimestamp() > end)
            sample->backendOnly_setTimestamp((start + end) / 2);
        previous = picked;
        start = end;
    }

    repairRepeats(result, definitions);

    if (!cpuInstructionMetricsSupported(definitions)) {
        for (const char* metric : { METRIC_INSTR_FP, METRIC_INSTR_INT, METRIC_INSTR_MEM, METRIC_INSTR_VECTOR_FP,
                                    METRIC_INSTR_VECTOR_INT, METRIC_INSTR_BRANCH }) {
            const QString id = QString::fromLatin1(metric);
            QMap<int, MetricError> entry;
            entry.insert(1, MetricError(id, 1, QStringLiteral("CPU metrics unavailable on this architecture"), 1));
            errors[id] = entry;
        }
        return result;
    }
    slidingWindow(result);
    return result;
}
