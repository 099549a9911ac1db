#include "treemerger.h"

#include "psvmodelitem.h"

#include <algorithm>

TreeMerger::TreeMerger(int threads, void* context) : mContext(context)
{
    if (threads <= 0)
        threads = int(std::max(1u, std::thread::hardware_concurrency()));
    for (int i = 0; i < threads; ++i)
        mThreads.emplace_back(&TreeMerger::work, this);
}

TreeMerger::~TreeMerger()
{
    {
        std::unique_lock<std::mutex> lock(mLock);
        mJobs.clear(); // their trees are still held by the runs
        mQuit = true;
        mJobReady.notify_all();
    }
    for (std::thread& thread : mThreads)
        thread.join();
    for (const Run& run : mRuns)
        delete run.tree;
}

void TreeMerger::add(PSVModelItem* tree)
{
    std::unique_lock<std::mutex> lock(mLock);
    mRuns.push_back(Run{mAdded++, 1, tree, false});
    schedule();
}

void TreeMerger::wait()
{
    std::unique_lock<std::mutex> lock(mLock);
    mJobDone.wait(lock, [this] { return mJobs.empty() && mRunning == 0; });
}

PSVModelItem* TreeMerger::take()
{
    std::unique_lock<std::mutex> lock(mLock);
    mFinishing = true;
    schedule();
    mJobDone.wait(lock, [this] { return mRuns.size() <= 1 && mJobs.empty() && mRunning == 0; });
    mFinishing = false;
    PSVModelItem* root = mRuns.empty() ? nullptr : mRuns.front().tree;
    mRuns.clear();
    return root;
}

void TreeMerger::schedule()
{
    for (size_t i = 0; i + 1 < mRuns.size(); ++i) {
        Run& left = mRuns[i];
        Run& right = mRuns[i + 1];
        if (left.busy || right.busy)
            continue;
        // Within a segment the inputs go one by one into its first one; a
        // finished segment goes into the result of those before it.
        const bool inSegment = left.first / SEGMENT == right.first / SEGMENT && left.first % SEGMENT == 0;
        const bool segmentDone = right.count >= SEGMENT && left.first == mRuns.front().first;
        if (!(inSegment || segmentDone || mFinishing))
            continue;
        left.busy = true;
        right.busy = true;
        mJobs.push_back(Job{left.tree, right.tree, right.first});
        mJobReady.notify_one();
        ++i;
    }
}

void TreeMerger::work()
{
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        mJobReady.wait(lock, [this] { return mQuit || !mJobs.empty(); });
        if (mQuit)
            return;
        const Job job = mJobs.front();
        mJobs.pop_front();
        ++mRunning;
        lock.unlock();
        absorb(job.target, job.source, mContext);
        lock.lock();
        --mRunning;
        // The source's run joins the one before it, which holds the target.
        for (size_t i = 1; i < mRuns.size(); ++i) {
            if (mRuns[i].first == job.sourceFirst) {
                mRuns[i - 1].count += mRuns[i].count;
                mRuns[i - 1].busy = false;
                mRuns.erase(mRuns.begin() + long(i));
                break;
            }
        }
        schedule();
        mJobDone.notify_all();
    }
}

void TreeMerger::absorb(PSVModelItem* target, PSVModelItem* source, void* context)
{
    // With its children taken away, merging source merges its own fields only.
    const QList<PSVModelItem*> children = source->takeChildren();
    target->mergePSVModelItem(*source, context);
    // The flags of source's descendants reach target's descendants, whether
    // merged or moved, so target is above them as source was.
    target->mUnexpectedStopAncestor = target->mUnexpectedStopAncestor || source->mUnexpectedStopAncestor;
    delete source;
    for (PSVModelItem* child : children) {
        if (PSVModelItem* match = target->findChildLike(child))
            absorb(match, child, context);
        else
            target->addPSVModelItem(child, context);
    }
}
