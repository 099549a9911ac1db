// One thread's backtrace to one path of a fresh call tree. Everything here
// works from the caches of the first decoding pass: the debugger is never
// asked, and each frame costs a hash lookup and a node.
#include "preloadsamplesource.h"

#include "constants.h"
#include "placeholderzorpsvmodelitem.h"
#include "sbacktrace.h"
#include "zor_assert.h"
#include "zorpsvmodelitem.h"

#include <algorithm>
#include <cstring>

namespace {

const QString& unknownName()
{
    static const QString name = QLatin1String(ZOR_FUNCTION_NAME_FOR_UNKNOWN_FUNCTION);
    return name;
}

bool hasLineInfo(const Position& position)
{
    return !position.file.isEmpty() && position.line > 0;
}

// The longest run of unknown frames that stays in a tree as it is.
const int MaxUnfoldedTailFrames = 20;
// From this many frames on, unknown frames of different names fold too.
const size_t ManyFramesTrace = 499;

} // namespace

namespace {

// The child of parent at position, if there is one. A fresh tree is one path
// and its deepest node has no children, so this rarely has anything to look at.
ZORPSVModelItem* childAt(const Position& position, ZORPSVModelItem* parent)
{
    for (PSVModelItem* child : parent->childNodes()) {
        const Position& other = child->position();
        if (&other == &position
            || (other.line == position.line && other.column == position.column && other.function == position.function
                && PathString::fileNamesEqual(other.file, position.file)))
            return static_cast<ZORPSVModelItem*>(child);
    }
    return nullptr;
}

// Starts loading what making a node of frame reads beyond the frame itself:
// its inlined callers in the list of them all.
void prefetchNames(DecodedFrame* frame, const InlineCallerList& inlineCallers)
{
    if (!frame)
        return;
    if (frame->hasInlineCallers) {
        const char* callers = reinterpret_cast<const char*>(inlineCallers.at(frame->inlineCallersAt));
        __builtin_prefetch(callers);
        __builtin_prefetch(callers + 63);
    }
}

} // namespace

ZORPSVModelItem* PreloadSampleSource::getOrCreatePSVModelItem(const Position& position, ZORPSVModelItem* parent)
{
    if (ZORPSVModelItem* child = parent->childCount() == 0 ? nullptr : childAt(position, parent))
        return child;
    return new ZORPSVModelItem(parent, position);
}

ZORPSVModelItem* PreloadSampleSource::frameNode(const Position& position, quint32 key, const Position*& kept,
                                                ZORPSVModelItem* parent)
{
    // Trees are built on several threads at once: two of them may both ask
    // for the kept position, which comes out the same for both.
    const Position* known = __atomic_load_n(&kept, __ATOMIC_ACQUIRE);
    if (!known) {
        known = PSVModelItem::keptPosition(position, key);
        __atomic_store_n(&kept, known, __ATOMIC_RELEASE);
    }
    if (parent->childCount() > 0) {
        if (ZORPSVModelItem* child = childAt(*known, parent)) {
            child->addThread(mRank, false, false);
            return child;
        }
    }
    return new ZORPSVModelItem(parent, known, key, mOneThread);
}

const IntProcessMap& PreloadSampleSource::oneThread()
{
    if (mOneThreadRank != mRank || mOneThread.isEmpty()) {
        mOneThread = IntProcessMap();
        mOneThread.add(mRank, 1);
        // Every node of every fresh tree shares it.
        mOneThread.keepForever();
        mOneThreadRank = mRank;
    }
    return mOneThread;
}

void PreloadSampleSource::addInlineCallers(const DecodedFrame& frame, ZORPSVModelItem*& parent)
{
    KeyedPosition* callers = mInlineCallers.at(frame.inlineCallersAt);
    for (int i = 0; i < frame.inlineCallerCount; ++i)
        parent = frameNode(callers[i].position, callers[i].key, callers[i].kept, parent);
}

size_t PreloadSampleSource::firstProgramFrame(const quorvex::backtrace_t& trace)
{
    // The sampler's own frames at the leaf end go. From the third frame on,
    // the sampler's wrapper ends them, whatever the names above it.
    const size_t n = trace.size();
    for (size_t i = 0;; ++i) {
        if (!decodedFrame(i == 0 ? Address(trace[0]) : Address(trace[i]) - 1).samplerFrame)
            return i;
        if (i + 1 >= n)
            return i + 1;
        if (i >= 2 && decodedFrame(trace[i]).samplerWrapper)
            return i + 1;
    }
}

ZORPSVModelItem* PreloadSampleSource::createPSVModelForBacktrace(const quorvex::SBacktrace& backtrace,
                                                                 bool partialTrace, unsigned int rootFramesToSkip,
                                                                 QString* instruction, bool* accelerator)
{
    oneThread();
    TreeLeaf leaf;
    bool mayTell = true;
    ZORPSVModelItem* root = buildPath(backtrace.trace(), backtrace.inMpi(), partialTrace, rootFramesToSkip,
                                      instruction, accelerator, leaf, mayTell);
    noteTreeLeaf(leaf, -1);
    return root;
}

void PreloadSampleSource::noteTreeLeaf(const TreeLeaf& leaf, int tid)
{
    if (!leaf.placeholder)
        return;
    mNewLeafAddresses.push_back(leaf.address);
    if (mRecordTreePlaceholders)
        mLeafRecords.push_back({leaf.placeholder, leaf.address, tid});
}

ZORPSVModelItem* PreloadSampleSource::buildPath(const quorvex::backtrace_t& trace, bool inMpi, bool partialTrace,
                                                unsigned int rootFramesToSkip, QString* instruction,
                                                bool* accelerator, TreeLeaf& leafOut, bool& mayTell)
{
    *instruction = QString();
    *accelerator = false;
    // Names made here, and those of the debug-address mode, are not
    // judged ahead: the rules look at them.
    mayTell = partialTrace || mDebugAddresses;
    const int rank = mRank;
    ZORPSVModelItem* root = new ZORPSVModelItem;
    root->addThread(rank, false, false);
    ZORPSVModelItem* current = root;
    const size_t n = trace.size();

    ZORPSVModelItem* partialNode = nullptr;
    if (partialTrace) {
        partialNode = new ZORPSVModelItem(
            current, Position(QLatin1String(ZOR_FUNCTION_NAME_FOR_PARTIAL_TRACE), QString(), 0, -1));
        partialNode->addThread(rank, false, false);
        partialNode->setSpecial(ZORPSVModelItem::specialPartialTrace);
        current = partialNode;
    }
    if (n == 0) {
        ZORPSVModelItem* none =
            new ZORPSVModelItem(current, Position(QStringLiteral("%1 [no stack trace]").arg(unknownName())));
        none->addThread(rank, false, false);
        mayTell = true;
        return root;
    }

    const TraceEnds* ends = mTraceEnds.find(traceKey(trace));
    const size_t first = ends ? ends->first : firstProgramFrame(trace);

    // Root to leaf, leaving out the thread library's frames at the root end
    // and never touching trace[first], which is the leaf. The bound is taken
    // as a signed number so that a skip that covers the whole trace (one
    // that ends in zeros) means no walk at all.
    const long long last = static_cast<long long>(n) - 1 - static_cast<long long>(rootFramesToSkip);
    bool seenKnown = false;
    bool sameNameRun = false;
    bool manyNamesRun = false;
    bool inAccelerator = false;
    // Whether the deepest node so far is an unknown frame without a line,
    // the only kind of node from which a run of unknown frames can be
    // folded: most paths end elsewhere and read no names for it.
    bool tailMayFold = false;
    // Frames of a run's traces are scattered over a large table: the slots
    // of the frames a few steps ahead are loaded while this one is built.
    // The names of a frame are loaded once its slot has come in.
    // The slots found then are kept for the step that builds the frame,
    // which the table can't move meanwhile: one lookup per frame.
    const long long prefetchDistance = 6;
    const long long namesDistance = 3;
    DecodedFrame* ahead[4];
    const long long end = static_cast<long long>(first);
    const auto lookAhead = [&](long long index) {
        DecodedFrame* found = mDecodedFrames.find(Address(trace[index]) - 1);
        prefetchNames(found, mInlineCallers);
        ahead[index & 3] = found;
    };
    // An address that wasn't decoded is decoded now (which asserts), and
    // that may move the table: then the slots found ahead are looked up
    // again.
    const auto frameAt = [&](Address address) -> DecodedFrame& {
        if (DecodedFrame* known = mDecodedFrames.find(address))
            return *known;
        std::fill(ahead, ahead + 4, nullptr);
        return decodedFrame(address);
    };
    for (long long index = last; index > end && index > last - prefetchDistance; --index)
        mDecodedFrames.prefetch(Address(trace[index]) - 1);
    for (long long index = last; index > end && index > last - namesDistance; --index)
        lookAhead(index);
    for (long long index = last; index > end; --index) {
        if (index - prefetchDistance > end)
            mDecodedFrames.prefetch(Address(trace[index - prefetchDistance]) - 1);
        if (index - namesDistance > end)
            lookAhead(index - namesDistance);
        const Address returnAddress = trace[index];
        // The position of a return address is that of the call, one byte back.
        const Address address = returnAddress - 1;
        DecodedFrame* found = ahead[index & 3];
        DecodedFrame& frame = found ? *found : frameAt(address);
        // Without this, the region's opening function stands twice on the
        // stack of the thread that opened it: once as the sampler's stand-in,
        // once as the runtime's own.
        if (frame.inSamplerLibrary && !mDebugAddresses)
            continue;
        // The MPI wrapper's MPI_Send calls the library's: one node for both.
        if (frame.inMpiWrapper && index - 1 > end && !mDebugAddresses
            && frameAt(Address(trace[index - 1]) - 1).position.function == frame.position.function)
            continue;
        if (!inAccelerator) {
            // Asked once per frame, by whichever builder comes first.
            signed char cuda = __atomic_load_n(&frame.cuda, __ATOMIC_RELAXED);
            if (cuda < 0) {
                cuda = isAddressFromCUDALibrary(returnAddress, frame.position.function) ? 1 : 0;
                __atomic_store_n(&frame.cuda, cuda, __ATOMIC_RELAXED);
            }
            inAccelerator = cuda == 1;
        }
        const Position* position = &frame.position;
        quint32 key = frame.positionKey;
        Position decorated;

        bool fold = true;
        if (!seenKnown && !frame.hasLineInfo && frame.exactlyUnknown) {
            // Unknown frames at the root end vanish, except the last one
            // before the leaf.
            if (!mDebugAddresses && index != static_cast<long long>(first) + 1)
                continue;
        } else {
            seenKnown = true;
        }
        if (mDebugAddresses) {
            decorated = *position;
            decorated.function = mInternedStrings.intern(QStringLiteral("%1 (0x%2, 0x%3)")
                                                             .arg(position->function)
                                                             .arg(address, 0, 16)
                                                             .arg(returnAddress, 0, 16));
            position = &decorated;
            key = PSVModelItem::positionKeyOf(decorated);
            fold = false;
        } else if (current == root) {
            fold = false;
        }
        if (fold) {
            if (frame.unknownPrefix) {
                const QString& currentName = current->position().function;
                if (currentName == position->function) {
                    sameNameRun = true;
                    continue;
                }
                if (n >= ManyFramesTrace && currentName.startsWith(unknownName())) {
                    manyNamesRun = true;
                    sameNameRun = false;
                    continue;
                }
            }
            if (sameNameRun || manyNamesRun) {
                const QString name = (sameNameRun ? current->position().function : unknownName())
                    + QLatin1String(" [multiple frames]");
                const Position run(name, PathString(current->position().file), current->position().line, -1);
                ZORPSVModelItem* parent = current->parentZORModelItem();
                ZORPSVModelItem* replacement = new ZORPSVModelItem(parent, run);
                replacement->addThread(rank, false, false);
                mayTell = true;
                delete current;
                current = replacement;
            }
            sameNameRun = false;
            manyNamesRun = false;
        }
        if (frame.hasInlineCallers)
            addInlineCallers(frame, current);
        mayTell = mayTell || frame.telling;
        const Position* keptDecorated = nullptr;
        current = frameNode(*position, key, position == &frame.position ? frame.kept : keptDecorated, current);
        tailMayFold = !frame.hasLineInfo && frame.unknownPrefix;
    }

    if (!mDebugAddresses && tailMayFold && foldUnknownTail(current))
        mayTell = true;

    if (first < n) {
        if (!inMpi) {
            const Address leaf = trace[first];
            PlaceholderZORPSVModelItem* placeholder = new PlaceholderZORPSVModelItem(current, leaf, inAccelerator);
            current = placeholder;
            current->addThread(rank, false, false);
            leafOut.placeholder = placeholder;
            leafOut.address = leaf;
            *instruction = QStringLiteral("leaf-placeholder");
        } else {
            const Address address = Address(trace[first]) - 1;
            Position position = decodeAddress(address, PositionLookupForbidden);
            const DecodedFrame* decoded = mDecodedFrames.find(address);
            mayTell = mayTell || !decoded || decoded->telling;
            if (mDebugAddresses) {
                position.function = mInternedStrings.intern(QStringLiteral("%1 (0x%2, 0x%3)")
                                                                .arg(position.function)
                                                                .arg(address, 0, 16)
                                                                .arg(Address(trace[first]), 0, 16));
            }
            current = new ZORPSVModelItem(current, position);
            current->addThread(rank, false, false);
            *instruction = QStringLiteral("mpi");
        }
        *accelerator = false;
    }

    if (current == partialNode) {
        ZORPSVModelItem* unknown = new ZORPSVModelItem(current, Position(unknownName()));
        unknown->addThread(rank, false, false);
    }
    return root;
}

bool PreloadSampleSource::foldUnknownTail(ZORPSVModelItem*& current)
{
    int climbed = 0;
    ZORPSVModelItem* stop = current;
    ZORPSVModelItem* chainTop = nullptr;
    while (stop && !hasLineInfo(stop->position()) && stop->position().function.startsWith(unknownName())) {
        chainTop = stop;
        stop = stop->parentZORModelItem();
        ++climbed;
    }
    if (!stop || climbed <= MaxUnfoldedTailFrames)
        return false;
    // The frame above the run goes with it on purpose: its file and line
    // live on in the folded node, its name doesn't.
    const Position above = stop->position();
    if (ZORPSVModelItem* parent = stop->parentZORModelItem()) {
        delete stop;
        current = parent;
    } else {
        // The root stays, since the caller gets it back: only the run goes.
        delete chainTop;
        current = stop;
    }
    current = new ZORPSVModelItem(current, Position(QStringLiteral("%1 [x %2+]").arg(unknownName()).arg(MaxUnfoldedTailFrames),
                                                    PathString(above.file), above.line, -1));
    current->addThread(mRank, false, false);
    return true;
}

void PreloadSampleSource::addLeafNode(Address address, ZORPSVModelItem*& parent, InstructionQuery& query,
                                      bool& fromCuda)
{
    const IntProcessMap& oneThreadOfRank = oneThread();
    LeafAnswer* known = nullptr;
    InstructionCache::PreviousInstruction asked;
    if (mKeepLeafAnswers)
        known = mLeafAnswers.find(address);
    if (known && known->frame && !mDebugAddresses) {
        // Everything was worked out ahead: this reads only, as several
        // threads may do at once.
        query.instruction = known->previous.mnemonic;
        query.implicitMemory = known->previous.implicitMemory;
        if (known->frame->hasInlineCallers)
            addInlineCallers(*known->frame, parent);
        parent = new ZORPSVModelItem(parent, known->kept, known->frame->positionKey, oneThreadOfRank);
        fromCuda = known->fromCuda == 1;
        return;
    }
    if (mKeepLeafAnswers && !known)
        known = &mLeafAnswers.insert(address);
    if (known) {
        if (!known->known) {
            known->previous =
                mInstructionCache.previousAddressAndInstruction(address, InstructionCache::DisassemblyLookupForbidden);
            known->known = true;
        }
    } else {
        asked = mInstructionCache.previousAddressAndInstruction(address, InstructionCache::DisassemblyLookupForbidden);
    }
    const InstructionCache::PreviousInstruction& previous = known ? known->previous : asked;
    query.instruction = previous.mnemonic;
    query.implicitMemory = previous.implicitMemory;
    // The frame stands at the instruction that was executing, the one before
    // the recorded program counter.
    const Address used = previous.mnemonic.isEmpty() ? address : previous.address;
    DecodedFrame& frame = decodedFrame(used);
    const Position* shown = &frame.position;
    Position decorated;
    quint32 key = frame.positionKey;
    if (frame.hasInlineCallers)
        addInlineCallers(frame, parent);
    if (mDebugAddresses) {
        decorated = frame.position;
        shown = &decorated;
        decorated.function = mInternedStrings.intern(QStringLiteral("%1 (%2T%3 %4, 0x%5)")
                                                        .arg(frame.position.function)
                                                        .arg(QLatin1String(previous.mnemonic.isEmpty() ? "!" : ""))
                                                        .arg(QLatin1String(mJumpTargetLeafs.contains(address) ? "J" : ""))
                                                        .arg(used, 0, 16)
                                                        .arg(address, 0, 16));
        key = PSVModelItem::positionKeyOf(decorated);
    }
    // Always a node of its own, even beside a child at the same position.
    const Position* kept = shown == &frame.position ? frame.kept : nullptr;
    if (!kept)
        kept = PSVModelItem::keptPosition(*shown, key);
    if (shown == &frame.position)
        frame.kept = kept;
    parent = new ZORPSVModelItem(parent, kept, key, oneThreadOfRank);
    if (known && shown == &frame.position) {
        if (known->fromCuda < 0)
            known->fromCuda = isAddressFromCUDALibrary(used, shown->function) ? 1 : 0;
        fromCuda = known->fromCuda == 1;
    } else {
        fromCuda = isAddressFromCUDALibrary(used, shown->function);
    }
}

bool PreloadSampleSource::replaceTailFramePlaceholder(PSVModelItem* root, InstructionQuery& query)
{
    return replaceTailFramePlaceholder(root, query, nullptr);
}

bool PreloadSampleSource::replaceTailFramePlaceholder(PSVModelItem* root, InstructionQuery& query,
                                                      PSVModelItem** newLeaf)
{
    PSVModelItem* tail = root;
    while (tail->childCount() > 0)
        tail = tail->firstChild();
    ZORPSVModelItem* node = dynamic_cast<ZORPSVModelItem*>(tail);
    if (!node || !node->isPlaceholder())
        return false;
    return replacePlaceholder(static_cast<PlaceholderZORPSVModelItem*>(node), query, newLeaf);
}

bool PreloadSampleSource::replacePlaceholder(PlaceholderZORPSVModelItem* placeholder, InstructionQuery& query,
                                             PSVModelItem** newLeaf)
{
    ZORPSVModelItem* parent = placeholder->parentZORModelItem();
    placeholder->detach();
    InstructionQuery fresh;
    bool fromCuda = false;
    addLeafNode(placeholder->address(), parent, fresh, fromCuda);
    if (newLeaf)
        *newLeaf = parent;
    if (placeholder->isFromAcceleratorSharedLibrary() || fromCuda)
        query = InstructionQuery(QStringLiteral("accel"), false);
    else
        query = fresh;
    delete placeholder;
    return true;
}
