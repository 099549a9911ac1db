// The result file's samples, compressed on a thread of its own block by
// block while the hosts still send, so that little of that work is left
// once the last block is in.
#ifndef ZOR_FRONTEND_SAMPLEENCODER_H
#define ZOR_FRONTEND_SAMPLEENCODER_H

#include <QHash>
#include <QList>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "result.h"
#include "sample.h"

class SampleEncoder
{
public:
    SampleEncoder();
    ~SampleEncoder();
    SampleEncoder(const SampleEncoder&) = delete;
    SampleEncoder& operator=(const SampleEncoder&) = delete;

    // Queues samples; the ticket names their piece.
    int add(const QList<Sample>& samples);
    // The pieces of `tickets` joined in that order, once made; each piece
    // is taken once.
    ResultFile::EncodedSamples take(const QList<int>& tickets);

private:
    void work();

    std::mutex mMutex;
    std::condition_variable mQueued;
    std::condition_variable mMade;
    std::deque<std::pair<int, QList<Sample>>> mQueue;
    QHash<int, ResultFile::EncodedSamples> mPieces;
    int mNextTicket = 0;
    bool mStopping = false;
    std::thread mThread; // last: starts once the rest is in place
};

#endif
