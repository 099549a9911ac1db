#include "zorresponsefactoryplugin.h"

#include "profilerresponses.h"

namespace {

typedef Response* (*Creator)();

template <class T>
Response* create()
{
    return new T;
}

struct Entry
{
    QString name;
    Creator creator;
};

const QList<Entry>& entries()
{
    static const QList<Entry> list = {
        { ProfilerSamplerInitResponse::staticElementName(), &create<ProfilerSamplerInitResponse> },
        { ProfilerPlayResponse::staticElementName(), &create<ProfilerPlayResponse> },
        { ProfilerProgressResponse::staticElementName(), &create<ProfilerProgressResponse> },
        { SampleBlockResponse::staticElementName(), &create<SampleBlockResponse> },
        { SendSamplesResponse::staticElementName(), &create<SendSamplesResponse> },
        { HistogramBlockResponse::staticElementName(), &create<HistogramBlockResponse> },
        { SendHistogramsResponse::staticElementName(), &create<SendHistogramsResponse> },
        { SendMetricErrorsResponse::staticElementName(), &create<SendMetricErrorsResponse> },
        { SendMetricsCollectedAtTheEndResponse::staticElementName(), &create<SendMetricsCollectedAtTheEndResponse> },
    };
    return list;
}

} // namespace

Response* ZORResponseFactoryPlugin::createResponse(const QString& elementName) const
{
    for (const Entry& entry : entries()) {
        if (entry.name == elementName)
            return entry.creator();
    }
    return nullptr;
}

QStringList ZORResponseFactoryPlugin::elementNames() const
{
    QStringList names;
    for (const Entry& entry : entries())
        names.append(entry.name);
    return names;
}
