// The result file's samples, compressed on a thread of its own block by
// block while the hosts still send, so that little of that work is left
// once the last block is in.
#ifndef ZOR_FRONTEND_SAMPLEENCODER_H
#define ZOR_FRONTEND_SAMPLEENCODER_H

#include <QHash>
#include <QList>

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
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

    // A list of samples to be encoded in pieces: its pieces share one
    // table of trees.
    int newList();
    // Queues the next samples of `list`; the ticket names their piece.
    int add(int list, const QList<Sample>& samples);
    // The pieces of `tickets` joined in that order, once made; each piece
    // is taken once.
    ResultFile::EncodedSamples take(const QList<int>& tickets);

private:
    void work();

    std::mutex mMutex;
    std::condition_variable mQueued;
    std::condition_variable mMade;
    struct Piece
    {
        int ticket;
        int list;
        QList<Sample> samples;
    };
    std::deque<Piece> mQueue;
    QHash<int, ResultFile::EncodedSamples> mPieces;
    // Only the encoding thread uses the tables.
    std::map<int, std::unique_ptr<SampleTreeTable>> mTrees;
    int mNextTicket = 0;
    int mNextList = 0;
    bool mStopping = false;
    std::thread mThread; // last: starts once the rest is in place
};

#endif
