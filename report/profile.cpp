#include "profile.h"

#include <QRegularExpression>
#include <QSet>

#include <algorithm>

#include "constants.h"
#include "flattree.h"
#include "instructioncategories.h"
#include "treemerger.h"

namespace {

const QString MainThreadLabel = QStringLiteral("main thread");
// The same words as the class frame of a worker between regions, so that
// one thread pool shows as one class.
const QString RegionThreadLabel = QStringLiteral("OpenMP worker thread");
const QString OtherThreadLabel = QStringLiteral("other threads");

// The leaves of a thread's tree, each with its path below the root. A
// sample's tree is one path; a tree with several is split evenly.
void collectPaths(const PSVModelItem* node, QVector<const PSVModelItem*>& path,
                  QVector<QVector<const PSVModelItem*>>* paths)
{
    if (node->childCount() == 0) {
        if (!path.isEmpty())
            paths->append(path);
        return;
    }
    for (const PSVModelItem* child : node->childNodes()) {
        path.append(child);
        collectPaths(child, path, paths);
        path.removeLast();
    }
}

ZORPSVModelItem::Special specialOf(const PSVModelItem* node)
{
    const ZORPSVModelItem* item = dynamic_cast<const ZORPSVModelItem*>(node);
    return item ? item->specialType() : ZORPSVModelItem::specialNone;
}

// A node of the merged tree, with the sample counts that the ranks' trees
// add up to.
PSVModelItem* makeNode(const Position& position, const int* sums, int tag)
{
    ZORPSVModelItem* node = new ZORPSVModelItem(position, sums[0], sums[1], sums[2], sums[3]);
    node->setSpecial(ZORPSVModelItem::Special(tag));
    return node;
}

// The class of a thread as its sample shows it: the frame below the
// program frame names workers and monitors in brackets.
QString classLabel(const Sample& sample, int tid, const QVector<const PSVModelItem*>& path)
{
    switch (sample.backendOnly_threadType(tid)) {
    case Sample::MainThread:
        return MainThreadLabel;
    case Sample::ParallelRegionThread:
        return RegionThreadLabel;
    default:
        break;
    }
    if (path.size() > 1 && specialOf(path.at(0)) == ZORPSVModelItem::specialProgramFrame) {
        const QString name = path.at(1)->position().function;
        // A trace cut short (a thread that didn't answer in time) shows its
        // mark where a thread's entry stands, and tells no class.
        if (name.startsWith(QLatin1Char('[')) && name.endsWith(QLatin1Char(']'))
            && name != QLatin1String(ZOR_FUNCTION_NAME_FOR_PARTIAL_TRACE))
            return name.mid(1, name.size() - 2);
    }
    return OtherThreadLabel;
}

// What threads of one kind share in their names: "GC Thread#3" and
// "pool-2-worker-17" are told apart by their numbers.
QString nameFamily(const QString& name)
{
    static const QRegularExpression numbered(QStringLiteral("[-_#:/. ]*\\d+([-_#:/. ]+\\d+)*[-_#:/. ]*$"));
    const QString family = QString(name).remove(numbered);
    return family.isEmpty() ? name : family;
}

// Whether a sample's instruction is one, rather than a mark of the analysis
// for a thread in MPI, on an accelerator or without a leaf.
bool isInstruction(const QString& mnemonic)
{
    return !mnemonic.isEmpty() && mnemonic != QLatin1String("mpi") && mnemonic != QLatin1String("accel")
        && mnemonic != QLatin1String("leaf-placeholder");
}

// The C library's ways of waiting for a child process, by the names its
// debug information gives them.
bool isWaitForChild(const QString& function)
{
    static const QRegularExpression names(QStringLiteral("^(__GI_)?_*(wait|wait3|wait4|waitpid|waitid|libc_wait)( \\[inlined\\])?$"));
    return names.match(function).hasMatch();
}

template <class Figure>
void sortBySelf(QList<Figure>* figures, int limit)
{
    std::stable_sort(figures->begin(), figures->end(),
                     [](const Figure& a, const Figure& b) { return a.selfNs > b.selfNs; });
    if (limit >= 0 && figures->size() > limit)
        figures->erase(figures->begin() + limit, figures->end());
}

} // namespace

Profile::Profile(const Result& result)
    : mResult(result)
    , mTree(new ZORPSVModelItem)
{
    build();
}

Profile::~Profile() = default;

void Profile::build()
{
    // Each rank's threads and samples are added up into a tree of the rank;
    // the ranks' trees, whose ranks are disjoint, then merge by position on
    // every core, each as soon as it is made.
    QVector<ThreadSample> threadSamples;
    TreeMerger merger(0, makeNode);
    const std::shared_ptr<FlatNames> names = std::make_shared<FlatNames>();
    QSet<QPair<int, int>> threads;
    for (const RankResult& rank : mResult.ranks) {
        mDurationMs = std::max(mDurationMs, rank.play.duration());
        for (const Sample& sample : rank.samples) {
            if (sample.hasTimestamp())
                mDurationMs = std::max(mDurationMs, sample.backendOnly_getTimestamp());
        }
    }
    if (mDurationMs <= 0)
        mDurationMs = mResult.run.wallMs;
    for (const RankResult& rank : mResult.ranks) {
        // Resampling cut the rank's run into as many equal stretches as it
        // sent samples, in order; a sample's CPU time was spent in its own.
        const double rankMs = rank.play.duration() > 0 ? rank.play.duration() : mDurationMs;
        const double stretchMs = rank.samples.isEmpty() ? 0 : rankMs / rank.samples.size();
        int index = 0;
        FlatTree* rankTree = new FlatTree(rank.rank(), names);
        for (const Sample& sample : rank.samples) {
            ++mSampleCount;
            const double beginMs = stretchMs * index++;
            for (int code : sample.libunwindErrorCodes())
                ++mUnwind.byCode[code];
            mUnwind.failed += sample.libunwindErrorCodes().size();
            for (int tid : sample.sampledTidList()) {
                ++mUnwind.threadSamples;
                threads.insert(qMakePair(rank.rank(), tid));
                const ZORPSVModelItem* tree = sample.psvModel(tid);
                QVector<QVector<const PSVModelItem*>> paths;
                QVector<const PSVModelItem*> path;
                if (tree)
                    collectPaths(tree, path, &paths);
                const bool sleeping = sample.backendOnly_isSleeping(tid);
                const bool inMpi = sample.backendOnly_instruction(tid).instruction == QLatin1String("mpi");
                rankTree->addThreads(FlatTree::ROOT, 1);
                for (const QVector<const PSVModelItem*>& p : paths) {
                    quint32 node = FlatTree::ROOT;
                    for (int i = 0; i < p.size(); ++i) {
                        bool made = false;
                        const quint32 child = rankTree->child(node, p.at(i)->position(), &made);
                        if (made)
                            rankTree->setTag(child, specialOf(p.at(i)));
                        rankTree->addThreads(child, 1);
                        rankTree->addSums(child, {1, i + 1 == p.size(), inMpi, sleeping});
                        node = child;
                    }
                }
                threadSamples.append({ rank.rank(), tid, beginMs, beginMs + stretchMs, sample.backendOnly_cpuTime(tid),
                                       classLabel(sample, tid, paths.value(0)), QString() });
                if (sample.backendOnly_threadType(tid) == Sample::MainThread) {
                    ++mChildWait.second;
                    if (sleeping && !paths.isEmpty() && !paths.first().isEmpty()) {
                        const QString& leaf = paths.first().last()->position().function;
                        if (isWaitForChild(leaf)) {
                            ++mChildWait.first;
                            mChildWaitFunction = leaf;
                        }
                    }
                }
            }
        }
        merger.add(rankTree);
    }
    mThreadCount = threads.size();
    if (PSVModelItem* merged = merger.take())
        mTree.reset(static_cast<ZORPSVModelItem*>(merged));

    // CPU time goes to the merged nodes of each sample's path.
    QHash<QString, int> functionIndex;
    QHash<QPair<QString, int>, int> lineIndex;
    QHash<QString, QHash<QPair<QString, int>, quint64>> functionLines;
    for (const RankResult& rank : mResult.ranks) {
        for (const Sample& sample : rank.samples) {
            for (int tid : sample.sampledTidList()) {
                const quint64 cpu = sample.backendOnly_cpuTime(tid);
                mCpuNs += cpu;
                if (cpu > 0 && !sample.backendOnly_isSleeping(tid)) {
                    const InstructionQuery& query = sample.backendOnly_instruction(tid);
                    if (isInstruction(query.instruction))
                        mInstructionNs[qMakePair(query.instruction, query.implicitMemory)] += cpu;
                    else if (query.instruction != QLatin1String("mpi") && query.instruction != QLatin1String("accel"))
                        mUnreadInstructionNs += cpu;
                }
                if (sample.backendOnly_threadType(tid) == Sample::MainThread) {
                    QPair<int, int>& mpi = mMpi[rank.rank()];
                    ++mpi.second;
                    if (sample.backendOnly_instruction(tid).instruction == QLatin1String("mpi"))
                        ++mpi.first;
                }
                const ZORPSVModelItem* tree = sample.psvModel(tid);
                if (!tree)
                    continue;
                QVector<QVector<const PSVModelItem*>> paths;
                QVector<const PSVModelItem*> path;
                collectPaths(tree, path, &paths);
                quint64 left = cpu;
                for (int n = 0; n < paths.size(); ++n) {
                    const quint64 share = n + 1 == paths.size() ? left : cpu / paths.size();
                    left -= share;
                    const PSVModelItem* node = mTree.get();
                    mTimes[node].totalNs += share;
                    QSet<QString> onPath;
                    for (const PSVModelItem* frame : paths.at(n)) {
                        node = node->findChild(frame->position());
                        Q_ASSERT(node); // the merged tree holds every path
                        mTimes[node].totalNs += share;
                        const QString& function = node->position().function;
                        if (onPath.contains(function))
                            continue;
                        onPath.insert(function);
                        auto it = functionIndex.constFind(function);
                        if (it == functionIndex.constEnd()) {
                            it = functionIndex.insert(function, mFunctions.size());
                            FunctionFigure figure;
                            figure.function = function;
                            figure.file = node->position().file;
                            figure.line = node->position().line;
                            mFunctions.append(figure);
                        }
                        mFunctions[*it].totalNs += share;
                    }
                    mTimes[node].selfNs += share;
                    const Position& leaf = node->position();
                    mFunctions[functionIndex.value(leaf.function)].selfNs += share;
                    if (leaf.hasFileAndLine()) {
                        const QPair<QString, int> key(leaf.file, leaf.line);
                        functionLines[leaf.function][key] += share;
                        auto line = lineIndex.constFind(key);
                        if (line == lineIndex.constEnd()) {
                            line = lineIndex.insert(key, mLines.size());
                            mLines.append({ leaf.file, leaf.line, leaf.function, 0 });
                        }
                        mLines[*line].selfNs += share;
                    }
                }
            }
        }
    }
    // A function is shown at its hottest line.
    for (FunctionFigure& figure : mFunctions) {
        const auto lines = functionLines.value(figure.function);
        quint64 best = 0;
        for (auto it = lines.constBegin(); it != lines.constEnd(); ++it) {
            if (it.value() > best || (it.value() == best && it.key().second < figure.line)) {
                best = it.value();
                figure.file = it.key().first;
                figure.line = it.key().second;
            }
        }
    }
    sortBySelf(&mFunctions, -1);
    sortBySelf(&mLines, -1);

    // A thread keeps one class for the whole run: the one most of its samples show.
    QHash<QPair<int, int>, QHash<QString, int>> votes;
    for (const ThreadSample& s : threadSamples)
        ++votes[qMakePair(s.rank, s.tid)][s.label];
    for (ThreadSample& s : threadSamples) {
        const QHash<QString, int>& v = votes[qMakePair(s.rank, s.tid)];
        int most = 0;
        for (auto it = v.constBegin(); it != v.constEnd(); ++it) {
            if (it.value() > most || (it.value() == most && it.key() < s.label)) {
                most = it.value();
                s.label = it.key();
            }
        }
    }
    // Threads that named themselves are shown by what their names share,
    // within their class: an unnamed pool of workers stays one row.
    QHash<QPair<int, int>, QString> threadNames;
    for (const RankResult& rank : mResult.ranks) {
        const QMap<int, QString> names = rank.play.threadNames();
        for (auto it = names.constBegin(); it != names.constEnd(); ++it)
            threadNames.insert(qMakePair(rank.rank(), it.key()), it.value());
    }
    for (ThreadSample& s : threadSamples) {
        s.name = threadNames.value(qMakePair(s.rank, s.tid));
        if (s.name.isEmpty() || s.label == MainThreadLabel)
            continue;
        const QString family = nameFamily(s.name);
        s.label = s.label == OtherThreadLabel ? family : s.label + QStringLiteral(": ") + family;
    }
    mThreadSamples = threadSamples;
}

bool echoesParent(const PSVModelItem* node)
{
    const auto* parent = dynamic_cast<const ZORPSVModelItem*>(node->parent());
    if (!parent || (parent->specialType() != ZORPSVModelItem::specialMainFrame
                    && parent->specialType() != ZORPSVModelItem::specialThreadEntry))
        return false;
    return parent->position().function == node->position().function;
}

QList<const PSVModelItem*> Profile::sortedChildren(const PSVModelItem* node) const
{
    QList<const PSVModelItem*> children;
    for (const PSVModelItem* child : node->childNodes())
        children.append(child);
    std::stable_sort(children.begin(), children.end(), [this](const PSVModelItem* a, const PSVModelItem* b) {
        return mTimes.value(a).totalNs > mTimes.value(b).totalNs;
    });
    return children;
}

QList<FunctionFigure> Profile::functions(int limit) const
{
    QList<FunctionFigure> figures = mFunctions;
    sortBySelf(&figures, limit);
    return figures;
}

QList<LineFigure> Profile::lines(int limit) const
{
    QList<LineFigure> figures = mLines;
    sortBySelf(&figures, limit);
    return figures;
}

QList<ActivityRow> Profile::activity(int buckets, bool perRank) const
{
    buckets = std::max(buckets, 1);
    // The few threads that did most of a class's work (a pool's one busy
    // thread, a JIT runtime's program thread among its helpers) would vanish
    // in its average: each gets a row of its own.
    QMap<QPair<int, QString>, QHash<QPair<int, int>, quint64>> classThreads;
    for (const ThreadSample& s : mThreadSamples)
        classThreads[qMakePair(perRank ? s.rank : -1, s.label)][qMakePair(s.rank, s.tid)] += s.cpuNs;
    QSet<QPair<int, int>> standing;
    const int MostStandingOut = 4;
    for (const auto& threads : qAsConst(classThreads)) {
        QSet<int> ranks;
        quint64 classNs = 0;
        QVector<QPair<quint64, QPair<int, int>>> byCpu;
        for (auto it = threads.constBegin(); it != threads.constEnd(); ++it) {
            ranks.insert(it.key().first);
            classNs += it.value();
            byCpu.append(qMakePair(it.value(), it.key()));
        }
        // A thread is told by its id within one process only.
        if (threads.size() < 3 || ranks.size() > 1)
            continue;
        const double least = std::max(0.25 * double(mDurationMs) * 1e6, 3.0 * double(classNs) / threads.size());
        std::sort(byCpu.begin(), byCpu.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
        for (int i = 0; i < byCpu.size() && i < MostStandingOut && i + 1 < byCpu.size(); ++i) {
            if (double(byCpu[i].first) < least)
                break;
            standing.insert(byCpu[i].second);
        }
    }

    QMap<QPair<int, QString>, int> index;
    QList<ActivityRow> rows;
    QList<QSet<QPair<int, int>>> rowThreads;
    const double bucketMs = double(mDurationMs) / buckets;
    for (const ThreadSample& s : mThreadSamples) {
        const bool alone = standing.contains(qMakePair(s.rank, s.tid));
        QString label = s.label;
        if (alone && !s.name.isEmpty()) {
            label = QStringLiteral("%1 (thread %2)").arg(s.name).arg(s.tid);
        } else if (alone) {
            if (label.endsWith(QLatin1String("threads")))
                label.chop(1);
            label += QStringLiteral(" %1").arg(s.tid);
        }
        const QPair<int, QString> key(perRank ? s.rank : -1, label);
        auto it = index.constFind(key);
        if (it == index.constEnd()) {
            it = index.insert(key, rows.size());
            ActivityRow row;
            row.rank = key.first;
            row.label = label;
            row.tid = alone ? s.tid : 0;
            row.busy.fill(0.0, buckets);
            rows.append(row);
            rowThreads.append(QSet<QPair<int, int>>());
        }
        ActivityRow& row = rows[*it];
        rowThreads[*it].insert(qMakePair(s.rank, s.tid));
        row.cpuNs += s.cpuNs;
        // The CPU time is spread evenly over the sample's stretch.
        const double length = s.endMs - s.beginMs;
        if (length <= 0 || bucketMs <= 0) {
            row.busy[0] += double(s.cpuNs);
            continue;
        }
        const int first = std::max(0, std::min(buckets - 1, int(s.beginMs / bucketMs)));
        for (int b = first; b < buckets && b * bucketMs < s.endMs; ++b) {
            const double overlap = std::min(s.endMs, (b + 1) * bucketMs) - std::max(s.beginMs, b * bucketMs);
            if (overlap > 0)
                row.busy[b] += double(s.cpuNs) * overlap / length;
        }
    }
    const double bucketNs = std::max(1.0, bucketMs * 1e6);
    // More threads than processors can't all be busy at once: a row's share
    // is of the processors its threads could use.
    const int cpus = mResult.run.cpus;
    for (int i = 0; i < rows.size(); ++i) {
        rows[i].threads = rowThreads.at(i).size();
        const int running = cpus > 0 ? std::min(rows[i].threads, cpus) : rows[i].threads;
        for (double& busy : rows[i].busy)
            busy = std::min(1.0, busy / (bucketNs * running));
    }
    // Ranks in order; within one, the main thread first, then the busiest.
    std::stable_sort(rows.begin(), rows.end(), [](const ActivityRow& a, const ActivityRow& b) {
        if (a.rank != b.rank)
            return a.rank < b.rank;
        if ((a.label == MainThreadLabel) != (b.label == MainThreadLabel))
            return a.label == MainThreadLabel;
        return a.cpuNs > b.cpuNs;
    });
    return rows;
}

int Profile::threadsDoingMostWork() const
{
    QHash<QPair<int, int>, quint64> perThread;
    for (const ThreadSample& s : mThreadSamples)
        perThread[qMakePair(s.rank, s.tid)] += s.cpuNs;
    std::vector<quint64> times(perThread.begin(), perThread.end());
    std::sort(times.begin(), times.end(), std::greater<quint64>());
    quint64 sum = 0;
    int count = 0;
    for (quint64 time : times) {
        if (double(sum) >= 0.9 * double(mCpuNs))
            break;
        sum += time;
        ++count;
    }
    return count;
}

double Profile::instructionsRead() const
{
    quint64 read = 0;
    for (quint64 ns : mInstructionNs)
        read += ns;
    return read + mUnreadInstructionNs > 0 ? double(read) / double(read + mUnreadInstructionNs) : 0.0;
}

QList<InstructionClassShare> Profile::instructionMix() const
{
    // The classes in the order in which an instruction of several goes to
    // the first: a vector float instruction is a float one too, and one that
    // touches memory on the side (a call, a push) is counted by its kind.
    static const char* const names[] = { "vector floating point", "scalar floating point", "vector integer",
                                         "scalar integer", "branch", "memory", "no class" };
    const int classes = int(sizeof names / sizeof *names);
    QVector<quint64> ns(classes);
    QVector<QMap<quint64, QString>> byTime(classes);
    QHash<QString, quint64> mnemonicNs;
    quint64 total = 0;
    for (auto it = mInstructionNs.constBegin(); it != mInstructionNs.constEnd(); ++it) {
        const unsigned int categories = instructionCategories(it.key().first);
        const int c = categories & FloatVectorCategory ? 0
            : categories & FloatCategory               ? 1
            : categories & IntVectorCategory           ? 2
            : categories & IntCategory                 ? 3
            : categories & BranchCategory              ? 4
            : categories & MemCategory || it.key().second ? 5
                                                          : 6;
        ns[c] += *it;
        total += *it;
        mnemonicNs[QString::number(c) + QLatin1Char(' ') + it.key().first] += *it;
    }
    // A mix of the few instructions that could be read (where the code lay
    // in no file, or wasn't there to read) would not be the program's.
    if (total == 0 || total * 10 < total + mUnreadInstructionNs)
        return {};
    for (auto it = mnemonicNs.constBegin(); it != mnemonicNs.constEnd(); ++it) {
        const int space = it.key().indexOf(QLatin1Char(' '));
        byTime[it.key().left(space).toInt()].insertMulti(*it, it.key().mid(space + 1));
    }

    // Whole percents by the largest remainders, so that they add up to 100.
    QVector<int> percent(classes);
    QVector<int> order(classes);
    int given = 0;
    for (int c = 0; c < classes; ++c) {
        percent[c] = int(ns[c] * 100 / total);
        given += percent[c];
        order[c] = c;
    }
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
        return (ns[a] * 100) % total > (ns[b] * 100) % total;
    });
    for (int i = 0; given < 100 && i < classes; ++i, ++given)
        ++percent[order[i]];

    QList<InstructionClassShare> mix;
    for (int c = 0; c < classes; ++c) {
        if (percent[c] == 0)
            continue;
        InstructionClassShare share;
        share.name = QLatin1String(names[c]);
        share.percent = percent[c];
        const QMap<quint64, QString>& mnemonics = byTime[c];
        for (auto it = mnemonics.constEnd(); it != mnemonics.constBegin() && share.examples.size() < 3;)
            share.examples << *--it;
        mix << share;
    }
    // Largest first; the instructions of no class stay last.
    std::stable_sort(mix.begin(), mix.end(), [](const InstructionClassShare& a, const InstructionClassShare& b) {
        const bool aNone = a.name == QLatin1String("no class"), bNone = b.name == QLatin1String("no class");
        return aNone != bNone ? bNone : a.percent > b.percent;
    });
    return mix;
}

double Profile::childWaitShare(QString* function) const
{
    if (function)
        *function = mChildWaitFunction;
    return mChildWait.second > 0 ? double(mChildWait.first) / mChildWait.second : 0.0;
}

QMap<int, double> Profile::mpiShare() const
{
    QMap<int, double> share;
    bool any = false;
    const auto counts = mMpi;
    for (auto it = counts.constBegin(); it != counts.constEnd(); ++it) {
        any = any || it->first > 0;
        share.insert(it.key(), it->second > 0 ? double(it->first) / it->second : 0.0);
    }
    return any ? share : QMap<int, double>();
}

QStringList Profile::functionPath(const PSVModelItem* node)
{
    QStringList names;
    for (; node && node->parent(); node = node->parent())
        names.prepend(node->position().function);
    return names;
}
