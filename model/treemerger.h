// Merges the call trees of many ranks into one, on all cores, with memory
// that follows the distinct nodes rather than the number of trees.
//
// Trees are merged in the order they were added, in segments of SEGMENT
// consecutive inputs: each input goes straight into the merged table of its
// segment, and each finished segment into the table of the segments before
// it. A table is flat: one array of merged nodes in the order they were
// first seen, each with its parent, the hash of its position, the counts
// per rank as a list of rank ranges (one range while ranks come in order)
// and one node of the inputs that stands for it; children are found through
// one hash of (parent, position). Input nodes that match a merged node are
// freed as they are visited; the tree is built from the table once, by
// take().
//
// The result equals merging every tree into the first one with
// mergePSVModelItem, in the order added (the same counts, flags and order of
// children), except that every ancestor of a node with an unexpected stop
// is marked, as in a tree read back from XML: merging in turn leaves
// unmarked the ancestors of a subtree that moves over. Node types must keep
// their own fields in extraMergePSVModelItem, which is called with the
// merged node first; it is called in the order added within a segment, and
// a segment's merged node is merged into those before it, so it must be
// associative. Counts maps that are brief or elided, and CUDA counts, merge
// through IntProcessMap::set, in turn within a segment and then segment by
// segment.
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
class MergeTable;

class TreeMerger
{
public:
    // threads: how many threads merge; 0 for one per core. context goes to
    // every extraMergePSVModelItem call.
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

private:
    // The merged inputs [first, first + count): a lone input as it came,
    // or a table.
    struct Run
    {
        long long first;
        long long count;
        PSVModelItem* tree;
        MergeTable* table;
        bool busy;
    };
    struct Job
    {
        Run target;
        Run source;
    };

    void work();
    // Under mLock: queues the merges of neighbouring idle runs; of any two
    // once finishing.
    void schedule();
    MergeTable* merge(const Job& job);

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
