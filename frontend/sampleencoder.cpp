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

int SampleEncoder::add(const QList<Sample>& samples)
{
    int ticket;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ticket = mNextTicket++;
        mQueue.emplace_back(ticket, samples);
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
        const std::pair<int, QList<Sample>> next = mQueue.front();
        mQueue.pop_front();
        lock.unlock();
        ResultFile::EncodedSamples piece = ResultFile::encodeSamples(next.second);
        lock.lock();
        mPieces.insert(next.first, piece);
        mMade.notify_all();
    }
}
