// Resampling cost against the size of the source: builds N samples of 16
// threads each and resamples them down to 1,000, several times per size,
// printing the time per source sample. The cost should stay flat per
// sample as N grows: the whole is linear in the source.
//
//   build/bin/bench-resample [N ...]     (default 250000 500000 1000000)
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLinkedList>
#include <QRandomGenerator>
#include <algorithm>
#include <cstdio>

#include "constants.h"
#include "resample.h"
#include "sample.h"

namespace {

QLinkedList<Sample*> makeSource(int count)
{
    QRandomGenerator random(42);
    QLinkedList<Sample*> samples;
    const QString instructions[] = { QStringLiteral("addsd"), QStringLiteral("movq"), QStringLiteral("callq") };
    long long stamp = 0;
    for (int i = 0; i < count; ++i) {
        Sample* sample = new Sample;
        stamp += 1 + random.bounded(3);
        sample->backendOnly_setTimestamp(stamp);
        QSet<int> live;
        for (int t = 0; t < 16; ++t) {
            sample->backendOnly_addThread(nullptr, 1000 + t, ThreadContext(), InstructionQuery(instructions[t % 3], false),
                                          t == 0 ? Sample::MainThread : Sample::OtherThread,
                                          random.bounded(2000000), false);
            live.insert(1000 + t);
        }
        sample->backendOnly_setLiveThreads(live);
        sample->setMetric(QString::fromLatin1(METRIC_MPI_TIME_IN_CALL), SampleValue(1000UL));
        samples.append(sample);
    }
    return samples;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QList<int> sizes;
    for (int i = 1; i < argc; ++i)
        sizes.append(QString::fromLatin1(argv[i]).toInt());
    if (sizes.isEmpty())
        sizes = { 250000, 500000, 1000000 };
    MetricDefinitions definitions;
    definitions.addMetric(Metric(QString::fromLatin1(METRIC_MPI_TIME_IN_CALL), 0));
    std::printf("%12s %12s %14s %16s\n", "source", "result", "best ms", "ns/source sample");
    for (int size : sizes) {
        QLinkedList<Sample*> source = makeSource(size);
        const long long duration = source.last()->backendOnly_getTimestamp();
        double best = 1e300;
        for (int run = 0; run < 3; ++run) {
            MetricErrorMap errors;
            QElapsedTimer timer;
            timer.start();
            SampleList result = resample(QLinkedListIterator<Sample*>(source), duration, 1000, definitions, errors);
            best = std::min(best, timer.nsecsElapsed() / 1e6);
            qDeleteAll(result.begin(), result.end());
        }
        std::printf("%12d %12d %14.1f %16.1f\n", size, 1000, best, best * 1e6 / size);
        qDeleteAll(source);
    }
    return 0;
}
