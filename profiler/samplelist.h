// The back-end's bounded list of analysed samples. When full it throws away
// about half of what it holds, one of each pair at random, so that a run of
// any length ends with samples spread evenly over all of it. The list owns
// none of its samples.
#ifndef ZOR_SAMPLELIST_H
#define ZOR_SAMPLELIST_H

#include <QLinkedList>

class Sample;

class SampleList
{
public:
    explicit SampleList(int capacity);

    int size() const { return mSamples.size(); }
    int capacity() const { return mCapacity; }

    QLinkedList<Sample*>::iterator begin() { return mSamples.begin(); }
    QLinkedList<Sample*>::iterator end() { return mSamples.end(); }
    QLinkedList<Sample*>::const_iterator begin() const { return mSamples.begin(); }
    QLinkedList<Sample*>::const_iterator end() const { return mSamples.end(); }
    // At the front; it shares the list's data, so a later addition detaches
    // the list from it.
    QLinkedListIterator<Sample*> iterator() const { return QLinkedListIterator<Sample*>(mSamples); }
    // Only for a list that isn't empty.
    Sample* lastSample() const { return mSamples.last(); }

    // Appends, thinning first if the list is full. Returns whether it
    // thinned, which tells the caller that the spacing has doubled.
    bool addSample(Sample* sample);
    // Keeps one sample of each pair from the front; a lone last one stays.
    void downsample();
    // Forgets the samples without deleting them; the capacity stays.
    void clear() { mSamples.clear(); }

private:
    int mCapacity;
    QLinkedList<Sample*> mSamples;
};

#endif
