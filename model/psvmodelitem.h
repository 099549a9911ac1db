// A node of a merged call tree: one stack frame at one source position, and
// per process rank how many threads stood there. Trees of threads, samples
// and processes merge into one by position; a tree travels as XML.
#ifndef ZOR_PSVMODELITEM_H
#define ZOR_PSVMODELITEM_H

#include "intprocessmap.h"
#include "position.h"
#include "saxhandler.h"

#include <QLatin1String>
#include <QList>
#include <QVariantMap>

#include <cstddef>

class QXmlStreamAttributes;
class QXmlStreamReader;
class QXmlStreamWriter;
class XmlWriter;
class PSVChildIndex;
class PSVModelItem;

// The fields of a node that few nodes set, in a block of their own made on
// first use: the children once there are two or more, the thread counts on
// the device with the last device thread group, the index of a wide node's
// children, and a derived node type's own rarely set fields.
struct PSVModelItemExtra
{
    // capacity of them, count in the node; null when there is no room.
    PSVModelItem** children = nullptr;
    int capacity = 0;
    int lastCudaGroup = -1;
    IntProcessMap cudaThreads;
    // Built once the node has many children, then kept in step.
    PSVChildIndex* childIndex = nullptr;
    // Owned by the derived type, which frees it.
    void* derived = nullptr;
};

// The children of a node in their order, read in place: valid until the
// children change, so not for loops that move or delete them.
class PSVChildRange
{
public:
    PSVChildRange(PSVModelItem* const* begin, int size) : mBegin(begin), mSize(size) {}
    PSVModelItem* const* begin() const { return mBegin; }
    PSVModelItem* const* end() const { return mBegin + mSize; }
    int size() const { return mSize; }
    bool isEmpty() const { return mSize == 0; }
    PSVModelItem* at(int index) const { return mBegin[index]; }
    PSVModelItem* first() const { return mBegin[0]; }

private:
    PSVModelItem* const* mBegin;
    int mSize;
};

class PSVModelItem : public SaxHandler
{
public:
    // The element name of a child node in the XML form.
    static const QLatin1String XML_NODE;

    PSVModelItem();
    explicit PSVModelItem(const Position& position);
    // These two append the new node to parent's children when parent isn't null.
    explicit PSVModelItem(PSVModelItem* parent);
    PSVModelItem(PSVModelItem* parent, const Position& position);
    // The node of one more frame on a path being built: its position one
    // that keptPosition handed out, its key worked out ahead by
    // positionKeyOf, and its thread counts shared with the other nodes of
    // the path. Appended to parent's children.
    inline PSVModelItem(PSVModelItem* parent, const Position* kept, quint32 positionKey, const IntProcessMap& threads);
    // The process's one copy of position, which is never freed: nodes point
    // at it rather than each hold a copy, so that a node is smaller and
    // making one copies no names. key is positionKeyOf(position). There are
    // as many as the distinct positions the process ever saw, a bounded
    // number (those of a program's code); thread-safe.
    static const Position* keptPosition(const Position& position, quint32 key);
    // Whether both names of position are kept forever, as
    // InternStringCache::internForever keeps them.
    static bool hasImmortalNames(const Position& position)
    {
        return const_cast<Position&>(position).function.data_ptr()->ref.isStatic()
            && const_cast<Position&>(position).file.data_ptr()->ref.isStatic();
    }
    // A deep copy, children cloned with their own types; the copy has no parent.
    PSVModelItem(const PSVModelItem& other);
    PSVModelItem& operator=(const PSVModelItem&) = delete;
    // Deletes the subtree, and unlinks the node from its parent if it has one.
    ~PSVModelItem() override;

    // Nodes of every type come from pools of node memory rather than from
    // malloc: trees are made and dropped by the million.
    static void* operator new(std::size_t size);
    static void operator delete(void* memory, std::size_t size);

    // -6 and -1: a node that stands for no single rank or thread.
    virtual int rank() const;
    virtual int threadId() const;

    // Writes into an element that the caller has opened: the node's
    // attributes, its extra XML, then a "node" element per child.
    virtual void writeXml(XmlWriter& writer) const;
    // Whether the tree below this node writes the same text as the one
    // below other, told without writing either: node by node the same
    // class, position, threads and marks, and the same shape. It may say
    // no for trees whose texts agree, never yes for trees whose texts
    // differ. A hash that is equal for trees it calls the same.
    bool writesAlike(const PSVModelItem& other) const;
    uint shapeHash() const;
    // Reads the element at which reader stands, through its end element.
    virtual bool readXml(QXmlStreamReader& reader, QString* error);
    virtual bool useXmlStreamReader() const;
    virtual void readXmlStreamAttributes(const QXmlStreamAttributes& attributes);
    virtual PSVModelItem* createChild(const Position& position);
    // Merges other into this node by position. Children of other that have
    // no counterpart here move over, so other is left gutted.
    virtual void mergePSVModelItem(const PSVModelItem& other, void* context);
    virtual PSVModelItem* clone() const;
    virtual bool isSimplePSVModel() const;
    // The variables seen in this frame, by name; null when there are none.
    virtual const QVariantMap* variables() const;
    virtual PSVModelItem* constructChild();
    virtual void writeExtraXml(XmlWriter& writer) const;
    // Whether other, of this very class, writes the same extra XML.
    virtual bool extraWritesAlike(const PSVModelItem& other) const;
    // Reads a child element other than "node". The default passes over it.
    virtual bool readExtraXml(QXmlStreamReader& reader, QString* error);
    virtual void extraMergePSVModelItem(const PSVModelItem& other, void* context);
    // Merges item into the child at its position, or moves it here.
    virtual void addPSVModelItem(PSVModelItem* item, void* context);

    PSVModelItem* parent() const { return mParent; }
    const Position& position() const { return *mPosition; }
    int childCount() const { return mChildCount; }
    // A copy of the list, safe to hold while children move or go.
    QList<PSVModelItem*> children() const;
    PSVChildRange childNodes() const { return PSVChildRange(childPointers(), mChildCount); }
    PSVModelItem* firstChild() { return mChildCount == 0 ? nullptr : *childPointers(); }
    const PSVModelItem* firstChild() const { return mChildCount == 0 ? nullptr : *childPointers(); }
    int indexOfChild(PSVModelItem* child) const;
    // Where the pointers to the children lie, to fetch them ahead.
    PSVModelItem* const* childPointers() const { return mHasExtra ? mExtra->children : &mOnlyChild; }

    int totalThreads() const { return mProcessThreads.total(); }
    int totalCudaThreads() const;
    int totalProcesses() const { return mProcessThreads.sizeLowerBound(); }
    const IntProcessMap& processToThreadCountMap() const { return mProcessThreads; }
    const IntProcessMap& processToCudaThreadCountMap() const;
    bool isCurrentGroup() const { return mCurrentGroup; }
    bool isUnexpectedStop() const { return mUnexpectedStop; }
    bool isUnexpectedStopAncestor() const { return mUnexpectedStopAncestor; }

    void addChild(PSVModelItem* child);
    // Unlinks this node from its parent.
    void detach();
    // Deletes the subtree below this node; the node's own fields stay.
    void clear();
    // Removes every child without deleting it and hands them over in their
    // order; they have no parent afterwards.
    QList<PSVModelItem*> takeChildren();

    void addThreads(int process, int count, bool current, bool unexpected);
    void addThread(int process, bool current, bool unexpected) { addThreads(process, 1, current, unexpected); }
    void removeThread(int process) { addThreads(process, -1, false, false); }
    // Each new group counts as one more thread of the process.
    void addCudaThreads(int process, int group, int count, bool current, bool unexpected);
    // Sets the flag and marks every ancestor. It can't be cleared this way.
    void setUnexpectedStop(bool value);

    bool hasThreadsForProcessSet(const CompactSet<int>& set) const;
    // Positions from the root down to this node; empty for a root.
    QList<Position> stack() const;
    QString getKernelName() const;
    CompactSet<int> processes() const;
    PSVModelItem* childWithRank(int rank) const;

    // The first child at position: the very object, or equal function,
    // column and line and the same file by PathString::fileNamesEqual.
    PSVModelItem* findChild(const Position& position);
    const PSVModelItem* findChild(const Position& position) const;

    // Follows frames from the last to the first, each a child of the one
    // before: the node reached, null if a step fails, this node for none.
    // A frame has function, file and line members.
    template <typename Frame>
    PSVModelItem* findDescendant(const QList<Frame*>& frames);

    void setBrief(bool brief);
    void mapRanks(const QMap<int, int>& ranks);

    // What lookups among children compare first, for a position of which
    // many nodes are made: 24 bits.
    static quint32 positionKeyOf(const Position& position);

protected:
    // Whether two positions name the same frame.
    static bool samePosition(const Position& a, const Position& b);
    // Shares the storage of equal function and file names read from XML.
    static QString internString(const QString& text);
    // A derived node type's block of rarely set fields: null until set. The
    // derived type frees it, in its destructor.
    void* derivedData() const { return mHasExtra ? mExtra->derived : nullptr; }
    void setDerivedData(void* data) { extra().derived = data; }

    // The first child at position that accept takes (all when accept is
    // null), as findChild matches. Wide nodes answer through a hash index.
    PSVModelItem* findChildIf(const Position& position, bool (*accept)(const PSVModelItem*)) const;
    // findChild for the position of node, with the key that node keeps.
    PSVModelItem* findChildLike(const PSVModelItem* node) const;
    // The position of a node changes only here, so that the index of its
    // parent follows.
    void setPosition(const Position& position);

    IntProcessMap mProcessThreads;

private:
    friend class PSVChildIndex;
    friend class MergeTable;
    void unlinkChild(PSVModelItem* child);
    void appendChildPointer(PSVModelItem* child);
    // Forgets the children without touching them.
    void releaseChildPointers();
    // A fresh node under `parent` (or none): an only child is kept in
    // place, so that making a path calls into no other library; a parent
    // with children or an index takes the general way.
    inline void linkToParent(PSVModelItem* parent);
    // The fields that few nodes set, made on first use.
    PSVModelItemExtra& extra();
    IntProcessMap& cudaThreadsForChange();

    // Changed only through addChild, detach, clear, takeChildren and the
    // destructor, which keep the index in step. Most nodes have at most
    // one child and nothing else of the rare fields: the child is kept in
    // the node. Once the node has the block of rare fields, the children
    // lie in its array, of malloc'd memory whose capacity goes 4, then
    // twice as many; a second child makes the block.
    union {
        PSVModelItem* mOnlyChild;
        PSVModelItemExtra* mExtra;
    };
    PSVModelItem* mParent;
    // Never null; see keptPosition.
    const Position* mPosition;
    int mChildCount : 31;
    // Whether the union holds mExtra. Never cleared once set.
    quint32 mHasExtra : 1;
    // The hash of mPosition, kept so that lookups and merges don't read
    // the names again. It shares a word with the flags below, which keeps
    // a node of a fresh tree, made by the million, at 48 bytes.
    quint32 mPositionKey : 24;

protected:
    quint32 mCurrentGroup : 1;
    quint32 mUnexpectedStop : 1;
    quint32 mUnexpectedStopAncestor : 1;

private:
    // The brief mode of the device thread counts while they live nowhere.
    quint32 mCudaBrief : 1;

protected:
    // Free for a derived node type's own small field; 0 in a fresh node
    // and copied by the copy constructor.
    quint32 mDerivedBits : 4;
};

void PSVModelItem::linkToParent(PSVModelItem* parent)
{
    if (!parent)
        return;
    if (parent->mChildCount == 0 && !parent->mHasExtra) {
        parent->mOnlyChild = this;
        parent->mChildCount = 1;
    } else {
        parent->addChild(this);
    }
}

PSVModelItem::PSVModelItem(PSVModelItem* parent, const Position* kept, quint32 positionKey,
                           const IntProcessMap& threads)
    : mProcessThreads(threads), mOnlyChild(nullptr), mParent(parent), mPosition(kept), mChildCount(0),
      mHasExtra(0), mPositionKey(positionKey), mCurrentGroup(false), mUnexpectedStop(false),
      mUnexpectedStopAncestor(false), mCudaBrief(false), mDerivedBits(0)
{
    linkToParent(parent);
}

template <typename Frame>
PSVModelItem* PSVModelItem::findDescendant(const QList<Frame*>& frames)
{
    PSVModelItem* node = this;
    for (int i = frames.size() - 1; i >= 0 && node; --i) {
        const Frame* frame = frames.at(i);
        node = node->findChild(Position(frame->function, frame->file, frame->line, -1));
    }
    return node;
}

#endif
