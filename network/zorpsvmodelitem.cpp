#include "zorpsvmodelitem.h"

#include "xmlreading.h"
#include "xmlwriting.h"

#include <QCoreApplication>

#include <cstring>
#include <QStringList>
#include <QXmlStreamAttributes>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

namespace {

const QLatin1String ATTR_SPECIAL("special");
const QLatin1String ATTR_SAMPLES("samples");
const QLatin1String ELEMENT_ACTIVE_CORE("activeCoreLineMetrics");
const QLatin1String ELEMENT_MAIN_THREAD("mainThreadLineMetrics");
const QLatin1String ELEMENT_METRIC("metric");

bool readSpecial(const QStringRef& text, ZORPSVModelItem::Special* special)
{
    bool ok = false;
    const int value = text.toInt(&ok);
    if (!ok || value < ZORPSVModelItem::specialNone || value > ZORPSVModelItem::specialOmpMonitor || value == 9)
        return false;
    *special = static_cast<ZORPSVModelItem::Special>(value);
    return true;
}

bool readCounters(const QStringRef& text, int counters[4])
{
    const QVector<QStringRef> parts = text.split(QLatin1Char(','));
    if (parts.size() != 4)
        return false;
    for (int i = 0; i < 4; ++i) {
        bool ok = false;
        counters[i] = parts.at(i).toInt(&ok);
        if (!ok)
            return false;
    }
    return true;
}

void writeLineMetrics(XmlWriter& writer, const QLatin1String& element, const LineMetrics& metrics)
{
    if (metrics.isEmpty())
        return;
    writer.startElement(element);
    for (auto it = metrics.values().constBegin(); it != metrics.values().constEnd(); ++it)
        writer.textElement(ELEMENT_METRIC, LineMetrics::entryToString(it.key(), it.value()));
    writer.endElement();
}

bool readLineMetrics(QXmlStreamReader& reader, LineMetrics* metrics, QString* error)
{
    while (readNextStartElement(reader)) {
        if (reader.name() != ELEMENT_METRIC) {
            reader.skipCurrentElement();
            continue;
        }
        const QString entry = reader.readElementText();
        if (!reader.hasError() && !metrics->readEntry(entry)) {
            if (error)
                *error = QCoreApplication::translate("ZORPSVModelItem", "bad line metric \"%1\"").arg(entry);
            return false;
        }
    }
    if (reader.hasError()) {
        if (error)
            *error = reader.errorString();
        return false;
    }
    return true;
}

bool readLineMetrics(FastXmlReader& reader, LineMetrics* metrics)
{
    while (reader.readNextStartElement()) {
        if (!reader.nameIs(ELEMENT_METRIC)) {
            reader.skipCurrentElement();
            continue;
        }
        QString entry;
        if (!reader.readElementText(&entry))
            return false;
        if (!metrics->readEntry(entry)) {
            reader.raiseError(QStringLiteral("bad line metric \"%1\"").arg(entry));
            return false;
        }
    }
    return !reader.hasError();
}

// Thread counts as "0=1,4-7=2"; anything else as the text constructor reads it.
IntProcessMap processThreads(const FastXmlReader::Value& text)
{
    IntProcessMap map;
    const char* p = text.data;
    const char* const end = p + text.size;
    const auto number = [&](int* value) {
        const char* start = p;
        while (p < end && *p >= '0' && *p <= '9')
            ++p;
        return FastXmlReader::Value{start, int(p - start)}.toInt(value);
    };
    while (p < end) {
        int first = 0;
        int last = 0;
        int value = 0;
        if (!number(&first))
            return IntProcessMap(text.toString());
        last = first;
        if (p < end && *p == '-' && (++p, !number(&last)))
            return IntProcessMap(text.toString());
        if (p >= end || *p != '=' || (++p, !number(&value)) || (p < end && *p != ',') || last < first)
            return IntProcessMap(text.toString());
        if (p < end && ++p == end)
            return IntProcessMap(text.toString());
        map.set(first, zor_compact::successor(last), value, true);
    }
    return map;
}

} // namespace

ZORPSVModelItem::ZORPSVModelItem() {}

ZORPSVModelItem::ZORPSVModelItem(ZORPSVModelItem* parent)
    : PSVModelItem(parent)
{
}

ZORPSVModelItem::ZORPSVModelItem(ZORPSVModelItem* parent, const Position& position)
    : PSVModelItem(parent, position)
{
}

ZORPSVModelItem::ZORPSVModelItem(const Position& position, int samples, int selfSamples, int mpiSamples,
                                 int sleepingSamples)
    : PSVModelItem(position)
{
    addSampleCounts(samples, selfSamples, mpiSamples, sleepingSamples);
}

ZORPSVModelItem::ZORPSVModelItem(const ZORPSVModelItem& other)
    : PSVModelItem(other)
{
    if (const Counts* theirs = other.countsIfAny())
        setDerivedData(new Counts(*theirs));
}

ZORPSVModelItem::~ZORPSVModelItem()
{
    delete countsIfAny();
}

ZORPSVModelItem::Counts& ZORPSVModelItem::counts()
{
    if (!countsIfAny())
        setDerivedData(new Counts);
    return *countsIfAny();
}

void ZORPSVModelItem::mergeActiveCoreLineMetrics(const LineMetrics& metrics)
{
    if (!metrics.isEmpty())
        counts().activeCore.merge(metrics);
}

void ZORPSVModelItem::mergeMainThreadLineMetrics(const LineMetrics& metrics)
{
    if (!metrics.isEmpty())
        counts().mainThread.merge(metrics);
}

const LineMetrics& ZORPSVModelItem::activeCoreLineMetrics() const
{
    static const LineMetrics none;
    return countsIfAny() ? countsIfAny()->activeCore : none;
}

const LineMetrics& ZORPSVModelItem::mainThreadLineMetrics() const
{
    static const LineMetrics none;
    return countsIfAny() ? countsIfAny()->mainThread : none;
}

ZORPSVModelItem* ZORPSVModelItem::clone() const
{
    return new ZORPSVModelItem(*this);
}

bool ZORPSVModelItem::isSimplePSVModel() const
{
    return false;
}

bool ZORPSVModelItem::isPlaceholder() const
{
    return false;
}

bool ZORPSVModelItem::isMultiSamplePSVModel() const
{
    return sampleCount() > 1;
}

PSVModelItem* ZORPSVModelItem::createChild(const Position& position)
{
    return new ZORPSVModelItem(this, position);
}

PSVModelItem* ZORPSVModelItem::constructChild()
{
    return new ZORPSVModelItem(this);
}

ZORPSVModelItem* ZORPSVModelItem::parentZORModelItem() const
{
    return dynamic_cast<ZORPSVModelItem*>(parent());
}

ZORPSVModelItem* ZORPSVModelItem::findChild(const Position& position)
{
    // Children of other types are passed over.
    return static_cast<ZORPSVModelItem*>(findChildIf(position, [](const PSVModelItem* child) {
        return dynamic_cast<const ZORPSVModelItem*>(child) != nullptr;
    }));
}

void ZORPSVModelItem::addSampleCounts(int samples, int selfSamples, int mpiSamples, int sleepingSamples)
{
    if (samples == 0 && selfSamples == 0 && mpiSamples == 0 && sleepingSamples == 0)
        return;
    Counts& own = counts();
    own.samples += samples;
    own.selfSamples += selfSamples;
    own.mpiSamples += mpiSamples;
    own.sleepingSamples += sleepingSamples;
}

Category::OmpCompiler::Enum ZORPSVModelItem::detectOmpRuntime() const
{
    const Category::OmpCompiler::Enum own = Category::ompRuntimeOfFunction(position().function);
    if (own != Category::OmpCompiler::Unknown)
        return own;
    for (const PSVModelItem* child : childNodes()) {
        if (const ZORPSVModelItem* node = dynamic_cast<const ZORPSVModelItem*>(child)) {
            const Category::OmpCompiler::Enum found = node->detectOmpRuntime();
            if (found != Category::OmpCompiler::Unknown)
                return found;
        }
    }
    return Category::OmpCompiler::Unknown;
}

void ZORPSVModelItem::mergeOwnFields(const ZORPSVModelItem& other)
{
    if (specialType() == specialNone)
        setSpecial(other.specialType());
    const Counts* counted = other.countsIfAny();
    if (!counted)
        return;
    const Counts& theirs = *counted;
    addSampleCounts(theirs.samples, theirs.selfSamples, theirs.mpiSamples, theirs.sleepingSamples);
    mergeActiveCoreLineMetrics(theirs.activeCore);
    mergeMainThreadLineMetrics(theirs.mainThread);
}

void ZORPSVModelItem::extraMergePSVModelItem(const PSVModelItem& other, void*)
{
    if (const ZORPSVModelItem* node = dynamic_cast<const ZORPSVModelItem*>(&other))
        mergeOwnFields(*node);
}

void ZORPSVModelItem::addPSVModelItem(PSVModelItem* item, void* context)
{
    if (ZORPSVModelItem* match = findChild(item->position())) {
        match->mergePSVModelItem(*item, context);
        return;
    }
    item->detach();
    addChild(item);
}

void ZORPSVModelItem::writeExtraXml(XmlWriter& writer) const
{
    if (specialType() != specialNone)
        writer.attribute(ATTR_SPECIAL, int(specialType()));
    const Counts* counted = countsIfAny();
    if (!counted)
        return;
    const Counts& own = *counted;
    if (own.samples != 0 || own.selfSamples != 0 || own.mpiSamples != 0 || own.sleepingSamples != 0) {
        writer.plainAttribute(ATTR_SAMPLES, QByteArray::number(own.samples) + ',' + QByteArray::number(own.selfSamples)
                                                + ',' + QByteArray::number(own.mpiSamples) + ','
                                                + QByteArray::number(own.sleepingSamples));
    }
    writeLineMetrics(writer, ELEMENT_ACTIVE_CORE, own.activeCore);
    writeLineMetrics(writer, ELEMENT_MAIN_THREAD, own.mainThread);
}

namespace {

// Bit for bit, as the same bits always print alike (0 and -0 don't).
bool sameLineMetrics(const LineMetrics& a, const LineMetrics& b)
{
    if (a.values().size() != b.values().size())
        return false;
    for (auto x = a.values().constBegin(), y = b.values().constBegin(); x != a.values().constEnd(); ++x, ++y) {
        const double u = x.value(), v = y.value();
        if (x.key() != y.key() || std::memcmp(&u, &v, sizeof u) != 0)
            return false;
    }
    return true;
}

} // namespace

bool ZORPSVModelItem::extraWritesAlike(const PSVModelItem& otherItem) const
{
    // Of the same class, as the caller made sure. A placeholder can't be
    // written at all.
    const ZORPSVModelItem& other = static_cast<const ZORPSVModelItem&>(otherItem);
    if (isPlaceholder() || other.isPlaceholder() || specialType() != other.specialType())
        return false;
    static const Counts none;
    const Counts& a = countsIfAny() ? *countsIfAny() : none;
    const Counts& b = other.countsIfAny() ? *other.countsIfAny() : none;
    return a.samples == b.samples && a.selfSamples == b.selfSamples && a.mpiSamples == b.mpiSamples
        && a.sleepingSamples == b.sleepingSamples && sameLineMetrics(a.activeCore, b.activeCore)
        && sameLineMetrics(a.mainThread, b.mainThread);
}

bool ZORPSVModelItem::readXml(QXmlStreamReader& reader, QString* error)
{
    // The base reads attributes without complaint; ours are checked here.
    const QXmlStreamAttributes attributes = reader.attributes();
    Special special = specialNone;
    int counters[4];
    if ((attributes.hasAttribute(ATTR_SPECIAL) && !readSpecial(attributes.value(ATTR_SPECIAL), &special))
        || (attributes.hasAttribute(ATTR_SAMPLES) && !readCounters(attributes.value(ATTR_SAMPLES), counters))) {
        if (error) {
            *error = QCoreApplication::translate("ZORPSVModelItem", "bad attributes on call tree node \"%1\"")
                         .arg(attributes.value(QLatin1String("function")).toString());
        }
        return false;
    }
    return PSVModelItem::readXml(reader, error);
}

void ZORPSVModelItem::readXmlStreamAttributes(const QXmlStreamAttributes& attributes)
{
    PSVModelItem::readXmlStreamAttributes(attributes);
    Special special = specialNone;
    if (attributes.hasAttribute(ATTR_SPECIAL))
        readSpecial(attributes.value(ATTR_SPECIAL), &special);
    setSpecial(special);
    int counters[4] = {0, 0, 0, 0};
    if (attributes.hasAttribute(ATTR_SAMPLES) && !readCounters(attributes.value(ATTR_SAMPLES), counters))
        counters[0] = counters[1] = counters[2] = counters[3] = 0;
    if (!countsIfAny() && counters[0] == 0 && counters[1] == 0 && counters[2] == 0 && counters[3] == 0)
        return;
    Counts& own = counts();
    own.samples = counters[0];
    own.selfSamples = counters[1];
    own.mpiSamples = counters[2];
    own.sleepingSamples = counters[3];
}

bool ZORPSVModelItem::readExtraXml(QXmlStreamReader& reader, QString* error)
{
    if (reader.name() == ELEMENT_ACTIVE_CORE)
        return readLineMetrics(reader, &counts().activeCore, error);
    if (reader.name() == ELEMENT_MAIN_THREAD)
        return readLineMetrics(reader, &counts().mainThread, error);
    return PSVModelItem::readExtraXml(reader, error);
}

SaxHandler* ZORPSVModelItem::getNestedStruct(const QString& name)
{
    return name == XML_NODE ? constructChild() : nullptr;
}

void ZORPSVModelItem::readAttributes(const QString&, const SaxAttributes& attributes)
{
    QXmlStreamAttributes streamAttributes;
    for (int i = 0; i < attributes.count(); ++i)
        streamAttributes.append(attributes.qName(i), attributes.value(i));
    readXmlStreamAttributes(streamAttributes);
}

void ZORPSVModelItem::readListItem(const QString& list, const QString& value)
{
    if (list == ELEMENT_ACTIVE_CORE)
        counts().activeCore.readEntry(value);
    else if (list == ELEMENT_MAIN_THREAD)
        counts().mainThread.readEntry(value);
}

ZORPSVModelItem* ZORPSVModelItem::readTree(FastXmlReader& reader)
{
    ZORPSVModelItem* root = new ZORPSVModelItem;
    if (!root->readNode(reader)) {
        delete root;
        return nullptr;
    }
    return root;
}

// What readXml reads, in the same order and with the same defaults.
bool ZORPSVModelItem::readNode(FastXmlReader& reader)
{
    const FastXmlReader::Value special = reader.attribute(ATTR_SPECIAL);
    int value = 0;
    setSpecial(specialNone);
    if (!special.isNull()) {
        if (!special.toInt(&value) || value < specialNone || value > specialOmpMonitor || value == 9) {
            reader.raiseError(QStringLiteral("bad attributes on call tree node"));
            return false;
        }
        setSpecial(static_cast<Special>(value));
    }
    int counters[4] = {0, 0, 0, 0};
    const FastXmlReader::Value samples = reader.attribute(ATTR_SAMPLES);
    if (!samples.isNull()) {
        const char* p = samples.data;
        const char* const end = p + samples.size;
        for (int i = 0; i < 4; ++i) {
            const char* comma = i < 3 ? static_cast<const char*>(memchr(p, ',', size_t(end - p))) : end;
            if (!comma || !FastXmlReader::Value{p, int(comma - p)}.toInt(&counters[i])) {
                reader.raiseError(QStringLiteral("bad attributes on call tree node"));
                return false;
            }
            p = comma + 1;
        }
    }
    Position position;
    const FastXmlReader::Value function = reader.attribute(QLatin1String("function"));
    if (!function.isNull())
        position.function = reader.sharedString(function, &PSVModelItem::internString);
    const FastXmlReader::Value file = reader.attribute(QLatin1String("file"));
    if (!file.isNull())
        position.file = reader.sharedString(file, &PSVModelItem::internString);
    const FastXmlReader::Value line = reader.attribute(QLatin1String("line"));
    if (!line.isNull() && !line.toInt(&position.line)) {
        reader.raiseError(QStringLiteral("a line that isn't a number"));
        return false;
    }
    setPosition(position);
    const FastXmlReader::Value processes = reader.attribute(QLatin1String("processes"));
    if (!processes.isNull())
        mProcessThreads = processThreads(processes);
    if (!reader.attribute(QLatin1String("cuda-thread-counts")).isNull()) {
        reader.raiseError(QStringLiteral("device threads are read by Qt's reader"));
        return false;
    }
    mCurrentGroup = reader.attribute(QLatin1String("currentGroup")) == QLatin1String("yes");
    setUnexpectedStop(reader.attribute(QLatin1String("unexpectedStop")) == QLatin1String("yes"));
    if (countsIfAny() || counters[0] != 0 || counters[1] != 0 || counters[2] != 0 || counters[3] != 0) {
        Counts& own = counts();
        own.samples = counters[0];
        own.selfSamples = counters[1];
        own.mpiSamples = counters[2];
        own.sleepingSamples = counters[3];
    }
    while (reader.readNextStartElement()) {
        if (reader.nameIs(XML_NODE)) {
            ZORPSVModelItem* child = new ZORPSVModelItem(this);
            if (!child->readNode(reader)) {
                delete child;
                return false;
            }
        } else if (reader.nameIs(ELEMENT_ACTIVE_CORE)) {
            if (!readLineMetrics(reader, &counts().activeCore))
                return false;
        } else if (reader.nameIs(ELEMENT_MAIN_THREAD)) {
            if (!readLineMetrics(reader, &counts().mainThread))
                return false;
        } else {
            reader.skipCurrentElement();
        }
    }
    return !reader.hasError();
}

ZORPSVModelItem* ZORPSVModelItem::readTree(QXmlStreamReader& reader, QString* error)
{
    if (!reader.isStartElement()) {
        if (error)
            *error = QCoreApplication::translate("ZORPSVModelItem", "expected the element of a call tree");
        return nullptr;
    }
    ZORPSVModelItem* root = new ZORPSVModelItem;
    if (!root->readXml(reader, error)) {
        delete root;
        return nullptr;
    }
    return root;
}

// Trees are made by the million: a node that grows costs every analysis.
static_assert(sizeof(void*) != 8 || sizeof(ZORPSVModelItem) == 48, "a call tree node takes 48 bytes");
