// The sampler's configuration, written by the platform layer and read by the
// sampler: the two sides must agree, and the reader must refuse what the
// writer never makes.
#include "metric.h"
#include "samplerconfig.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

using quorvex::SamplerConfig;
using quorvex::SamplerMetricConfig;

Metric makeMetric(const QString& id, unsigned index, bool divide, bool sparse, bool clamp, bool timeDomain,
                  const QString& library = QString())
{
    Metric metric(id, index);
    metric.setDivideBySampleTime(divide);
    metric.setSparse(sparse);
    metric.setClampPercentages(clamp);
    metric.setOnTimeDomain(timeDomain);
    if (!library.isEmpty())
        metric.setSource(MetricSource(MetricSource::Library, library));
    return metric;
}

SamplerConfig parse(const std::string& text, std::string* error = nullptr)
{
    SamplerConfig config;
    std::string message;
    const bool ok = quorvex::parseSamplerConfig(text.data(), text.size(), config, message);
    if (error)
        *error = ok ? std::string() : message;
    else
        EXPECT_TRUE(ok) << message;
    return config;
}

TEST(SamplerConfig, WhatTheMetricDefinitionsWriteTheSamplerReads)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath("smpls");

    MetricDefinitions definitions;
    definitions.addMetric(makeMetric("cpu_time_percent", 0, false, false, true, true));
    definitions.addMetric(makeMetric("chars_read", 2, true, false, false, true));
    definitions.addMetric(makeMetric("sparse one", 7, true, true, false, false));
    definitions.addMetric(makeMetric(QString::fromUtf8("50% of \xc3\xa9t\xc3\xa9\n#"), 3, false, false, false, false,
                                     "/opt/zor metrics/libfancy.so"));
    for (bool first : {false, true}) {
        QStringList temporaries;
        ASSERT_TRUE(definitions.writeConfigForSamplerInFile(path, first, temporaries));
        EXPECT_TRUE(temporaries.isEmpty());

        SamplerConfig config;
        std::string error;
        ASSERT_TRUE(quorvex::readSamplerConfigFile(QFile::encodeName(path).constData(), config, error)) << error;
        EXPECT_EQ(config.firstOnNode, first);
        EXPECT_EQ(config.metricCount(), 8u);
        ASSERT_EQ(config.metrics.size(), 4u);
        for (const SamplerMetricConfig& read : config.metrics) {
            const Metric* written = definitions.getMetricById(QString::fromUtf8(read.id.c_str()));
            ASSERT_NE(written, nullptr) << read.id;
            EXPECT_EQ(read.index, written->getIndex()) << read.id;
            EXPECT_EQ(read.divide, written->getDivideBySampleTime()) << read.id;
            EXPECT_EQ(read.sparse, written->isSparse()) << read.id;
            EXPECT_EQ(read.clamp, written->getClampPercentages()) << read.id;
            EXPECT_EQ(read.onTimeDomain, written->isOnTimeDomain()) << read.id;
            const QString library =
                written->getSource().kind() == MetricSource::Library ? written->getSource().library() : QString();
            EXPECT_EQ(QString::fromUtf8(read.library.c_str()), library) << read.id;
        }
    }
}

TEST(SamplerConfig, NoMetricsAndUnwritablePlaces)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    QStringList temporaries;
    MetricDefinitions none;
    ASSERT_TRUE(none.writeConfigForSamplerInFile(dir.filePath("empty"), false, temporaries));
    SamplerConfig config;
    std::string error;
    ASSERT_TRUE(quorvex::readSamplerConfigFile(QFile::encodeName(dir.filePath("empty")).constData(), config, error));
    EXPECT_TRUE(config.metrics.empty());
    EXPECT_EQ(config.metricCount(), 0u);

    EXPECT_FALSE(none.writeConfigForSamplerInFile(dir.filePath("no/such/dir/file"), false, temporaries));
    MetricDefinitions unnamed;
    unnamed.addMetric(Metric(QString(), 0));
    EXPECT_FALSE(unnamed.writeConfigForSamplerInFile(dir.filePath("unnamed"), false, temporaries));

    EXPECT_FALSE(quorvex::readSamplerConfigFile(QFile::encodeName(dir.filePath("missing")).constData(), config, error));
    EXPECT_NE(error.find("missing"), std::string::npos) << error;
}

TEST(SamplerConfig, CommentsOptionalItemsAndWhatFollowsTheEnd)
{
    const SamplerConfig config = parse("zor-sampler-config 1\n# a comment\nmetric 4 - rss_bytes\n"
                                       "# another\nend\nanything at all");
    EXPECT_FALSE(config.firstOnNode);
    ASSERT_EQ(config.metrics.size(), 1u);
    EXPECT_EQ(config.metrics[0].id, "rss_bytes");
    EXPECT_FALSE(config.metrics[0].divide || config.metrics[0].sparse || config.metrics[0].clamp);
    EXPECT_EQ(config.metricCount(), 5u);
}

TEST(SamplerConfig, RefusesWhatTheWriterNeverMakes)
{
    const struct
    {
        const char* text;
        const char* reason;
    } cases[] = {
        {"", "empty"},
        {"metric 0 - a\nend\n", "not a sampler configuration"},
        {"zor-sampler-config 2\nend\n", "unsupported version"},
        {"zor-sampler-config 1\nmetric 0 - a\n", "truncated"},
        {"zor-sampler-config 1\nmetric 0 - a\nen", "truncated"},
        {"zor-sampler-config 1\nmetric 0 - a\nmetric 0 - b\nend\n", "line 3: metric index 0 given twice"},
        {"zor-sampler-config 1\nmetric -1 - a\nend\n", "bad metric index"},
        {"zor-sampler-config 1\nmetric 4294967296 - a\nend\n", "bad metric index"},
        {"zor-sampler-config 1\nmetric 0 divide,fast a\nend\n", "unknown metric flag \"fast\""},
        {"zor-sampler-config 1\nmetric 0 - a%2\nend\n", "bad metric identifier"},
        {"zor-sampler-config 1\nmetric 0 - a%zz\nend\n", "bad metric identifier"},
        {"zor-sampler-config 1\nmetric 0 -  \nend\n", "bad metric identifier"},
        {"zor-sampler-config 1\nmetric 0 -\nend\n", "takes an index"},
        {"zor-sampler-config 1\nfirst-on-node yes\nend\n", "takes 0 or 1"},
        {"zor-sampler-config 1\nfirst-on-node 1\nfirst-on-node 0\nend\n", "given twice"},
        {"zor-sampler-config 1\nthreads 4\nend\n", "line 2: unknown item \"threads\""},
    };
    for (const auto& c : cases) {
        std::string error;
        parse(c.text, &error);
        EXPECT_NE(error.find(c.reason), std::string::npos) << "text: " << c.text << "\nerror: " << error;
    }
}

} // namespace
