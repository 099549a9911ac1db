// The one list of samples that owns its samples: the result of resampling,
// kept between the commands that send it.
#ifndef ZOR_MANAGEDSAMPLELIST_H
#define ZOR_MANAGEDSAMPLELIST_H

#include <QLinkedList>
#include <QList>

class Sample;

class ManagedSampleList
{
public:
    // Takes ownership of every sample the iterator walks from where it stands.
    explicit ManagedSampleList(QLinkedListIterator<Sample*> samples);
    ~ManagedSampleList();
    ManagedSampleList(const ManagedSampleList&) = delete;
    ManagedSampleList& operator=(const ManagedSampleList&) = delete;

    QListIterator<Sample*> listIterator() const { return QListIterator<Sample*>(mSamples); }
    int size() const { return mSamples.size(); }

private:
    QList<Sample*> mSamples;
};

#endif
