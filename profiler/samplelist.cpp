#include "samplelist.h"

#include <QtGlobal>

SampleList::SampleList(int capacity)
    : mCapacity(capacity)
{
}

bool SampleList::addSample(Sample* sample)
{
    const bool thinned = size() >= mCapacity;
    if (thinned)
        downsample();
    mSamples.append(sample);
    return thinned;
}

void SampleList::downsample()
{
    QLinkedList<Sample*>::iterator first = mSamples.begin();
    while (first != mSamples.end()) {
        QLinkedList<Sample*>::iterator second = first;
        ++second;
        if (second == mSamples.end())
            break;
        // One value of qrand's range tips the coin; that bias is too small to matter.
        if (qrand() > 1073741822)
            first = mSamples.erase(second);
        else
            first = mSamples.erase(first) + 1;
    }
}
