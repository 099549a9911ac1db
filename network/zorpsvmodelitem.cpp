#include "zorpsvmodelitem.h"

#include "xmlreading.h"

#include <QCoreApplication>
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

void writeLineMetrics(QXmlStreamWriter& writer, const QLatin1String& element, const LineMetrics& metrics)
{
    if (metrics.isEmpty())
        return;
    writer.writeStartElement(element);
    for (auto it = metrics.values().constBegin(); it != metrics.values().constEnd(); ++it)
        writer.writeTextElement(ELEMENT_METRIC, LineMetrics::entryToString(it.key(), it.value()));
    writer.writeEndElement();
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

} // namespace

ZORPSVModelItem::ZORPSVModelItem()
    : mSpecial(specialNone), mSamples(0), mSelfSamples(0), mMpiSamples(0), mSleepingSamples(0)
{
}

ZORPSVModelItem::ZORPSVModelItem(ZORPSVModelItem* parent)
    : PSVModelItem(parent), mSpecial(specialNone), mSamples(0), mSelfSamples(0), mMpiSamples(0), mSleepingSamples(0)
{
}

ZORPSVModelItem::ZORPSVModelItem(ZORPSVModelItem* parent, const Position& position)
    : PSVModelItem(parent, position), mSpecial(specialNone), mSamples(0), mSelfSamples(0), mMpiSamples(0),
      mSleepingSamples(0)
{
}

ZORPSVModelItem::ZORPSVModelItem(const Position& position, int samples, int selfSamples, int mpiSamples,
                                 int sleepingSamples)
    : PSVModelItem(position), mSpecial(specialNone), mSamples(samples), mSelfSamples(selfSamples),
      mMpiSamples(mpiSamples), mSleepingSamples(sleepingSamples)
{
}

ZORPSVModelItem::ZORPSVModelItem(const ZORPSVModelItem& other)
    : PSVModelItem(other), mSpecial(other.mSpecial), mSamples(other.mSamples), mSelfSamples(other.mSelfSamples),
      mMpiSamples(other.mMpiSamples), mSleepingSamples(other.mSleepingSamples),
      mActiveCoreLineMetrics(other.mActiveCoreLineMetrics), mMainThreadLineMetrics(other.mMainThreadLineMetrics)
{
}

ZORPSVModelItem::~ZORPSVModelItem() {}

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
    return mSamples > 1;
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
    mSamples += samples;
    mSelfSamples += selfSamples;
    mMpiSamples += mpiSamples;
    mSleepingSamples += sleepingSamples;
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
    if (mSpecial == specialNone)
        mSpecial = other.mSpecial;
    addSampleCounts(other.mSamples, other.mSelfSamples, other.mMpiSamples, other.mSleepingSamples);
    mActiveCoreLineMetrics.merge(other.mActiveCoreLineMetrics);
    mMainThreadLineMetrics.merge(other.mMainThreadLineMetrics);
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

void ZORPSVModelItem::writeExtraXml(QXmlStreamWriter& writer) const
{
    if (mSpecial != specialNone)
        writer.writeAttribute(ATTR_SPECIAL, QString::number(mSpecial));
    if (mSamples != 0 || mSelfSamples != 0 || mMpiSamples != 0 || mSleepingSamples != 0) {
        writer.writeAttribute(ATTR_SAMPLES, QStringLiteral("%1,%2,%3,%4")
                                                .arg(mSamples)
                                                .arg(mSelfSamples)
                                                .arg(mMpiSamples)
                                                .arg(mSleepingSamples));
    }
    writeLineMetrics(writer, ELEMENT_ACTIVE_CORE, mActiveCoreLineMetrics);
    writeLineMetrics(writer, ELEMENT_MAIN_THREAD, mMainThreadLineMetrics);
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
    mSpecial = specialNone;
    if (attributes.hasAttribute(ATTR_SPECIAL))
        readSpecial(attributes.value(ATTR_SPECIAL), &mSpecial);
    int counters[4] = {0, 0, 0, 0};
    if (attributes.hasAttribute(ATTR_SAMPLES) && !readCounters(attributes.value(ATTR_SAMPLES), counters))
        counters[0] = counters[1] = counters[2] = counters[3] = 0;
    mSamples = counters[0];
    mSelfSamples = counters[1];
    mMpiSamples = counters[2];
    mSleepingSamples = counters[3];
}

bool ZORPSVModelItem::readExtraXml(QXmlStreamReader& reader, QString* error)
{
    if (reader.name() == ELEMENT_ACTIVE_CORE)
        return readLineMetrics(reader, &mActiveCoreLineMetrics, error);
    if (reader.name() == ELEMENT_MAIN_THREAD)
        return readLineMetrics(reader, &mMainThreadLineMetrics, error);
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
        mActiveCoreLineMetrics.readEntry(value);
    else if (list == ELEMENT_MAIN_THREAD)
        mMainThreadLineMetrics.readEntry(value);
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
