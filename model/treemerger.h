// Merges the call trees of many ranks into one, on all cores, with memory
// that follows the distinct nodes rather than the number of trees.
//
// Each rank comes as a FlatTree, one array of nodes. Trees are merged in the
// order they were added, in segments of SEGMENT consecutive inputs: each
// input goes straight into the merged table of its segment, and each
// finished segment into the table of the segments before it. A table is
// flat too: one array of merged nodes in the order they were first seen,
// each with its parent, the hash of its position and the counts per rank as
// a list of rank ranges (one range while ranks come in order); children are
// found through one hash of (parent, position), after a guess from the order
// of the last tree. The tree is built from the table once, by take().
//
// The result equals building each rank's tree as PSVModelItems and merging
// every tree into the first one with mergePSVModelItem, in the order added
// (the same counts, flags and order of children), except that every
// ancestor of a node with an unexpected stop is marked, as in a tree read
// back from XML. A rank added twice takes the later tree's counts, as
// IntProcessMap::set does. The sums of merged nodes add up, and a tag is
// the first one other than 0.
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

class FlatTree;
class MergeTable;
class PSVModelItem;
class Position;

class TreeMerger
{
public:
    // Makes a node of the merged tree from its position and what its sums
    // and tag add up to; take() sets its counts, flags and children.
    typedef PSVModelItem* (*NodeFactory)(const Position& position, const int* sums, int tag);

    // threads: how many threads merge; 0 for one per core. make: null for
    // plain PSVModelItems.
    explicit TreeMerger(int threads = 0, NodeFactory make = nullptr);
    // Waits for the merging under way and deletes what was not taken.
    ~TreeMerger();
    TreeMerger(const TreeMerger&) = delete;
    TreeMerger& operator=(const TreeMerger&) = delete;

    // Takes ownership of tree and merges it in the background.
    void add(FlatTree* tree);
    // Returns once every pair that can be merged so far has been.
    void wait();
    // Merges what is left and hands the root over; null when nothing was
    // added. The merger is empty afterwards and may be used again.
    PSVModelItem* take();

    int threadCount() const { return int(mThreads.size()); }

    enum { SEGMENT = 16 };

private:
    // The merged inputs [first, first + count): a lone input as it came,
    // or a table.
    struct Run
    {
        long long first;
        long long count;
        FlatTree* tree;
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

    NodeFactory mMake;
    std::mutex mLock;
    std::condition_variable mJobReady;
    std::condition_variable mJobDone;
    std::deque<Run> mRuns; // by first input
    std::deque<Job> mJobs;
    std::vector<MergeTable*> mSpare; // emptied tables, kept for their memory
    long long mAdded = 0;
    int mRunning = 0;
    bool mFinishing = false;
    bool mQuit = false;
    std::vector<std::thread> mThreads;
};

#endif
