// The sampler's configuration, written by the platform layer and read by the
// sampler: the two sides must agree, and the reader must refuse what the
// writer never makes.
#include "metric.h"
#include "samplerconfig.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <tuple>

namespace {

using quorvex::SamplerConfig;

bool readConfig(const QString& path, SamplerConfig& config, std::string& error)
{
    return quorvex::readSamplerConfigFile(QFile::encodeName(path).constData(), config, error);
}

TEST(SamplerConfig, WhatTheMetricDefinitionsWriteTheSamplerReads)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    // Every flag, and an identifier and a library that need encoding.
    struct Written
    {
        std::string id;
        unsigned index;
        bool divide, sparse, clamp, timeDomain;
        std::string library;
    };
    const Written written[] = {{"cpu_time_percent", 0, false, false, true, true, ""},
                               {"chars_read", 2, true, false, false, false, ""},
                               {"sparse one", 7, false, true, false, false, ""},
                               {"50% of \xc3\xa9t\xc3\xa9\n#", 3, false, false, false, false,
                                "/opt/zor metrics/libfancy.so"}};
    MetricDefinitions definitions;
    for (const auto& w : written) {
        Metric metric(QString::fromStdString(w.id), w.index);
        metric.setDivideBySampleTime(w.divide);
        metric.setSparse(w.sparse);
        metric.setClampPercentages(w.clamp);
        metric.setOnTimeDomain(w.timeDomain);
        if (!w.library.empty())
            metric.setSource(MetricSource(MetricSource::Library, QString::fromStdString(w.library)));
        definitions.addMetric(metric);
    }
    for (bool first : {false, true}) {
        QStringList temporaries;
        ASSERT_TRUE(definitions.writeConfigForSamplerInFile(dir.filePath("smpls"), first, temporaries));
        EXPECT_TRUE(temporaries.isEmpty());
        SamplerConfig config;
        std::string error;
        ASSERT_TRUE(readConfig(dir.filePath("smpls"), config, error)) << error;
        EXPECT_EQ(config.firstOnNode, first);
        EXPECT_EQ(config.metricCount(), 8u);
        ASSERT_EQ(config.metrics.size(), 4u);
        for (const auto& w : written) {
            const auto read = std::find_if(config.metrics.begin(), config.metrics.end(),
                                           [&](const quorvex::SamplerMetricConfig& m) { return m.id == w.id; });
            ASSERT_NE(read, config.metrics.end()) << w.id;
            EXPECT_EQ(std::make_tuple(read->index, read->divide, read->sparse, read->clamp, read->onTimeDomain,
                                      read->library),
                      std::make_tuple(w.index, w.divide, w.sparse, w.clamp, w.timeDomain, w.library))
                << w.id;
        }
    }

    // Nothing to write is fine; nowhere to write it, or a metric without a
    // name, is not.
    QStringList temporaries;
    SamplerConfig config;
    std::string error;
    ASSERT_TRUE(MetricDefinitions().writeConfigForSamplerInFile(dir.filePath("empty"), false, temporaries));
    ASSERT_TRUE(readConfig(dir.filePath("empty"), config, error)) << error;
    EXPECT_EQ(config.metricCount(), 0u);
    EXPECT_FALSE(MetricDefinitions().writeConfigForSamplerInFile(dir.filePath("no/such/dir/file"), false, temporaries));
    MetricDefinitions unnamed;
    unnamed.addMetric(Metric(QString(), 0));
    EXPECT_FALSE(unnamed.writeConfigForSamplerInFile(dir.filePath("unnamed"), false, temporaries));
    EXPECT_FALSE(readConfig(dir.filePath("missing"), config, error));
    EXPECT_NE(error.find("missing"), std::string::npos) << error;
}

// Each text is refused with its reason; the first, with comments, optional
// items left out and something after the end, is accepted.
TEST(SamplerConfig, RefusesWhatTheWriterNeverMakes)
{
    const struct
    {
        const char* text;
        const char* reason;
    } cases[] = {
        {"zor-sampler-config 1\n# a comment\nmetric 4 - rss_bytes\n# another\nend\nanything at all", nullptr},
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
        {"zor-sampler-config 1\nmetric 0 -\nend\n", "takes an index"},
        {"zor-sampler-config 1\nfirst-on-node yes\nend\n", "takes 0 or 1"},
        {"zor-sampler-config 1\nfirst-on-node 1\nfirst-on-node 0\nend\n", "given twice"},
        {"zor-sampler-config 1\nthreads 4\nend\n", "line 2: unknown item \"threads\""},
    };
    for (const auto& c : cases) {
        SamplerConfig config;
        std::string error;
        const bool ok = quorvex::parseSamplerConfig(c.text, std::strlen(c.text), config, error);
        if (!c.reason) {
            EXPECT_TRUE(ok) << error;
            EXPECT_EQ(config.metricCount(), 5u);
            EXPECT_FALSE(config.firstOnNode);
        } else {
            EXPECT_FALSE(ok) << c.text;
            EXPECT_NE(error.find(c.reason), std::string::npos) << "text: " << c.text << "\nerror: " << error;
        }
    }
}

} // namespace
