#include "managedsamplelist.h"

#include "sample.h"

ManagedSampleList::ManagedSampleList(QLinkedListIterator<Sample*> samples)
{
    while (samples.hasNext())
        mSamples.append(samples.next());
}

ManagedSampleList::~ManagedSampleList()
{
    qDeleteAll(mSamples);
}
