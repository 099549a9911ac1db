// Merges the call trees of many ranks into one, on all cores, with memory
// that follows the distinct nodes rather than the number of trees.
//
// Trees are merged in the order they were added, in segments of SEGMENT
// consecutive inputs: each input goes straight into the first tree of its
// segment, and each finished segment into the result of the segments
// before it. So every input node is visited once, plus once more per
// segment for its merged tree, no partial trees pile up beside the result,
// and the rank-to-count maps stay single ranges when the inputs come in
// rank order. Segments are merged on all threads at
// once. The result equals merging every tree into the first one with
// mergePSVModelItem, in the order added (the same counts, flags and order of
// children), except that every ancestor of a node with an unexpected stop
// is marked, as in a tree read back from XML: merging in turn leaves
// unmarked the ancestors of a subtree that moves over.
//
//   TreeMerger merger;
//   for (...) merger.add(treeOfRank);   // returns at once; merging goes on meanwhile
//   PSVModelItem* root = merger.take();  // the merged tree, owned by the caller
#ifndef ZOR_TREEMERGER_H
#define ZOR_TREEMERGER_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

class PSVModelItem;

class TreeMerger
{
public:
    // threads: how many threads merge; 0 for one per core. context goes to
    // every mergePSVModelItem call.
    explicit TreeMerger(int threads = 0, void* context = nullptr);
    // Waits for the merging under way and deletes what was not taken.
    ~TreeMerger();
    TreeMerger(const TreeMerger&) = delete;
    TreeMerger& operator=(const TreeMerger&) = delete;

    // Takes ownership of tree, a root, and merges it in the background.
    void add(PSVModelItem* tree);
    // Returns once every pair that can be merged so far has been.
    void wait();
    // Merges what is left and hands the root over; null when nothing was
    // added. The merger is empty afterwards and may be used again.
    PSVModelItem* take();

    int threadCount() const { return int(mThreads.size()); }

    enum { SEGMENT = 8 };

    // target->mergePSVModelItem(*source, context), then delete source, but
    // each node of source is freed as soon as it has been merged, while it
    // is still in the cache. Children are matched by findChild; node types
    // whose addPSVModelItem matches otherwise aren't for this function.
    static void absorb(PSVModelItem* target, PSVModelItem* source, void* context);

private:
    // The merged trees of inputs [first, first + count).
    struct Run
    {
        long long first;
        long long count;
        PSVModelItem* tree;
        bool busy;
    };
    struct Job
    {
        PSVModelItem* target;
        PSVModelItem* source;
        long long sourceFirst;
    };

    void work();
    // Under mLock: queues the merges of neighbouring idle runs; of any two
    // once finishing.
    void schedule();

    void* mContext;
    std::mutex mLock;
    std::condition_variable mJobReady;
    std::condition_variable mJobDone;
    std::deque<Run> mRuns; // by first input
    std::deque<Job> mJobs;
    long long mAdded = 0;
    int mRunning = 0;
    bool mFinishing = false;
    bool mQuit = false;
    std::vector<std::thread> mThreads;
};

#endif
