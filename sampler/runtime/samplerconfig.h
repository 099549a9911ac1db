// The sampler's configuration: which metrics to take per sample, at which
// index of the sample's metric vector, and how their values combine. The
// back-end writes it with MetricDefinitions::writeConfigForSamplerInFile at
// the path that the sampler later overwrites with its results.
//
// The form is text, one item per line, each line ended by "\n", fields
// separated by one space:
//
//   zor-sampler-config 1                      first line: the form and its version
//   # ...                                     a comment, anywhere after the first line
//   first-on-node 0|1                         this process was elected for per-node work
//   metric INDEX FLAGS ID [LIBRARY]           one per metric, in any order
//   end                                       last line: what follows is ignored
//
// INDEX is the unsigned decimal index of the metric; no two metrics share
// one. FLAGS is "-" or a comma-separated list of "divide" (a rate: merged
// samples add up, the value is per sample interval), "sparse", "clamp" and
// "timedomain". ID is the metric's identifier and LIBRARY, given only for a
// metric of a plug-in library, its path; both are percent-encoded: every
// byte that is a space, a "%", a control character or not ASCII is written
// as "%" and two hexadecimal digits, so that neither holds a space.
// "first-on-node" is optional (0 when missing). A file without "end" is
// truncated and rejected.
//
// Parsing is Qt-free and runs when sampling is armed, never in a signal
// handler.
#ifndef ZOR_SAMPLERCONFIG_H
#define ZOR_SAMPLERCONFIG_H

#include <cstddef>
#include <string>
#include <vector>

namespace quorvex {

struct SamplerMetricConfig
{
    unsigned int index = 0;
    bool divide = false;
    bool sparse = false;
    bool clamp = false;
    bool onTimeDomain = false;
    std::string id;
    std::string library; // empty for a metric built into the sampler
};

struct SamplerConfig
{
    bool firstOnNode = false;
    std::vector<SamplerMetricConfig> metrics;

    // One more than the highest index, 0 without metrics: the length of
    // every sample's metric vector.
    unsigned int metricCount() const;
};

const int SAMPLER_CONFIG_VERSION = 1;

// Parses `length` bytes of `text`. On failure returns false and puts a
// one-line reason, with the line number, into `error`.
bool parseSamplerConfig(const char* text, std::size_t length, SamplerConfig& config, std::string& error);

// Reads and parses the file at `path`.
bool readSamplerConfigFile(const char* path, SamplerConfig& config, std::string& error);

} // namespace quorvex

#endif
