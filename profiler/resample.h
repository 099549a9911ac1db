// Resampling: every process holds its own number of samples, taken at times
// of its own; the front-end needs the same number from each, on a common
// time axis. Times are in milliseconds from the start of the run.
#ifndef ZOR_RESAMPLE_H
#define ZOR_RESAMPLE_H

#include <QLinkedList>

#include "metric.h"
#include "samplelist.h"

class PSVModelItem;
class Sample;

// Exactly `numSamples` new samples, one per equal range of `duration`, each a
// copy of a real sample picked at random for its range, with the CPU time
// that really fell into the range. The source keeps its samples; only the
// CPU time already handed out is recorded in them. The caller owns the new
// samples. Metrics that can't be served are reported in `errors`.
SampleList resample(QLinkedListIterator<Sample*> source, long long duration, int numSamples,
                    const MetricDefinitions& definitions, MetricErrorMap& errors);

// The first sample taken after a random moment of [start, end), searched
// from `from` onwards; the last sample of the list if none is; null only for
// an empty list.
Sample* sampleForTimeRange(long long start, long long end, QLinkedListIterator<Sample*> from);

// Adds the instruction under each awake thread of the sample to the line
// metrics of the source line where its tree ends (the leaf reached by first
// children), and for the main thread to its main-thread metrics too. Does
// nothing where instruction metrics can't be had.
void populateLineMetrics(const MetricDefinitions& definitions, Sample& sample);
// The same for one awake thread whose leaf is known.
void addLineMetricsOfLeaf(Sample& sample, int tid, PSVModelItem* leaf);

// Whether instruction metrics (line metrics, the instruction mix window) can
// be had on this processor: decided when the back-end is built.
bool cpuInstructionMetricsSupported(const MetricDefinitions& definitions);

#endif
