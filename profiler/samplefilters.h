// Cleaning and inspecting one metric's curve over a list of samples. They
// change values in place; the command path doesn't call them, they are
// there for whoever wants a cleaner curve.
#ifndef ZOR_SAMPLEFILTERS_H
#define ZOR_SAMPLEFILTERS_H

#include <QLinkedList>
#include <QString>

#include "samplevalue.h"

class Sample;
class SampleList;

// Whether two values differ by at most `threshold` whole units: the
// difference is truncated before it is compared.
bool areNeighbours(const SampleValue& a, const SampleValue& b, float threshold);

// Replaces lone spikes and dips by what their neighbours agree on, while a
// step to a new level that lasts three samples or more is kept.
void removeOutliers(SampleList& list, const QString& metric);

// Moves each sample half way towards the mean of its window; windows of
// `windowSize` (at least 1) follow one another, and an incomplete last one
// is left alone.
void smoothFilter(SampleList& list, const QString& metric, unsigned int windowSize);

// Debugging aid: the bytes written over time, as "time,bytes" lines.
void printIOWrites(QLinkedListIterator<Sample*> samples);

#endif
