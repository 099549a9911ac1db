// Classes of threads: which runtime started a thread, which threads only
// wait, and the class frame on top of every tree.
#include "preloadsamplesource.h"

#include <QFileInfo>
#include <QVarLengthArray>

#include <algorithm>
#include <memory>
#include <vector>

#include "debugger.h"
#include "sample.h"
#include "samplelist.h"
#include "sampleworkers.h"
#include "tharninterface.h"
#include "zorpsvmodelitem.h"

namespace {

// Every child of from goes to to, in their order. A root has a child or
// two: no list of them is made.
void moveChildren(PSVModelItem* from, PSVModelItem* to)
{
    while (PSVModelItem* child = from->firstChild()) {
        child->detach();
        to->addChild(child);
    }
}

} // namespace

bool PreloadSampleSource::isTidClassified(int tid) const
{
    return mMainTids.contains(tid) || mOmpTids.contains(tid) || mMpiTids.contains(tid)
        || mAcceleratorTids.contains(tid);
}

const PreloadSampleSource::NameAnswers& PreloadSampleSource::answersFor(const QString& function)
{
    // A thread of no class is searched again in every sample, and every
    // tree is searched for its OpenMP runtime, so the rules' answers for a
    // name are kept for the analysis. Trees share their names' storage with
    // the position cache, so the storage identifies a name.
    const std::uint64_t key = nameKey(function);
    if (const NameAnswers* known = mNameAnswers.find(key))
        return *known;
    mAnsweredNames.push_back(function);
    NameAnswers& answers = mNameAnswers.insert(key);
    answers.facts = Category::factsOf(function);
    answers.runtime = Category::ompRuntimeOfFunction(function);
    return answers;
}

bool PreloadSampleSource::isTelling(const NameAnswers& answers)
{
    // What classifyByFrame and the search for a runtime look for; a frame
    // below one that runs region bodies is told by its parent.
    const Category::NameFacts& facts = answers.facts;
    return answers.runtime != Category::OmpCompiler::Unknown || facts.ompWorker || facts.mpiWorker
        || facts.runsRegionBodies || facts.category == Category::OmpRegion
        || facts.category == Category::OmpWorkerEntry || facts.category == Category::OmpWait
        || facts.category == Category::Accelerator;
}

std::uint64_t PreloadSampleSource::nameKey(const QString& function)
{
    // The storage's address, read without touching the storage itself.
    return reinterpret_cast<quintptr>(const_cast<QString&>(function).data_ptr());
}

bool PreloadSampleSource::classifyByFrame(int tid, const Category::NameFacts& facts,
                                          const Category::NameFacts& parentFacts, bool nearRoot)
{
    const Category::Enum category = Category::categorise(facts, parentFacts, Category::Other);
    if (facts.ompWorker || category == Category::OmpRegion || category == Category::OmpWorkerEntry
        || category == Category::OmpWait) {
        mOmpTids.insert(tid);
        return true;
    }
    if (facts.mpiWorker) {
        mMpiTids.insert(tid);
        return true;
    }
    // An accelerator frame deeper in the stack is a call of the program's,
    // not a thread of the runtime.
    if (category == Category::Accelerator && nearRoot) {
        mAcceleratorTids.insert(tid);
        return true;
    }
    return false;
}

void PreloadSampleSource::classifyNonMainTid(int tid, const ZORPSVModelItem* item)
{
    const PSVModelItem* parent = item->parent();
    const bool nearRoot = !parent || !parent->parent();
    static const Category::NameFacts noParent = Category::factsOf(QString());
    // A copy: the parent's lookup may add to the answers.
    const Category::NameFacts facts = answersFor(item->position().function).facts;
    if (classifyByFrame(tid, facts, parent ? answersFor(parent->position().function).facts : noParent, nearRoot))
        return;
    for (const PSVModelItem* child : item->childNodes())
        classifyNonMainTid(tid, static_cast<const ZORPSVModelItem*>(child));
}

void PreloadSampleSource::identifyMonitorThreads()
{
    // An OpenMP thread that ever ran a region with a known call site did
    // work of the program's.
    QSet<int> candidates = mOmpTids;
    candidates.subtract(mRegionTids);
    candidates.unite(mMpiTids);
    candidates.unite(mAcceleratorTids);
    for (int tid : qAsConst(candidates)) {
        const long long sleeping = mSleepingCounts.value(tid, 0);
        const long long awake = mAwakeCounts.value(tid, 0);
        if (sleeping + awake == 0)
            continue;
        // Integer percent, so 79.9% of the samples asleep is not enough.
        if (sleeping * 100 / (sleeping + awake) > 79)
            mMonitorTids.insert(tid);
    }
}

QString PreloadSampleSource::programDisplayName()
{
    // The host gives the program's path; the tree shows its name.
    const QString program = mTharn.programName();
    const QString name = QFileInfo(program).fileName();
    return name.isEmpty() ? program : name;
}

void PreloadSampleSource::prependClassificationFramesToSampleBacktraces(SampleList& samples)
{
    const QString name = mDebugger->mainFunctionName();
    Position mainPosition(name, QString(), 1, -1);
    const std::unique_ptr<PositionResponse> response(mDebugger->positionOfFunction(name));
    if (response && response->hasFileAndLine()) {
        mainPosition.file = mInternedStrings.intern(response->file);
        mainPosition.line = response->line;
    } else if (response) {
        if (PositionResponse* starred = mDebugger->positionOfFunction(QLatin1Char('*') + name)) {
            mainPosition.file = mInternedStrings.intern(starred->file);
            mainPosition.line = starred->line;
            delete starred;
        }
    } else if (PositionResponse* fallback = mDebugger->positionOfFunction(QStringLiteral("main"))) {
        mainPosition.function = QStringLiteral("main");
        mainPosition.file = mInternedStrings.intern(fallback->file);
        mainPosition.line = fallback->line;
        delete fallback;
    }

    // Every tree gets the same few frames on top: their positions are kept
    // once, and each thread's class is told once.
    const auto kept = [](const Position& position) {
        return PSVModelItem::keptPosition(position, PSVModelItem::positionKeyOf(position));
    };
    const Position* programKept = kept(Position(programDisplayName(), QString(), -1, -1));
    const Position* mainKept = kept(mainPosition);
    const IntProcessMap& threads = oneThread();
    const auto frameAt = [&](const Position* position, const ZORPSVModelItem* counted) {
        ZORPSVModelItem* frame = new ZORPSVModelItem(nullptr, position, PSVModelItem::positionKeyOf(*position), threads);
        if (counted) {
            frame->addSampleCounts(counted->sampleCount(), counted->selfSampleCount(), counted->mpiSampleCount(),
                                   counted->sleepingSampleCount());
        }
        return frame;
    };
    struct ThreadClass
    {
        const Position* position;
        ZORPSVModelItem::Special special;
    };
    // Each thread that works on the samples keeps its own answers.
    const int workers = std::max(1, mSampleWorkers);
    std::vector<QHash<int, ThreadClass>> classesOf(workers);
    const auto classOf = [&](int tid, int worker) {
        QHash<int, ThreadClass>& classes = classesOf[worker];
        auto known = classes.constFind(tid);
        if (known != classes.constEnd())
            return *known;
        const bool monitor = mMonitorTids.contains(tid);
        ThreadClass found = {nullptr, ZORPSVModelItem::specialNone};
        auto choose = [&](const char* name, ZORPSVModelItem::Special type) {
            found.position = kept(Position(QLatin1String(name)));
            found.special = type;
        };
        if (mOmpTids.contains(tid) && monitor)
            choose("[OpenMP monitor thread]", ZORPSVModelItem::specialOmpMonitor);
        else if (mOmpTids.contains(tid))
            choose("[OpenMP worker thread]", ZORPSVModelItem::specialOmpWorker);
        else if (mMpiTids.contains(tid) && monitor)
            choose("[MPI monitor thread]", ZORPSVModelItem::specialMpiMonitor);
        else if (mMpiTids.contains(tid))
            choose("[MPI worker thread]", ZORPSVModelItem::specialMpiWorker);
        else if (mAcceleratorTids.contains(tid) && monitor)
            choose("[Accelerator monitor thread]", ZORPSVModelItem::specialAcceleratorMonitor);
        else if (mAcceleratorTids.contains(tid))
            choose("[Accelerator worker thread]", ZORPSVModelItem::specialAcceleratorWorker);
        else if (mMainTids.contains(tid))
            found = {mainKept, ZORPSVModelItem::specialMainFrame};
        classes.insert(tid, found);
        return found;
    };
    // The entry frames of threads of no class, by name.
    std::vector<FlatTable<const Position*>> entriesOf(workers);

    // Each sample's trees are its own: the samples are shared out.
    const std::vector<Sample*> finished(samples.begin(), samples.end());
    runOnSampleWorkers(finished.size(), workers, [&](size_t i, int worker) {
        Sample* sample = finished[i];
        FlatTable<const Position*>& entries = entriesOf[worker];
        // The trees' tops lie scattered over memory long left by the
        // caches: the roots of the sample are loaded together, then their
        // first frames.
        const QVector<int> tids = sample->sampledTidList();
        QVarLengthArray<ZORPSVModelItem*, 32> roots;
        for (int tid : tids) {
            roots.append(sample->backendOnly_mutablePsvModel(tid));
            __builtin_prefetch(roots.last());
        }
        for (ZORPSVModelItem* root : qAsConst(roots)) {
            if (root && root->childCount() > 0)
                __builtin_prefetch(root->firstChild());
        }
        for (int t = 0; t < tids.size(); ++t) {
            const int tid = tids[t];
            ZORPSVModelItem* root = roots[t];
            if (!root)
                continue;
            ThreadClass threadClass = sample->backendOnly_threadType(tid) == Sample::ParallelRegionThread
                ? ThreadClass{mainKept, ZORPSVModelItem::specialMainFrame}
                : classOf(tid, worker);
            if (threadClass.special != ZORPSVModelItem::specialNone) {
                ZORPSVModelItem* frame = frameAt(threadClass.position, root);
                frame->setSpecial(threadClass.special);
                moveChildren(root, frame);
                root->addChild(frame);
            } else {
                // A thread of no class shows its entry frame twice: once
                // marked, holding the stack, and once as itself.
                QVarLengthArray<PSVModelItem*, 4> children;
                for (PSVModelItem* child : root->childNodes())
                    children.append(child);
                for (PSVModelItem* child : children) {
                    ZORPSVModelItem* node = static_cast<ZORPSVModelItem*>(child);
                    if (node->specialType() == ZORPSVModelItem::specialThreadEntry)
                        continue;
                    const QString& function = node->position().function;
                    const Position*& position = entries.insert(nameKey(function));
                    if (!position)
                        position = kept(Position(function));
                    ZORPSVModelItem* entry = frameAt(position, node);
                    entry->setSpecial(ZORPSVModelItem::specialThreadEntry);
                    node->detach();
                    entry->addChild(node);
                    root->addChild(entry);
                }
            }

            ZORPSVModelItem* program = frameAt(programKept, nullptr);
            program->setSpecial(ZORPSVModelItem::specialProgramFrame);
            moveChildren(root, program);
            root->addChild(program);
        }
    });
}
