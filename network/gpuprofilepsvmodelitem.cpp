#include "gpuprofilepsvmodelitem.h"

#include "xmlreading.h"

#include <QCoreApplication>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <cmath>

namespace {

const QLatin1String ELEMENT_NODE("gpuNode");
const QLatin1String ATTR_KIND("kind");
const QLatin1String ATTR_FUNCTION("function");
const QLatin1String ATTR_FILE("file");
const QLatin1String ATTR_LINE("line");
const QLatin1String ATTR_STALLS("stalls");
const QLatin1String ATTR_DROPPED("dropped");
const QLatin1String ATTR_UNKNOWN("unknown");

bool sameNumber(double a, double b)
{
    return a == b || (std::isnan(a) && std::isnan(b));
}

QString numberText(double value)
{
    return QString::number(value, 'g', 17);
}

QString readError(const char* text)
{
    return QCoreApplication::translate("GpuProfilePSVModelItem", text);
}

} // namespace

GpuProfilePSVModelItem::GpuProfilePSVModelItem()
    : mKind(Root), mParent(nullptr), mDroppedStalls(0.0), mUnknownStalls(0.0)
{
}

GpuProfilePSVModelItem::GpuProfilePSVModelItem(GpuProfilePSVModelItem* parent, Kind kind, const Position& position)
    : mKind(kind), mPosition(position), mParent(parent), mDroppedStalls(0.0), mUnknownStalls(0.0)
{
    parent->mChildren.append(this);
}

GpuProfilePSVModelItem::GpuProfilePSVModelItem(const GpuProfilePSVModelItem& other)
    : mKind(other.mKind), mPosition(other.mPosition), mParent(nullptr), mStalls(other.mStalls),
      mDroppedStalls(other.mDroppedStalls), mUnknownStalls(other.mUnknownStalls)
{
    for (const GpuProfilePSVModelItem* child : other.mChildren) {
        GpuProfilePSVModelItem* copy = new GpuProfilePSVModelItem(*child);
        copy->mParent = this;
        mChildren.append(copy);
    }
}

GpuProfilePSVModelItem::~GpuProfilePSVModelItem()
{
    qDeleteAll(mChildren);
}

GpuProfilePSVModelItem* GpuProfilePSVModelItem::child(Kind kind, const Position& position)
{
    for (GpuProfilePSVModelItem* existing : qAsConst(mChildren)) {
        if (existing->mKind == kind && existing->mPosition == position)
            return existing;
    }
    return new GpuProfilePSVModelItem(this, kind, position);
}

GpuProfilePSVModelItem* GpuProfilePSVModelItem::addProgramNode(const Position& position)
{
    return child(Program, position);
}

GpuProfilePSVModelItem* GpuProfilePSVModelItem::addKernelHit(const Position& position)
{
    return child(Kernel, position);
}

GpuProfilePSVModelItem* GpuProfilePSVModelItem::addLineHit(const Position& position, const StallReasonCounts& counts)
{
    GpuProfilePSVModelItem* line = child(Line, position);
    line->mStalls.add(counts);
    return line;
}

double GpuProfilePSVModelItem::totalStalls() const
{
    double total = mStalls.total() + mDroppedStalls + mUnknownStalls;
    for (const GpuProfilePSVModelItem* node : mChildren)
        total += node->totalStalls();
    return total;
}

void GpuProfilePSVModelItem::merge(const GpuProfilePSVModelItem& other)
{
    mStalls.add(other.mStalls);
    mDroppedStalls += other.mDroppedStalls;
    mUnknownStalls += other.mUnknownStalls;
    for (const GpuProfilePSVModelItem* node : other.mChildren)
        child(node->mKind, node->mPosition)->merge(*node);
}

void GpuProfilePSVModelItem::writeXml(QXmlStreamWriter& writer) const
{
    writer.writeAttribute(ATTR_KIND, QString::number(mKind));
    if (!mPosition.function.isEmpty())
        writer.writeAttribute(ATTR_FUNCTION, mPosition.function);
    if (!mPosition.file.isEmpty())
        writer.writeAttribute(ATTR_FILE, mPosition.file);
    if (mPosition.line != -1)
        writer.writeAttribute(ATTR_LINE, QString::number(mPosition.line));
    if (!mStalls.isZero())
        writer.writeAttribute(ATTR_STALLS, mStalls.toString());
    if (mDroppedStalls != 0.0)
        writer.writeAttribute(ATTR_DROPPED, numberText(mDroppedStalls));
    if (mUnknownStalls != 0.0)
        writer.writeAttribute(ATTR_UNKNOWN, numberText(mUnknownStalls));
    for (const GpuProfilePSVModelItem* node : mChildren) {
        writer.writeStartElement(ELEMENT_NODE);
        node->writeXml(writer);
        writer.writeEndElement();
    }
}

bool GpuProfilePSVModelItem::readContent(QXmlStreamReader& reader, QString* error)
{
    const QXmlStreamAttributes attributes = reader.attributes();
    bool ok = true;
    const int kind = attributes.value(ATTR_KIND).toInt(&ok);
    if (!ok || kind < Root || kind > Line) {
        *error = readError("bad kind of GPU tree node");
        return false;
    }
    mKind = static_cast<Kind>(kind);
    mPosition = Position(attributes.value(ATTR_FUNCTION).toString(), attributes.value(ATTR_FILE).toString(), -1, -1);
    if (attributes.hasAttribute(ATTR_LINE))
        mPosition.line = attributes.value(ATTR_LINE).toInt(&ok);
    if (ok && attributes.hasAttribute(ATTR_STALLS))
        ok = mStalls.fromString(attributes.value(ATTR_STALLS).toString());
    if (ok && attributes.hasAttribute(ATTR_DROPPED))
        mDroppedStalls = attributes.value(ATTR_DROPPED).toDouble(&ok);
    if (ok && attributes.hasAttribute(ATTR_UNKNOWN))
        mUnknownStalls = attributes.value(ATTR_UNKNOWN).toDouble(&ok);
    if (!ok) {
        *error = readError("bad value in GPU tree node \"%1\"").arg(mPosition.function);
        return false;
    }
    while (readNextStartElement(reader)) {
        if (reader.name() != ELEMENT_NODE) {
            reader.skipCurrentElement();
            continue;
        }
        GpuProfilePSVModelItem* node = new GpuProfilePSVModelItem(this, Root, Position());
        if (!node->readContent(reader, error))
            return false;
    }
    if (reader.hasError()) {
        *error = reader.errorString();
        return false;
    }
    return true;
}

GpuProfilePSVModelItem* GpuProfilePSVModelItem::readTree(QXmlStreamReader& reader, QString* error)
{
    QString ignored;
    QString* text = error ? error : &ignored;
    if (!reader.isStartElement()) {
        *text = readError("expected the element of a GPU tree");
        return nullptr;
    }
    GpuProfilePSVModelItem* root = new GpuProfilePSVModelItem;
    if (!root->readContent(reader, text)) {
        delete root;
        return nullptr;
    }
    return root;
}

bool GpuProfilePSVModelItem::operator==(const GpuProfilePSVModelItem& other) const
{
    if (mKind != other.mKind || mPosition != other.mPosition || mStalls != other.mStalls
        || !sameNumber(mDroppedStalls, other.mDroppedStalls) || !sameNumber(mUnknownStalls, other.mUnknownStalls)
        || mChildren.size() != other.mChildren.size())
        return false;
    for (int i = 0; i < mChildren.size(); ++i) {
        if (*mChildren.at(i) != *other.mChildren.at(i))
            return false;
    }
    return true;
}
