#include "sample.h"

#include <QExplicitlySharedDataPointer>
#include <QSharedPointer>
#include <QVector>
#include <algorithm>
#include <climits>
#include <cstring>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include "gpuprofilepsvmodelitem.h"
#include "xmlreading.h"
#include "xmlvalues.h"
#include "xmlwriting.h"
#include "zorpsvmodelitem.h"

namespace {

// Owns one thread's tree. Copies of a sample share it until one of them
// asks for it to change.
struct TreeHolder : public QSharedData
{
    explicit TreeHolder(ZORPSVModelItem* tree) : root(tree) {}
    TreeHolder(const TreeHolder& other)
        : QSharedData(other)
        , root(other.root ? static_cast<ZORPSVModelItem*>(other.root->clone()) : nullptr)
    {
    }
    TreeHolder& operator=(const TreeHolder&) = delete;
    ~TreeHolder() { delete root; }

    ZORPSVModelItem* root;
};

struct SampleThread
{
    int tid = 0;
    QExplicitlySharedDataPointer<TreeHolder> tree;
    ThreadContext context;
    InstructionQuery instruction;
    Sample::ThreadType type = Sample::OtherThread;
    unsigned long long cpuTime = 0;
    unsigned long long allocatedCpuTime = 0;
    bool sleeping = false;
    QMap<QString, unsigned long> metrics;
};

const QString YesText = QStringLiteral("yes");

} // namespace

class SampleData : public QSharedData
{
public:
    int rank = -1;
    bool hasTimestamp = false;
    long long timestamp = 0;
    bool repeat = false;
    bool ignore = false;
    QMap<QString, ScalarMetric> metrics;
    // Sorted by thread id: a sample has a handful of threads, and a vector
    // costs one allocation where a map costs one per thread.
    QVector<SampleThread> threads;
    QVector<int> liveThreads; // sorted

    const SampleThread* find(int tid) const
    {
        const auto it = std::lower_bound(threads.cbegin(), threads.cend(), tid,
                                         [](const SampleThread& t, int id) { return t.tid < id; });
        return it != threads.cend() && it->tid == tid ? &*it : nullptr;
    }
    SampleThread* find(int tid)
    {
        const auto it = std::lower_bound(threads.begin(), threads.end(), tid,
                                         [](const SampleThread& t, int id) { return t.tid < id; });
        return it != threads.end() && it->tid == tid ? &*it : nullptr;
    }
    void insert(const SampleThread& thread)
    {
        const auto it = std::lower_bound(threads.begin(), threads.end(), thread.tid,
                                         [](const SampleThread& t, int id) { return t.tid < id; });
        if (it != threads.end() && it->tid == thread.tid)
            *it = thread;
        else
            threads.insert(it, thread);
    }
    QList<int> libunwindErrorCodes;
    SampleHistogram histogram;
    QSharedPointer<const GpuProfilePSVModelItem> gpuTree;
};

struct SampleTreeTable::Data
{
    // Writing: each tree written whole, by its holder and by a hash of its
    // text. A list may be written in pieces, into buffers that are gone by
    // the next: the texts are kept, and so are the holders, whose addresses
    // no other tree may take meanwhile.
    struct Written
    {
        int number;
        QByteArray text;
    };
    // The trees written whole, by their shape: most trees are found there
    // without being written at all.
    struct Shaped
    {
        int number;
        const TreeHolder* holder;
    };
    QHash<const TreeHolder*, int> byHolder;
    QVector<QExplicitlySharedDataPointer<TreeHolder>> held;
    QMultiHash<uint, Shaped> byShape;
    QMultiHash<uint, Written> byText;
    // Reading: the trees read whole, by number, and the sample read last,
    // whose trees the files of version 2 name by "sameTree".
    QVector<QExplicitlySharedDataPointer<TreeHolder>> read;
    QSharedDataPointer<SampleData> previous;
    int trees = 0;
    int references = 0;

    // The number of a tree written before that is holder's, or writes as
    // holder's would, counted as a reference; or -1, with holder's shape.
    int find(const QExplicitlySharedDataPointer<TreeHolder>& holder, uint* shape)
    {
        int number = byHolder.value(holder.constData(), -1);
        if (number < 0) {
            *shape = holder->root->shapeHash();
            for (auto it = byShape.constFind(*shape); it != byShape.constEnd() && it.key() == *shape; ++it) {
                if (it->holder->root->writesAlike(*holder->root)) {
                    number = it->number;
                    break;
                }
            }
            if (number < 0)
                return -1;
            byHolder.insert(holder.constData(), number);
            held.append(holder);
        }
        ++references;
        return number;
    }

    // The number of an earlier tree equal to the text just written at
    // offset, or -1 after numbering this one.
    int note(const QByteArray& bytes, int offset, const QExplicitlySharedDataPointer<TreeHolder>& holder, uint shape)
    {
        const int length = bytes.size() - offset;
        const char* text = bytes.constData() + offset;
        const uint hash = qHashBits(text, size_t(length));
        int number = -1;
        for (auto it = byText.constFind(hash); it != byText.constEnd() && it.key() == hash; ++it) {
            if (it->text.size() == length && std::memcmp(it->text.constData(), text, size_t(length)) == 0) {
                number = it->number;
                break;
            }
        }
        if (number >= 0) {
            ++references;
        } else {
            byShape.insert(shape, Shaped{trees, holder.constData()});
            byText.insert(hash, Written{trees++, QByteArray(text, length)});
        }
        byHolder.insert(holder.constData(), number >= 0 ? number : trees - 1);
        held.append(holder);
        return number;
    }
};

SampleTreeTable::SampleTreeTable() : d(new Data) {}

SampleTreeTable::~SampleTreeTable()
{
    delete d;
}

int SampleTreeTable::trees() const
{
    return d->trees;
}

int SampleTreeTable::references() const
{
    return d->references;
}

Sample::Sample()
    : d(new SampleData)
{
}

Sample::Sample(const MetricDefinitions&, int rank)
    : d(new SampleData)
{
    d->rank = rank;
}

Sample::Sample(const Sample& other, bool repeat)
    : d(other.d)
{
    d->repeat = repeat;
}

Sample::Sample(const Sample& other) = default;
Sample& Sample::operator=(const Sample& other) = default;
Sample::~Sample() = default;

int Sample::rank() const
{
    return d->rank;
}

ScalarMetric Sample::metric(const QString& id) const
{
    return d->metrics.value(id);
}

void Sample::setMetric(const QString& id, const SampleValue& value)
{
    d->metrics.insert(id, ScalarMetric(value));
}

QList<QString> Sample::metricIds() const
{
    return d->metrics.keys();
}

bool Sample::hasTimestamp() const
{
    return d->hasTimestamp;
}

long long Sample::backendOnly_getTimestamp() const
{
    return d->timestamp;
}

void Sample::backendOnly_setTimestamp(long long milliseconds)
{
    d->timestamp = milliseconds;
    d->hasTimestamp = true;
}

bool Sample::isRepeat() const
{
    return d->repeat;
}

void Sample::setIgnore(bool ignore)
{
    d->ignore = ignore;
}

bool Sample::isIgnored() const
{
    return d->ignore;
}

void Sample::addLibunwindErrorCode(int code)
{
    d->libunwindErrorCodes.append(code);
}

QList<int> Sample::libunwindErrorCodes() const
{
    return d->libunwindErrorCodes;
}

void Sample::backendOnly_addThread(ZORPSVModelItem* tree, int tid, const ThreadContext& context,
                                   const InstructionQuery& instruction, ThreadType type, unsigned long long cpuTime,
                                   bool sleeping)
{
    SampleThread thread;
    thread.tid = tid;
    if (tree)
        thread.tree = QExplicitlySharedDataPointer<TreeHolder>(new TreeHolder(tree));
    thread.context = context;
    thread.instruction = instruction;
    thread.type = type;
    thread.cpuTime = cpuTime;
    thread.sleeping = sleeping;
    d->insert(thread);
}

QSet<int> Sample::backendOnly_sampledTids() const
{
    QSet<int> tids;
    tids.reserve(d->threads.size());
    for (const SampleThread& thread : d->threads)
        tids.insert(thread.tid);
    return tids;
}

QVector<int> Sample::sampledTidList() const
{
    QVector<int> tids;
    tids.reserve(d->threads.size());
    for (const SampleThread& thread : d->threads)
        tids.append(thread.tid);
    return tids;
}

bool Sample::backendOnly_hasSampleForThread(int tid) const
{
    return d->find(tid) != nullptr;
}

Sample::ThreadType Sample::backendOnly_threadType(int tid) const
{
    const SampleThread* thread = d->find(tid);
    return thread ? thread->type : OtherThread;
}

bool Sample::backendOnly_isSleeping(int tid) const
{
    const SampleThread* thread = d->find(tid);
    return thread && thread->sleeping;
}

ThreadContext Sample::backendOnly_threadContext(int tid) const
{
    const SampleThread* thread = d->find(tid);
    return thread ? thread->context : ThreadContext();
}

unsigned long long Sample::backendOnly_cpuTime(int tid) const
{
    const SampleThread* thread = d->find(tid);
    return thread ? thread->cpuTime : 0;
}

void Sample::backendOnly_setCpuTime(int tid, unsigned long long cpuTime)
{
    if (!d.constData()->find(tid))
        return;
    d->find(tid)->cpuTime = cpuTime;
}

unsigned long long Sample::backendOnly_getAllocatedCpuTime(int tid) const
{
    const SampleThread* thread = d->find(tid);
    return thread ? thread->allocatedCpuTime : 0;
}

void Sample::backendOnly_addAllocatedCpuTime(int tid, unsigned long long cpuTime)
{
    if (!d.constData()->find(tid))
        return;
    d->find(tid)->allocatedCpuTime += cpuTime;
}

QSet<int> Sample::backendOnly_liveThreads() const
{
    QSet<int> tids;
    tids.reserve(d->liveThreads.size());
    for (int tid : d->liveThreads)
        tids.insert(tid);
    return tids;
}

QVector<int> Sample::liveTidList() const
{
    return d->liveThreads;
}

void Sample::backendOnly_setLiveThreads(const QSet<int>& tids)
{
    QVector<int> sorted(tids.begin(), tids.end());
    std::sort(sorted.begin(), sorted.end());
    d->liveThreads = sorted;
}

void Sample::backendOnly_setLiveThreadList(QVector<int> tids)
{
    std::sort(tids.begin(), tids.end());
    tids.erase(std::unique(tids.begin(), tids.end()), tids.end());
    d->liveThreads = tids;
}

void Sample::backendOnly_reserveThreads(int count)
{
    d->threads.reserve(count);
}

InstructionQuery Sample::backendOnly_instruction(int tid) const
{
    const SampleThread* thread = d->find(tid);
    return thread ? thread->instruction : InstructionQuery();
}

QList<InstructionQuery> Sample::backendOnly_instructions() const
{
    QList<InstructionQuery> instructions;
    instructions.reserve(d->threads.size());
    for (const SampleThread& thread : d->threads)
        instructions.append(thread.instruction);
    return instructions;
}

void Sample::backendOnly_setInstruction(int tid, const InstructionQuery& instruction)
{
    if (!d.constData()->find(tid))
        return;
    d->find(tid)->instruction = instruction;
}

ZORPSVModelItem* Sample::backendOnly_mutablePsvModel(int tid)
{
    const SampleThread* shared = d.constData()->find(tid);
    if (!shared || !shared->tree)
        return nullptr;
    SampleThread* thread = d->find(tid);
    thread->tree.detach();
    return thread->tree->root;
}

const ZORPSVModelItem* Sample::psvModel(int tid) const
{
    const SampleThread* thread = d->find(tid);
    return thread && thread->tree ? thread->tree->root : nullptr;
}

void Sample::backendOnly_setThreadMetric(int tid, const QString& id, unsigned long value)
{
    if (!d.constData()->find(tid))
        return;
    d->find(tid)->metrics.insert(id, value);
}

QMap<QString, unsigned long> Sample::threadMetrics(int tid) const
{
    const SampleThread* thread = d->find(tid);
    return thread ? thread->metrics : QMap<QString, unsigned long>();
}

namespace {

int binOf(double value, double low, double high, int numBins)
{
    if (!(high > low) || !(value > low))
        return 0;
    if (value >= high)
        return numBins - 1;
    return qMin(numBins - 1, static_cast<int>((value - low) / (high - low) * numBins));
}

} // namespace

void Sample::backendOnly_calculateHistograms(int numBins, const QMap<QString, SampleValueRange>& ranges)
{
    SampleHistogram histogram(qMax(numBins, 0));
    if (numBins > 0) {
        for (auto range = ranges.constBegin(); range != ranges.constEnd(); ++range) {
            const double low = range->min.to_double();
            const double high = range->max.to_double();
            QVector<quint32> bins(numBins, 0);
            bool threadValues = false;
            for (const SampleThread& thread : d->threads) {
                const auto value = thread.metrics.constFind(range.key());
                if (value == thread.metrics.constEnd())
                    continue;
                threadValues = true;
                ++bins[binOf(static_cast<double>(value.value()), low, high, numBins)];
            }
            if (!threadValues) {
                const SampleValue value = d->metrics.value(range.key()).singleValue();
                if (value.empty())
                    continue;
                ++bins[binOf(value.to_double(), low, high, numBins)];
            }
            histogram.setBins(range.key(), bins);
        }
    }
    d->histogram = histogram;
}

SampleHistogram Sample::histogram() const
{
    return d->histogram;
}

void Sample::setGpuPsvModel(GpuProfilePSVModelItem* tree)
{
    d->gpuTree.reset(tree);
}

const GpuProfilePSVModelItem* Sample::gpuPsvModel() const
{
    return d->gpuTree.data();
}

void Sample::writeXml(QXmlStreamWriter& writer) const
{
    QByteArray xml;
    XmlWriter out(&xml);
    writeXml(out);
    writeRawXml(writer, xml);
}

void Sample::writeXml(XmlWriter& writer, SampleTreeTable* trees) const
{
    writer.startElement(QLatin1String("sample"));
    writer.attribute(QLatin1String("rank"), d->rank);
    if (d->hasTimestamp)
        writer.attribute(QLatin1String("t"), qlonglong(d->timestamp));
    if (d->repeat)
        writer.attribute(QLatin1String("repeat"), YesText);
    if (d->ignore)
        writer.attribute(QLatin1String("ignore"), YesText);
    if (!d->liveThreads.isEmpty())
        writer.attribute(QLatin1String("live"), intSetToString(backendOnly_liveThreads()));
    if (!d->libunwindErrorCodes.isEmpty()) {
        QStringList codes;
        for (int code : d->libunwindErrorCodes)
            codes.append(QString::number(code));
        writer.attribute(QLatin1String("unwindErrors"), codes.join(QLatin1Char(',')));
    }
    for (auto it = d->metrics.constBegin(); it != d->metrics.constEnd(); ++it) {
        writer.startElement(QLatin1String("metric"));
        writer.attribute(QLatin1String("id"), it.key());
        writer.attribute(QLatin1String("v"), sampleValueToString(it->singleValue()));
        writer.attribute(QLatin1String("mean"), sampleValueToString(it->mean()));
        writer.endElement();
    }
    for (const SampleThread& thread : d->threads) {
        const bool hasTree = thread.tree && thread.tree->root;
        writer.startElement(QLatin1String("thread"));
        writer.attribute(QLatin1String("tid"), thread.tid);
        writer.attribute(QLatin1String("type"), int(thread.type));
        writer.attribute(QLatin1String("cpu"), qulonglong(thread.cpuTime));
        if (thread.allocatedCpuTime != 0)
            writer.attribute(QLatin1String("allocated"), qulonglong(thread.allocatedCpuTime));
        if (thread.context.rank != ThreadContext().rank)
            writer.attribute(QLatin1String("ctxRank"), thread.context.rank);
        if (thread.context.pid != ThreadContext().pid)
            writer.attribute(QLatin1String("pid"), thread.context.pid);
        if (thread.sleeping)
            writer.attribute(QLatin1String("sleeping"), YesText);
        if (!thread.instruction.instruction.isEmpty())
            writer.attribute(QLatin1String("instr"), thread.instruction.instruction);
        if (thread.instruction.implicitMemory)
            writer.attribute(QLatin1String("implicitMem"), YesText);
        for (auto m = thread.metrics.constBegin(); m != thread.metrics.constEnd(); ++m) {
            writer.startElement(QLatin1String("tm"));
            writer.attribute(QLatin1String("id"), m.key());
            writer.attribute(QLatin1String("v"), qulonglong(m.value()));
            writer.endElement();
        }
        if (hasTree) {
            // A repeated sample shares its trees with the one before it, and
            // most samples of a run have a tree that another one has too:
            // each travels once.
            uint shape = 0;
            int number = trees ? trees->d->find(thread.tree, &shape) : -1;
            if (number < 0) {
                const int mark = writer.mark();
                writer.startElement(QLatin1String("tree"));
                thread.tree->root->writeXml(writer);
                writer.endElement();
                if (trees) {
                    number = trees->d->note(writer.bytes(), mark, thread.tree, shape);
                    if (number >= 0)
                        writer.rewind(mark);
                }
            }
            if (number >= 0) {
                writer.startElement(QLatin1String("tree"));
                writer.attribute(QLatin1String("ref"), number);
                writer.endElement();
            }
        }
        writer.endElement();
    }
    if (d->histogram.numBins() != 0 || !d->histogram.isEmpty())
        d->histogram.writeXml(writer);
    if (d->gpuTree) {
        const GpuProfilePSVModelItem& tree = *d->gpuTree;
        writer.viaStreamWriter([&tree](QXmlStreamWriter& stream) {
            stream.writeStartElement(QStringLiteral("gpuTree"));
            tree.writeXml(stream);
            stream.writeEndElement();
        });
    }
    writer.endElement();
}

namespace {

bool fail(QString* error, const QString& text)
{
    *error = text;
    return false;
}

// A thread's tree as it is read: its own, which joins the table, or the
// number of one that came before ("ref"), or the one of the sample before
// ("sameTree", files of version 2).
struct TreeRead
{
    bool sameTree = false;
    int reference = -1;
};

bool readThread(QXmlStreamReader& reader, SampleThread* thread, TreeRead* tree, QString* error)
{
    const QXmlStreamAttributes a = reader.attributes();
    tree->sameTree = a.value(QLatin1String("sameTree")) == YesText;
    bool ok = false;
    thread->tid = a.value(QLatin1String("tid")).toInt(&ok);
    if (!ok)
        return fail(error, QStringLiteral("sample thread without a numeric tid"));
    const int type = a.value(QLatin1String("type")).toInt(&ok);
    if (!ok || type < Sample::MainThread || type > Sample::ParallelRegionThread)
        return fail(error, QStringLiteral("thread %1 has a bad type").arg(thread->tid));
    thread->type = static_cast<Sample::ThreadType>(type);
    thread->cpuTime = a.value(QLatin1String("cpu")).toULongLong(&ok);
    if (!ok)
        return fail(error, QStringLiteral("thread %1 has a bad CPU time").arg(thread->tid));
    // Absent attributes keep their defaults; present ones must be numbers.
    const auto optional = [&](const char* name, auto convert) {
        const QLatin1String key(name);
        if (a.hasAttribute(key))
            convert(a.value(key), &ok);
        else
            ok = true;
        if (!ok)
            fail(error, QStringLiteral("thread %1 has a bad %2").arg(thread->tid).arg(key));
        return ok;
    };
    if (!optional("allocated", [&](const QStringRef& v, bool* ok) { thread->allocatedCpuTime = v.toULongLong(ok); })
        || !optional("ctxRank", [&](const QStringRef& v, bool* ok) { thread->context.rank = v.toInt(ok); })
        || !optional("pid", [&](const QStringRef& v, bool* ok) { thread->context.pid = v.toInt(ok); }))
        return false;
    thread->sleeping = a.value(QLatin1String("sleeping")) == YesText;
    thread->instruction = InstructionQuery(a.value(QLatin1String("instr")).toString(),
                                           a.value(QLatin1String("implicitMem")) == YesText);
    while (reader.readNextStartElement()) {
        if (reader.name() == QLatin1String("tm")) {
            const QXmlStreamAttributes m = reader.attributes();
            const unsigned long value = m.value(QLatin1String("v")).toULong(&ok);
            if (!ok)
                return fail(error, QStringLiteral("thread %1 has a bad metric value").arg(thread->tid));
            thread->metrics.insert(m.value(QLatin1String("id")).toString(), value);
        } else if (reader.name() == QLatin1String("tree") && !thread->tree && tree->reference < 0) {
            const QStringRef reference = reader.attributes().value(QLatin1String("ref"));
            if (!reference.isNull()) {
                tree->reference = reference.toInt(&ok);
                if (!ok || tree->reference < 0)
                    return fail(error, QStringLiteral("thread %1 names a bad tree").arg(thread->tid));
                reader.skipCurrentElement();
                continue;
            }
            ZORPSVModelItem* root = ZORPSVModelItem::readTree(reader, error);
            if (!root)
                return false;
            thread->tree = QExplicitlySharedDataPointer<TreeHolder>(new TreeHolder(root));
            continue;
        }
        reader.skipCurrentElement();
    }
    return !reader.hasError();
}

QString sameString(const QString& text)
{
    return text;
}

QString sameTreeError(int tid)
{
    return QStringLiteral("thread %1 has the tree of the sample before it, which has none for it").arg(tid);
}

QString referenceError(int tid, int number)
{
    return QStringLiteral("thread %1 names tree %2, which came nowhere before it").arg(tid).arg(number);
}

// The thread's tree from the table, or an error; a tree of the thread's own
// joins the table.
QString adoptTree(const TreeRead& read, SampleTreeTable::Data* table, SampleThread* thread)
{
    if (read.sameTree) {
        // The sample before must have a tree for the thread, and the thread
        // none of its own.
        const SampleData* previous = table ? table->previous.constData() : nullptr;
        const SampleThread* before = previous ? previous->find(thread->tid) : nullptr;
        if (!before || !before->tree || thread->tree || read.reference >= 0)
            return sameTreeError(thread->tid);
        thread->tree = before->tree;
    } else if (read.reference >= 0) {
        if (!table || read.reference >= table->read.size())
            return referenceError(thread->tid, read.reference);
        thread->tree = table->read.at(read.reference);
        ++table->references;
    } else if (thread->tree && table) {
        table->read.append(thread->tree);
        ++table->trees;
    }
    return QString();
}

// Comma-separated decimal numbers into a sorted list without repeats.
bool readIntSet(const FastXmlReader::Value& text, QVector<int>* set)
{
    set->clear();
    const char* p = text.data;
    const char* const end = p + text.size;
    while (p < end) {
        const char* comma = static_cast<const char*>(memchr(p, ',', size_t(end - p)));
        if (!comma)
            comma = end;
        int value = 0;
        if (!FastXmlReader::Value{p, int(comma - p)}.toInt(&value) || (comma != end && comma + 1 == end))
            return false;
        set->append(value);
        p = comma + 1;
    }
    std::sort(set->begin(), set->end());
    set->erase(std::unique(set->begin(), set->end()), set->end());
    return true;
}

bool readThread(FastXmlReader& reader, SampleThread* thread, TreeRead* tree)
{
    tree->sameTree = reader.attribute(QLatin1String("sameTree")) == QLatin1String("yes");
    int type = 0;
    qulonglong cpu = 0;
    if (!reader.attribute(QLatin1String("tid")).toInt(&thread->tid) || !reader.attribute(QLatin1String("type")).toInt(&type)
        || type < Sample::MainThread || type > Sample::ParallelRegionThread
        || !reader.attribute(QLatin1String("cpu")).toULongLong(&cpu)) {
        reader.raiseError(QStringLiteral("a sample thread's tid, type or CPU time"));
        return false;
    }
    thread->type = static_cast<Sample::ThreadType>(type);
    thread->cpuTime = cpu;
    const FastXmlReader::Value allocated = reader.attribute(QLatin1String("allocated"));
    const FastXmlReader::Value rank = reader.attribute(QLatin1String("ctxRank"));
    const FastXmlReader::Value pid = reader.attribute(QLatin1String("pid"));
    if ((!allocated.isNull() && !allocated.toULongLong(&cpu)) || (!rank.isNull() && !rank.toInt(&thread->context.rank))
        || (!pid.isNull() && !pid.toInt(&thread->context.pid))) {
        reader.raiseError(QStringLiteral("a sample thread's allocated time, rank or pid"));
        return false;
    }
    if (!allocated.isNull())
        thread->allocatedCpuTime = cpu;
    thread->sleeping = reader.attribute(QLatin1String("sleeping")) == QLatin1String("yes");
    const FastXmlReader::Value instruction = reader.attribute(QLatin1String("instr"));
    thread->instruction = InstructionQuery(instruction.isNull() ? QString() : reader.sharedString(instruction, &sameString),
                                           reader.attribute(QLatin1String("implicitMem")) == QLatin1String("yes"));
    while (reader.readNextStartElement()) {
        if (reader.nameIs(QLatin1String("tm"))) {
            qulonglong value = 0;
            if (!reader.attribute(QLatin1String("v")).toULongLong(&value) || value > ULONG_MAX) {
                reader.raiseError(QStringLiteral("a bad thread metric value"));
                return false;
            }
            const FastXmlReader::Value id = reader.attribute(QLatin1String("id"));
            thread->metrics.insert(id.isNull() ? QString() : reader.sharedString(id, &sameString), value);
        } else if (reader.nameIs(QLatin1String("tree")) && !thread->tree && tree->reference < 0) {
            const FastXmlReader::Value reference = reader.attribute(QLatin1String("ref"));
            if (!reference.isNull()) {
                if (!reference.toInt(&tree->reference) || tree->reference < 0) {
                    reader.raiseError(QStringLiteral("thread %1 names a bad tree").arg(thread->tid));
                    return false;
                }
                reader.skipCurrentElement();
                continue;
            }
            ZORPSVModelItem* root = ZORPSVModelItem::readTree(reader);
            if (!root)
                return false;
            thread->tree = QExplicitlySharedDataPointer<TreeHolder>(new TreeHolder(root));
            continue;
        }
        reader.skipCurrentElement();
    }
    return !reader.hasError();
}

} // namespace

bool Sample::readXml(FastXmlReader& reader, SampleTreeTable* trees)
{
    SampleData* data = new SampleData;
    QSharedDataPointer<SampleData> guard(data);
    const FastXmlReader::Value time = reader.attribute(QLatin1String("t"));
    if (!reader.attribute(QLatin1String("rank")).toInt(&data->rank)
        || (!time.isNull() && !time.toLongLong(&data->timestamp))
        || !readIntSet(reader.attribute(QLatin1String("live")), &data->liveThreads)) {
        reader.raiseError(QStringLiteral("a sample's rank, time or live threads"));
        return false;
    }
    data->hasTimestamp = !time.isNull();
    data->repeat = reader.attribute(QLatin1String("repeat")) == QLatin1String("yes");
    data->ignore = reader.attribute(QLatin1String("ignore")) == QLatin1String("yes");
    const FastXmlReader::Value codes = reader.attribute(QLatin1String("unwindErrors"));
    if (!codes.isNull() && codes.size > 0) {
        for (const QString& code : codes.toString().split(QLatin1Char(','))) {
            bool ok = false;
            data->libunwindErrorCodes.append(code.toInt(&ok));
            if (!ok) {
                reader.raiseError(QStringLiteral("a bad unwind error code"));
                return false;
            }
        }
    }
    while (reader.readNextStartElement()) {
        if (reader.nameIs(QLatin1String("metric"))) {
            SampleValue single, mean;
            if (!sampleValueFromString(reader.attribute(QLatin1String("v")).toString(), &single)
                || !sampleValueFromString(reader.attribute(QLatin1String("mean")).toString(), &mean)) {
                reader.raiseError(QStringLiteral("a bad metric value"));
                return false;
            }
            const FastXmlReader::Value id = reader.attribute(QLatin1String("id"));
            data->metrics.insert(id.isNull() ? QString() : reader.sharedString(id, &sameString),
                                 ScalarMetric(single, mean));
            reader.skipCurrentElement();
        } else if (reader.nameIs(QLatin1String("thread"))) {
            SampleThread thread;
            TreeRead tree;
            if (!readThread(reader, &thread, &tree))
                return false;
            const QString wrong = adoptTree(tree, trees ? trees->d : nullptr, &thread);
            if (!wrong.isEmpty()) {
                reader.raiseError(wrong);
                return false;
            }
            data->insert(thread);
        } else if (reader.nameIs(QLatin1String("histogram")) || reader.nameIs(QLatin1String("gpuTree"))) {
            reader.raiseError(QStringLiteral("histograms and device trees are read by Qt's reader"));
            return false;
        } else {
            reader.skipCurrentElement();
        }
    }
    if (reader.hasError())
        return false;
    d = guard;
    if (trees)
        trees->d->previous = d;
    return true;
}

bool Sample::readXml(QXmlStreamReader& reader, QString* error, SampleTreeTable* trees)
{
    if (!reader.isStartElement() || reader.name() != QLatin1String("sample"))
        return fail(error, QStringLiteral("expected a sample element"));
    SampleData* data = new SampleData;
    QSharedDataPointer<SampleData> guard(data);
    const QXmlStreamAttributes a = reader.attributes();
    bool ok = false;
    data->rank = a.value(QLatin1String("rank")).toInt(&ok);
    if (!ok)
        return fail(error, QStringLiteral("sample without a rank"));
    if (a.hasAttribute(QLatin1String("t"))) {
        data->timestamp = a.value(QLatin1String("t")).toLongLong(&ok);
        if (!ok)
            return fail(error, QStringLiteral("sample with a bad time stamp"));
        data->hasTimestamp = true;
    }
    data->repeat = a.value(QLatin1String("repeat")) == YesText;
    data->ignore = a.value(QLatin1String("ignore")) == YesText;
    QSet<int> live;
    if (!intSetFromString(a.value(QLatin1String("live")).toString(), &live))
        return fail(error, QStringLiteral("sample with a bad list of live threads"));
    data->liveThreads = QVector<int>(live.begin(), live.end());
    std::sort(data->liveThreads.begin(), data->liveThreads.end());
    const QString codes = a.value(QLatin1String("unwindErrors")).toString();
    if (!codes.isEmpty()) {
        for (const QString& code : codes.split(QLatin1Char(','))) {
            data->libunwindErrorCodes.append(code.toInt(&ok));
            if (!ok)
                return fail(error, QStringLiteral("sample with a bad unwind error code"));
        }
    }
    while (reader.readNextStartElement()) {
        if (reader.name() == QLatin1String("metric")) {
            const QXmlStreamAttributes m = reader.attributes();
            SampleValue single, mean;
            if (!sampleValueFromString(m.value(QLatin1String("v")).toString(), &single)
                || !sampleValueFromString(m.value(QLatin1String("mean")).toString(), &mean))
                return fail(error, QStringLiteral("sample with a bad metric value"));
            data->metrics.insert(m.value(QLatin1String("id")).toString(), ScalarMetric(single, mean));
            reader.skipCurrentElement();
        } else if (reader.name() == QLatin1String("thread")) {
            SampleThread thread;
            TreeRead tree;
            if (!readThread(reader, &thread, &tree, error))
                return reader.hasError() ? fail(error, xmlReadError(reader, *error)) : false;
            const QString wrong = adoptTree(tree, trees ? trees->d : nullptr, &thread);
            if (!wrong.isEmpty())
                return fail(error, wrong);
            data->insert(thread);
        } else if (reader.name() == QLatin1String("histogram")) {
            if (!data->histogram.readXml(reader, error))
                return false;
        } else if (reader.name() == QLatin1String("gpuTree") && !data->gpuTree) {
            GpuProfilePSVModelItem* tree = GpuProfilePSVModelItem::readTree(reader, error);
            if (!tree)
                return false;
            data->gpuTree.reset(tree);
        } else {
            reader.skipCurrentElement();
        }
    }
    if (reader.hasError())
        return fail(error, xmlReadError(reader, QString()));
    d = guard;
    if (trees)
        trees->d->previous = d;
    return true;
}

namespace {

// Trees compare by their wire form: equal in everything that travels.
QByteArray treeText(const SampleThread& thread)
{
    if (!thread.tree || !thread.tree->root)
        return QByteArray();
    QByteArray text;
    XmlWriter writer(&text);
    writer.startElement(QLatin1String("tree"));
    thread.tree->root->writeXml(writer);
    writer.endElement();
    return text;
}

} // namespace

bool Sample::operator==(const Sample& other) const
{
    if (d == other.d)
        return true;
    const SampleData& a = *d;
    const SampleData& b = *other.d;
    if (a.rank != b.rank || a.hasTimestamp != b.hasTimestamp || (a.hasTimestamp && a.timestamp != b.timestamp)
        || a.repeat != b.repeat || a.ignore != b.ignore || a.liveThreads != b.liveThreads
        || a.libunwindErrorCodes != b.libunwindErrorCodes || !(a.histogram == b.histogram)
        || a.metrics.keys() != b.metrics.keys() || a.threads.size() != b.threads.size()
        || !a.gpuTree != !b.gpuTree || (a.gpuTree && *a.gpuTree != *b.gpuTree))
        return false;
    for (auto it = a.metrics.constBegin(); it != a.metrics.constEnd(); ++it) {
        const ScalarMetric& other = b.metrics[it.key()];
        if (it->singleValue().type() != other.singleValue().type() || !(*it == other))
            return false;
    }
    for (int i = 0; i < a.threads.size(); ++i) {
        const SampleThread& x = a.threads.at(i);
        const SampleThread& y = b.threads.at(i);
        if (x.tid != y.tid || x.type != y.type || x.cpuTime != y.cpuTime || x.allocatedCpuTime != y.allocatedCpuTime
            || x.context.rank != y.context.rank || x.context.pid != y.context.pid || x.sleeping != y.sleeping
            || !(x.instruction == y.instruction) || x.metrics != y.metrics || treeText(x) != treeText(y))
            return false;
    }
    return true;
}
