#include "psvmodelitem.h"

#include "internstringcache.h"
#include "xmlreading.h"

#include <QCoreApplication>
#include <QMutex>
#include <QMutexLocker>
#include <QXmlStreamAttributes>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

const QLatin1String PSVModelItem::XML_NODE("node");

namespace {

const QLatin1String ATTR_FUNCTION("function");
const QLatin1String ATTR_FILE("file");
const QLatin1String ATTR_LINE("line");
const QLatin1String ATTR_PROCESSES("processes");
const QLatin1String ATTR_CUDA_THREADS("cuda-thread-counts");
const QLatin1String ATTR_CURRENT_GROUP("currentGroup");
const QLatin1String ATTR_UNEXPECTED_STOP("unexpectedStop");
const QLatin1String YES("yes");

} // namespace

PSVModelItem::PSVModelItem()
    : mParent(nullptr), mLastCudaGroup(-1), mCurrentGroup(false), mUnexpectedStop(false), mUnexpectedStopAncestor(false)
{
}

PSVModelItem::PSVModelItem(const Position& position)
    : mParent(nullptr), mPosition(position), mLastCudaGroup(-1), mCurrentGroup(false), mUnexpectedStop(false),
      mUnexpectedStopAncestor(false)
{
}

PSVModelItem::PSVModelItem(PSVModelItem* parent) : PSVModelItem()
{
    if (parent)
        parent->addChild(this);
}

PSVModelItem::PSVModelItem(PSVModelItem* parent, const Position& position) : PSVModelItem(position)
{
    if (parent)
        parent->addChild(this);
}

PSVModelItem::PSVModelItem(const PSVModelItem& other)
    : SaxHandler(other), mProcessThreads(other.mProcessThreads), mCudaThreads(other.mCudaThreads), mParent(nullptr),
      mPosition(other.mPosition), mLastCudaGroup(other.mLastCudaGroup), mCurrentGroup(other.mCurrentGroup),
      mUnexpectedStop(other.mUnexpectedStop), mUnexpectedStopAncestor(other.mUnexpectedStopAncestor)
{
    mChildren.reserve(other.mChildren.size());
    for (const PSVModelItem* child : other.mChildren)
        addChild(child->clone());
}

PSVModelItem::~PSVModelItem()
{
    if (mParent)
        mParent->mChildren.removeOne(this);
    for (PSVModelItem* child : qAsConst(mChildren)) {
        child->mParent = nullptr;
        delete child;
    }
}

int PSVModelItem::rank() const
{
    return -6;
}

int PSVModelItem::threadId() const
{
    return -1;
}

bool PSVModelItem::useXmlStreamReader() const
{
    return true;
}

PSVModelItem* PSVModelItem::createChild(const Position& position)
{
    return new PSVModelItem(this, position);
}

PSVModelItem* PSVModelItem::clone() const
{
    return new PSVModelItem(*this);
}

bool PSVModelItem::isSimplePSVModel() const
{
    return true;
}

const QVariantMap* PSVModelItem::variables() const
{
    return nullptr;
}

PSVModelItem* PSVModelItem::constructChild()
{
    return new PSVModelItem(this);
}

void PSVModelItem::writeExtraXml(QXmlStreamWriter&) const {}

bool PSVModelItem::readExtraXml(QXmlStreamReader& reader, QString*)
{
    // An element this node doesn't know, from a newer writer: pass over it.
    reader.skipCurrentElement();
    return true;
}

void PSVModelItem::extraMergePSVModelItem(const PSVModelItem&, void*) {}

void PSVModelItem::addChild(PSVModelItem* child)
{
    mChildren.append(child);
    child->mParent = this;
}

void PSVModelItem::detach()
{
    if (!mParent)
        return;
    mParent->mChildren.removeOne(this);
    mParent = nullptr;
}

void PSVModelItem::clear()
{
    const QList<PSVModelItem*> children = mChildren;
    mChildren.clear();
    for (PSVModelItem* child : children) {
        child->clear();
        child->mParent = nullptr;
        delete child;
    }
}

void PSVModelItem::addThreads(int process, int count, bool current, bool unexpected)
{
    mProcessThreads.add(process, count);
    mCurrentGroup = mCurrentGroup || current;
    if (!mUnexpectedStop)
        setUnexpectedStop(unexpected);
}

void PSVModelItem::addCudaThreads(int process, int group, int count, bool current, bool unexpected)
{
    if (group != mLastCudaGroup) {
        mLastCudaGroup = group;
        addThread(process, false, false);
    }
    mCudaThreads.add(process, count);
    mCurrentGroup = mCurrentGroup || current;
    if (!mUnexpectedStop)
        setUnexpectedStop(unexpected);
}

void PSVModelItem::setUnexpectedStop(bool value)
{
    if (mUnexpectedStop == value)
        return;
    mUnexpectedStop = true;
    for (PSVModelItem* ancestor = mParent; ancestor; ancestor = ancestor->mParent)
        ancestor->mUnexpectedStopAncestor = true;
}

bool PSVModelItem::hasThreadsForProcessSet(const CompactSet<int>& set) const
{
    for (const range<int>& r : set) {
        if (!mProcessThreads.contains(r))
            return false;
    }
    return true;
}

QList<Position> PSVModelItem::stack() const
{
    QList<Position> positions;
    if (!mParent)
        return positions;
    for (const PSVModelItem* node = this; node; node = node->mParent)
        positions.prepend(node->mPosition);
    return positions;
}

QString PSVModelItem::getKernelName() const
{
    if (!mParent)
        return QString();
    // Up through the frames that ran on the device, stopping below the root.
    const PSVModelItem* node = this;
    while (node->mParent->mParent && node->mParent->totalCudaThreads() >= 1)
        node = node->mParent;
    return node->mPosition.function;
}

CompactSet<int> PSVModelItem::processes() const
{
    CompactSet<int> set;
    for (const auto& entry : mProcessThreads)
        set.insert(entry.first, true);
    return set;
}

PSVModelItem* PSVModelItem::childWithRank(int rank) const
{
    for (PSVModelItem* child : mChildren) {
        if (child->mProcessThreads.contains(range<int>(rank, rank + 1)))
            return child;
    }
    return nullptr;
}

bool PSVModelItem::samePosition(const Position& a, const Position& b)
{
    // The cheap integer tests go first; all four must hold in any case.
    return &a == &b
        || (a.line == b.line && a.column == b.column && a.function == b.function
            && PathString::fileNamesEqual(a.file, b.file));
}

PSVModelItem* PSVModelItem::findChild(const Position& position)
{
    for (PSVModelItem* child : qAsConst(mChildren)) {
        if (samePosition(child->mPosition, position))
            return child;
    }
    return nullptr;
}

const PSVModelItem* PSVModelItem::findChild(const Position& position) const
{
    return const_cast<PSVModelItem*>(this)->findChild(position);
}

void PSVModelItem::setBrief(bool brief)
{
    mProcessThreads.setBrief(brief);
    mCudaThreads.setBrief(brief);
    for (PSVModelItem* child : qAsConst(mChildren))
        child->setBrief(brief);
}

void PSVModelItem::mapRanks(const QMap<int, int>& ranks)
{
    mProcessThreads.remap(ranks);
    mCudaThreads.remap(ranks);
    for (PSVModelItem* child : qAsConst(mChildren))
        child->mapRanks(ranks);
}

void PSVModelItem::addPSVModelItem(PSVModelItem* item, void* context)
{
    if (PSVModelItem* match = findChild(item->mPosition)) {
        match->mergePSVModelItem(*item, context);
        return;
    }
    item->detach();
    addChild(item);
}

void PSVModelItem::mergePSVModelItem(const PSVModelItem& other, void* context)
{
    extraMergePSVModelItem(other, context);
    // Ranks of different trees are disjoint, so taking other's count for
    // each of its ranks adds the two trees' counts.
    mProcessThreads.set(other.mProcessThreads, true);
    mCudaThreads.set(other.mCudaThreads, true);
    const QList<PSVModelItem*> otherChildren = other.mChildren;
    for (PSVModelItem* child : otherChildren)
        addPSVModelItem(child, context);
    mCurrentGroup = mCurrentGroup || other.mCurrentGroup;
    if (!mUnexpectedStop)
        setUnexpectedStop(other.mUnexpectedStop);
}

void PSVModelItem::writeXml(QXmlStreamWriter& writer) const
{
    // A root stands for no frame and writes no position.
    if (mParent) {
        if (!mPosition.function.isEmpty())
            writer.writeAttribute(ATTR_FUNCTION, mPosition.function);
        if (!mPosition.file.isEmpty())
            writer.writeAttribute(ATTR_FILE, mPosition.file);
        if (mPosition.line > 0)
            writer.writeAttribute(ATTR_LINE, QString::number(mPosition.line));
    }
    const QString processes = mProcessThreads.toString();
    if (!processes.isEmpty())
        writer.writeAttribute(ATTR_PROCESSES, processes);
    if (!mCudaThreads.isEmpty())
        writer.writeAttribute(ATTR_CUDA_THREADS, mCudaThreads.toString());
    if (mCurrentGroup)
        writer.writeAttribute(ATTR_CURRENT_GROUP, YES);
    if (mUnexpectedStop)
        writer.writeAttribute(ATTR_UNEXPECTED_STOP, YES);
    writeExtraXml(writer);
    for (const PSVModelItem* child : mChildren) {
        writer.writeStartElement(XML_NODE);
        child->writeXml(writer);
        writer.writeEndElement();
    }
}

bool PSVModelItem::readXml(QXmlStreamReader& reader, QString* error)
{
    readXmlStreamAttributes(reader.attributes());
    while (readNextStartElement(reader)) {
        if (reader.name() == XML_NODE) {
            PSVModelItem* child = constructChild();
            if (!child->readXml(reader, error)) {
                delete child;
                if (error)
                    *error = QCoreApplication::translate("PSVModelItem", "failed to read child node element");
                return false;
            }
        } else if (!readExtraXml(reader, error)) {
            return false;
        }
    }
    // A truncated or malformed document ends the loop as well.
    if (reader.hasError()) {
        if (error)
            *error = reader.errorString();
        return false;
    }
    return true;
}

QString PSVModelItem::internString(const QString& text)
{
    static QMutex mutex;
    static InternStringCache cache;
    QMutexLocker lock(&mutex);
    return cache.intern(text);
}

void PSVModelItem::readXmlStreamAttributes(const QXmlStreamAttributes& attributes)
{
    Position position;
    if (attributes.hasAttribute(ATTR_FUNCTION))
        position.function = internString(attributes.value(ATTR_FUNCTION).toString());
    if (attributes.hasAttribute(ATTR_FILE))
        position.file = internString(attributes.value(ATTR_FILE).toString());
    if (attributes.hasAttribute(ATTR_LINE))
        position.line = attributes.value(ATTR_LINE).toInt();
    mPosition = position;
    if (attributes.hasAttribute(ATTR_PROCESSES))
        mProcessThreads = IntProcessMap(attributes.value(ATTR_PROCESSES).toString());
    if (attributes.hasAttribute(ATTR_CUDA_THREADS))
        mCudaThreads = IntProcessMap(attributes.value(ATTR_CUDA_THREADS).toString());
    mCurrentGroup = attributes.value(ATTR_CURRENT_GROUP) == YES;
    setUnexpectedStop(attributes.value(ATTR_UNEXPECTED_STOP) == YES);
}
