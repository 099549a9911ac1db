// Merges the call trees of many ranks into one, as the front-end does with
// the trees it adds up from each rank's samples (one FlatTree per rank),
// then writes the result as XML and reads
// it back. Prints time and peak memory for each number of ranks. The merge
// and the reading each run in a process of their own, so that each peak is
// that phase's alone.
//
// The input trees are built in batches on all threads, untimed, and each
// batch is then handed to a TreeMerger, which merges on its own threads
// while the clock runs; the merger keeps its partial results from batch to
// batch. So the merge times are those of merging alone, with every core.
//
// Columns: ranks; input nodes (all ranks' trees together); nodes of the
// merged tree; seconds building the input trees (wall, not part of the
// merge); seconds merging, wall and CPU of all threads; merge CPU
// nanoseconds per input node; peak MiB of the merging process, which holds a
// batch of input trees besides the merger's trees; MiB of heap that the
// merged tree holds in the end; ranges per node's rank-to-count map, mean
// and max; of the nodes seen by every rank, the share whose map is a single
// range; XML MiB; seconds writing; seconds reading; peak MiB of the reading
// process, which holds the XML and the tree. Write and read times are CPU
// seconds of the process.
//
//   bench-tree-merge [-j threads] [-b batch] [nodes-per-tree] [ranks ...]
//   defaults: one thread per core, batches of 32 trees, 10000 nodes,
//   256 512 1024 2048 4096 ranks
#include "flattree.h"
#include "internstringcache.h"
#include "psvmodelitem.h"
#include "treemerger.h"
#include "xmlwriting.h"

#include <QByteArray>
#include <QFile>
#include <QXmlStreamReader>

#include <malloc.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace {

const quint32 NONE = 0xffffffffu;

// The template program: one call tree that every rank's tree is a variation of.
struct TemplateNode
{
    Position position;
    int parent;
    int depth;
    int threads;         // threads of a rank at this node
    bool imbalanced;     // the count differs between groups of ranks
    std::vector<int> children;
};

struct Shape
{
    int nodes = 0;
    int maxDepth = 0;
    double meanDepth = 0;
    int maxWidth = 0;
    int leaves = 0;
};

std::vector<TemplateNode> makeTemplate(int nodeCount)
{
    std::mt19937 rng(20240611);
    InternStringCache names;
    std::vector<QString> functions;
    std::vector<QString> files;
    for (int i = 0; i < 200; ++i)
        files.push_back(names.intern(QStringLiteral("/home/user/app/src/module%1/file%2.cpp").arg(i % 17).arg(i)));
    for (int i = 0; i < 2500; ++i)
        functions.push_back(names.intern(QStringLiteral("app::Module%1::function_%2(int, double const*)").arg(i % 31).arg(i)));

    std::vector<TemplateNode> nodes;
    nodes.push_back(TemplateNode{Position(), -1, 0, 4, false, {}});
    auto addNode = [&](int parent) {
        TemplateNode node;
        node.parent = parent;
        node.depth = nodes[parent].depth + 1;
        node.position = Position(functions[rng() % functions.size()], files[rng() % files.size()],
                                 1 + int(rng() % 3000), -1);
        // Most frames run on one thread per rank; parallel regions on several.
        node.threads = rng() % 5 == 0 ? 2 + int(rng() % 7) : 1;
        node.imbalanced = rng() % 100 == 0;
        node.children.clear();
        nodes.push_back(node);
        const int index = int(nodes.size()) - 1;
        nodes[parent].children.push_back(index);
        return index;
    };
    // Program frame, main, the main loop.
    int top = addNode(addNode(addNode(0)));
    // Grow: mostly deepen the newest frame or give a sibling to one of its
    // callers, sometimes call from anywhere; a few callers become wide.
    int newest = top;
    std::vector<int> hubs;
    while (int(nodes.size()) < nodeCount) {
        int parent;
        const unsigned choice = rng() % 100;
        if (choice < 45 && nodes[newest].depth < 60) {
            parent = newest;
        } else if (choice < 80) {
            parent = newest;
            for (int up = int(rng() % 4); up > 0 && nodes[parent].parent > 0; --up)
                parent = nodes[parent].parent;
        } else if (choice < 90 && !hubs.empty()) {
            parent = hubs[rng() % hubs.size()];
        } else {
            parent = 3 + int(rng() % (nodes.size() - 3));
            if (rng() % 20 == 0)
                hubs.push_back(parent);
        }
        newest = addNode(parent);
    }
    return nodes;
}

Shape shapeOf(const std::vector<TemplateNode>& nodes)
{
    Shape shape;
    shape.nodes = int(nodes.size());
    double depthSum = 0;
    for (const TemplateNode& node : nodes) {
        shape.maxDepth = std::max(shape.maxDepth, node.depth);
        shape.maxWidth = std::max(shape.maxWidth, int(node.children.size()));
        depthSum += node.depth;
        if (node.children.empty())
            ++shape.leaves;
    }
    shape.meanDepth = depthSum / nodes.size();
    return shape;
}

// One rank's tree: the template, with a few leaves not sampled on this rank
// and a few frames of its own (one of eight variants per caller).
FlatTree* makeRankTree(const std::vector<TemplateNode>& nodes, int rank, const std::shared_ptr<FlatNames>& names,
                       int* nodesMade)
{
    std::mt19937 rng(unsigned(rank) * 7919u + 1u);
    std::vector<quint32> made(nodes.size(), NONE);
    FlatTree* tree = new FlatTree(rank, names);
    tree->addThreads(FlatTree::ROOT, nodes[0].threads);
    made[0] = FlatTree::ROOT;
    for (size_t i = 1; i < nodes.size(); ++i) {
        const TemplateNode& node = nodes[i];
        const quint32 parent = made[size_t(node.parent)];
        if (parent == NONE || (node.children.empty() && rng() % 20 == 0))
            continue;
        const quint32 item = tree->addChild(parent, node.position);
        const int threads = node.imbalanced ? node.threads + (rank / 64) % 2 : node.threads;
        tree->addThreads(item, threads);
        made[i] = item;
        if (rng() % 33 == 0) {
            const int variant = int(rng() % 8);
            const quint32 own = tree->addChild(
                item, Position(node.position.function, node.position.file, node.position.line + 10000 + variant, -1));
            tree->addThreads(own, 1);
        }
    }
    *nodesMade = tree->size();
    return tree;
}

struct TreeStats
{
    long long nodes = 0;
    long long ranges = 0;
    int maxRanges = 0;
    long long allRankNodes = 0; // nodes seen by every rank
    long long allRankSingleRange = 0;
};

void collect(const PSVModelItem& node, int ranks, TreeStats& stats)
{
    ++stats.nodes;
    const IntProcessMap& map = node.processToThreadCountMap();
    stats.ranges += map.rangeCount();
    stats.maxRanges = std::max(stats.maxRanges, map.rangeCount());
    if (map.sizeLowerBound() == ranks) {
        ++stats.allRankNodes;
        if (map.rangeCount() == 1)
            ++stats.allRankSingleRange;
    }
    for (const PSVModelItem* child : node.children())
        collect(*child, ranks, stats);
}

// CPU time of this process, so that figures taken on a shared machine
// don't count the time spent waiting for a core.
class CpuTimer
{
public:
    void start() { mStart = now(); }
    qint64 nsecsElapsed() const { return now() - mStart; }

private:
    static qint64 now()
    {
        timespec t;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return qint64(t.tv_sec) * 1000000000 + t.tv_nsec;
    }
    qint64 mStart = 0;
};

double peakMiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024.0;
    }
    return -1;
}

double heapMiB()
{
    const struct mallinfo2 info = mallinfo2();
    return double(info.uordblks + info.hblkhd) / 1048576.0;
}

double wallSeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Builds the trees of ranks [first, first + trees.size()) on threads threads.
void buildBatch(const std::vector<TemplateNode>& shape, const std::shared_ptr<FlatNames>& names, int first,
                std::vector<FlatTree*>& trees, std::vector<int>& made, int threads)
{
    std::vector<std::thread> builders;
    for (int t = 0; t < threads; ++t) {
        builders.emplace_back([&, t] {
            for (size_t i = size_t(t); i < trees.size(); i += size_t(threads))
                trees[i] = makeRankTree(shape, first + int(i), names, &made[i]);
        });
    }
    for (std::thread& builder : builders)
        builder.join();
}

// Merges the trees of ranks ranks and writes the result to xmlPath.
int runMerge(const std::vector<TemplateNode>& shape, int ranks, int threads, int batch, const QString& xmlPath)
{
    CpuTimer timer;
    double buildWall = 0;
    double mergeWall = 0;
    qint64 mergeNs = 0;
    long long inputNodes = 0;
    long long expectedRootThreads = 0;

    TreeMerger merger(threads);
    const std::shared_ptr<FlatNames> names = std::make_shared<FlatNames>();
    std::vector<FlatTree*> trees;
    std::vector<int> made;
    PSVModelItem* root = nullptr;
    for (int first = 0; first < ranks; first += batch) {
        const int count = std::min(batch, ranks - first);
        trees.assign(size_t(count), nullptr);
        made.assign(size_t(count), 0);
        double start = wallSeconds();
        buildBatch(shape, names, first, trees, made, merger.threadCount());
        buildWall += wallSeconds() - start;
        for (int i = 0; i < count; ++i) {
            inputNodes += made[size_t(i)];
            expectedRootThreads += trees[size_t(i)]->threads(FlatTree::ROOT);
        }

        start = wallSeconds();
        timer.start();
        for (FlatTree* tree : trees)
            merger.add(tree);
        if (first + count < ranks)
            merger.wait();
        else
            root = merger.take();
        mergeNs += timer.nsecsElapsed();
        mergeWall += wallSeconds() - start;
    }
    PSVModelItem& merged = *root;
    const double peakMerged = peakMiB();
    const double mergedMiB = heapMiB();
    if (merged.totalThreads() != expectedRootThreads) {
        std::fprintf(stderr, "root count %d, expected %lld\n", merged.totalThreads(), expectedRootThreads);
        return 1;
    }
    TreeStats stats;
    collect(merged, ranks, stats);

    timer.start();
    QByteArray xml;
    {
        XmlWriter writer(&xml);
        xml.append("<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
        writer.startElement(QLatin1String("tree"));
        merged.writeXml(writer);
        writer.endElement();
    }
    const qint64 writeNs = timer.nsecsElapsed();
    QFile file(xmlPath);
    if (!file.open(QIODevice::WriteOnly) || file.write(xml) != xml.size()) {
        std::fprintf(stderr, "can't write %s\n", qPrintable(xmlPath));
        return 1;
    }

    std::printf("%6d %10lld %9lld %7.2f %7.2f %7.2f %6.0f %8.1f %7.1f %6.2f %5d %6.1f%% %7.1f %6.2f",
                ranks, inputNodes, stats.nodes, buildWall, mergeWall, mergeNs / 1e9, double(mergeNs) / inputNodes,
                peakMerged, mergedMiB, double(stats.ranges) / stats.nodes, stats.maxRanges,
                stats.allRankNodes ? 100.0 * stats.allRankSingleRange / stats.allRankNodes : 0.0,
                xml.size() / 1048576.0, writeNs / 1e9);
    std::fflush(stdout);
    delete root;
    return 0;
}

// Reads the tree written by runMerge, as the receiving side would.
int runRead(const QString& xmlPath)
{
    QFile file(xmlPath);
    if (!file.open(QIODevice::ReadOnly))
        return 1;
    const QByteArray xml = file.readAll();
    file.close();

    CpuTimer timer;
    timer.start();
    PSVModelItem back;
    QXmlStreamReader reader(xml);
    QString error;
    if (!reader.readNextStartElement() || !back.readXml(reader, &error)) {
        std::fprintf(stderr, "reading back failed: %s\n", qPrintable(error));
        return 1;
    }
    const qint64 readNs = timer.nsecsElapsed();
    std::printf(" %6.2f %8.1f\n", readNs / 1e9, peakMiB());
    std::fflush(stdout);
    return 0;
}

bool runInChild(const std::function<int()>& work)
{
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0)
        _exit(work());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

int main(int argc, char** argv)
{
    int threads = 0;
    int batch = 32;
    int nodeCount = 10000;
    std::vector<int> rankCounts{256, 512, 1024, 2048, 4096};
    int arg = 1;
    for (; arg + 1 < argc && argv[arg][0] == '-'; arg += 2) {
        if (std::strcmp(argv[arg], "-j") == 0) {
            threads = std::atoi(argv[arg + 1]);
        } else if (std::strcmp(argv[arg], "-b") == 0) {
            batch = std::max(1, std::atoi(argv[arg + 1]));
        } else {
            std::fprintf(stderr, "usage: %s [-j threads] [-b batch] [nodes-per-tree] [ranks ...]\n", argv[0]);
            return 2;
        }
    }
    if (arg < argc)
        nodeCount = std::atoi(argv[arg++]);
    if (arg < argc) {
        rankCounts.clear();
        for (; arg < argc; ++arg)
            rankCounts.push_back(std::atoi(argv[arg]));
    }

    const std::vector<TemplateNode> shape = makeTemplate(nodeCount);
    const Shape s = shapeOf(shape);
    std::printf("tree of each rank: about %d nodes (template %d), depth max %d mean %.1f, widest caller %d children, %d leaves\n",
                nodeCount, s.nodes, s.maxDepth, s.meanDepth, s.maxWidth, s.leaves);
    std::printf("merging on %d threads, batches of %d trees\n", TreeMerger(threads).threadCount(), batch);
    std::printf("%6s %10s %9s %7s %7s %7s %6s %8s %7s %6s %5s %7s %7s %6s %6s %8s\n", "ranks", "input", "merged",
                "build", "merge", "cpu", "ns/in", "peakMiB", "treeMiB", "rng/nd", "max", "1-range", "xmlMiB", "write",
                "read", "peakMiB");
    std::fflush(stdout);

    const QString xmlPath = QStringLiteral("/tmp/bench-tree-merge_%1.xml").arg(getpid());
    for (int ranks : rankCounts) {
        if (!runInChild([&] { return runMerge(shape, ranks, threads, batch, xmlPath); })
            || !runInChild([&] { return runRead(xmlPath); })) {
            std::fprintf(stderr, "run with %d ranks failed\n", ranks);
            QFile::remove(xmlPath);
            return 1;
        }
    }
    QFile::remove(xmlPath);
    return 0;
}
