#include "gpuprofilerglobaldata.h"

#include <QFile>
#include <QXmlStreamReader>

#include "response.h"

namespace {

bool fail(QString* error, const QString& message)
{
    if (error)
        *error = message;
    return false;
}

QString expected(const char* element, const QXmlStreamReader& reader)
{
    return QStringLiteral("Expected element '%1', got '%2'").arg(QLatin1String(element), reader.name().toString());
}

QStringRef attribute(const QXmlStreamReader& reader, const char* name)
{
    return reader.attributes().value(QLatin1String(name));
}

} // namespace

GpuProfilerGlobalData::GpuProfilerGlobalData()
    : mNumKernelLaunches(0)
    , mNumKernelsSampled(0)
    // Reported as run metrics even when no file was read.
    , mMinSamplingPeriodInCycles(0)
    , mMaxSamplingPeriodInCycles(0)
    , mMinKernelDurationMs(0.0)
    , mMaxKernelDurationMs(0.0)
    , mMeanKernelDurationMs(0.0)
    , mCudaRuntimeVersion(0)
{
}

bool GpuProfilerGlobalData::readFromFile(const QString& path, QString* error)
{
    mKernelNames.clear();
    mPositions.clear();

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fail(error, QStringLiteral("Failed to open file %1").arg(path));

    // Up to the tables, start elements are taken in document order whatever
    // their nesting, so the duration and period elements may stand inside
    // "stats" or after it.
    QXmlStreamReader reader(&file);
    Response::readNextStartElement(reader);
    if (!reader.isStartElement())
        return fail(error, QStringLiteral("No start element"));
    if (reader.name() != QLatin1String("gpuProfile"))
        return fail(error, expected("gpuProfile", reader));
    mCudaRuntimeVersion = attribute(reader, "cudaRuntimeVersion").toInt();

    Response::readNextStartElement(reader);
    if (reader.name() == QLatin1String("error")) {
        mErrorMessage = reader.readElementText();
        Response::readNextStartElement(reader);
    }
    if (reader.name() != QLatin1String("stats"))
        return fail(error, expected("stats", reader));
    mNumKernelLaunches = attribute(reader, "numKernelLaunches").toULongLong();
    mNumKernelsSampled = attribute(reader, "numKernelsSampled").toULongLong();

    reader.readNext();
    Response::readNextStartElement(reader);
    if (reader.name() != QLatin1String("kernelDurationMs"))
        return fail(error, expected("kernelDurationMs", reader));
    mMinKernelDurationMs = attribute(reader, "min").toDouble();
    mMaxKernelDurationMs = attribute(reader, "max").toDouble();
    mMeanKernelDurationMs = attribute(reader, "mean").toDouble();

    reader.readNext();
    Response::readNextStartElement(reader);
    if (reader.name() != QLatin1String("samplingPeriod"))
        return fail(error, expected("samplingPeriod", reader));
    mMinSamplingPeriodInCycles = attribute(reader, "min").toULongLong();
    mMaxSamplingPeriodInCycles = attribute(reader, "max").toULongLong();

    reader.readNext();
    Response::readNextStartElement(reader);
    if (!reader.isStartElement())
        return fail(error, QStringLiteral("Expected start element 'sourceLocators'"));
    if (reader.name() != QLatin1String("sourceLocators"))
        return fail(error, expected("sourceLocators", reader));
    while (reader.readNextStartElement()) {
        if (reader.name() == QLatin1String("location")) {
            const unsigned int id = attribute(reader, "id").toUInt();
            mPositions.insert(id, Position(attribute(reader, "file").toString(), attribute(reader, "line").toInt(), -1));
        }
        reader.skipCurrentElement();
    }

    Response::readNextStartElement(reader);
    if (!reader.isStartElement())
        return fail(error, QStringLiteral("Expected start element 'kernelNames'"));
    if (reader.name() != QLatin1String("kernelNames"))
        return fail(error, expected("kernelNames", reader));
    // An XML error from here on just ends the table.
    while (reader.readNextStartElement()) {
        if (reader.name() == QLatin1String("kernel"))
            mKernelNames.insert(attribute(reader, "id").toUInt(), attribute(reader, "name").toString());
        reader.skipCurrentElement();
    }

    reader.clear();
    file.close();
    return true;
}

QString GpuProfilerGlobalData::kernelName(unsigned int id, bool* ok) const
{
    const QString name = mKernelNames.value(id);
    if (ok)
        *ok = !name.isEmpty();
    if (!name.isEmpty())
        return name;
    return QStringLiteral("<unknown-id %1>").arg(id);
}

Position GpuProfilerGlobalData::positionForLocationId(unsigned int id, bool* ok) const
{
    const QMap<unsigned int, Position>::const_iterator found = mPositions.constFind(id);
    const bool known = found != mPositions.constEnd() && (!found->function.isEmpty() || !found->file.isEmpty());
    if (ok)
        *ok = known;
    if (known)
        return *found;
    return id == 0 ? Position() : Position(QStringLiteral("<unknown-id %1>").arg(id));
}
