#include "sampleencoder.h"

SampleEncoder::SampleEncoder()
    : mThread([this]() { work(); })
{
}

SampleEncoder::~SampleEncoder()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
    }
    mQueued.notify_one();
    mThread.join();
}

int SampleEncoder::newList()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mNextList++;
}

int SampleEncoder::add(int list, const QList<Sample>& samples)
{
    int ticket;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ticket = mNextTicket++;
        mQueue.push_back(Piece{ticket, list, samples});
    }
    mQueued.notify_one();
    return ticket;
}

ResultFile::EncodedSamples SampleEncoder::take(const QList<int>& tickets)
{
    QList<ResultFile::EncodedSamples> pieces;
    std::unique_lock<std::mutex> lock(mMutex);
    for (int ticket : tickets) {
        mMade.wait(lock, [&]() { return mPieces.contains(ticket); });
        pieces.append(mPieces.take(ticket));
    }
    lock.unlock();
    return ResultFile::join(pieces);
}

void SampleEncoder::work()
{
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;) {
        mQueued.wait(lock, [this]() { return mStopping || !mQueue.empty(); });
        // What is left at the end is no longer wanted.
        if (mStopping)
            return;
        const Piece next = mQueue.front();
        mQueue.pop_front();
        lock.unlock();
        std::unique_ptr<SampleTreeTable>& trees = mTrees[next.list];
        if (!trees)
            trees.reset(new SampleTreeTable);
        ResultFile::EncodedSamples piece = ResultFile::encodeSamples(next.samples, trees.get());
        lock.lock();
        mPieces.insert(next.ticket, piece);
        mMade.notify_all();
    }
}
