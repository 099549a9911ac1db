#include "samplerconfig.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace quorvex {

namespace {

// A configuration is a few hundred bytes; anything this large is not one.
const std::size_t MAX_CONFIG_BYTES = 1 << 20;

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool percentDecode(const std::string& in, std::string& out)
{
    out.clear();
    for (std::size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '%') {
            out += in[i];
            continue;
        }
        if (i + 2 >= in.size())
            return false;
        const int high = hexDigit(in[i + 1]);
        const int low = hexDigit(in[i + 2]);
        if (high < 0 || low < 0)
            return false;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return true;
}

bool parseUnsigned(const std::string& text, unsigned int& value)
{
    if (text.empty() || text.size() > 10)
        return false;
    unsigned long long v = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + static_cast<unsigned>(c - '0');
    }
    if (v > 0xFFFFFFFFULL)
        return false;
    value = static_cast<unsigned int>(v);
    return true;
}

std::vector<std::string> splitFields(const std::string& line)
{
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (;;) {
        const std::size_t space = line.find(' ', start);
        fields.push_back(line.substr(start, space == std::string::npos ? std::string::npos : space - start));
        if (space == std::string::npos)
            return fields;
        start = space + 1;
    }
}

bool parseFlags(const std::string& text, SamplerMetricConfig& metric, std::string& bad)
{
    if (text == "-")
        return true;
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = text.find(',', start);
        const std::string flag = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (flag == "divide")
            metric.divide = true;
        else if (flag == "sparse")
            metric.sparse = true;
        else if (flag == "clamp")
            metric.clamp = true;
        else if (flag == "timedomain")
            metric.onTimeDomain = true;
        else {
            bad = flag;
            return false;
        }
        if (comma == std::string::npos)
            return true;
        start = comma + 1;
    }
}

bool fail(std::string& error, unsigned lineNumber, const std::string& what)
{
    error = "line " + std::to_string(lineNumber) + ": " + what;
    return false;
}

} // namespace

unsigned int SamplerConfig::metricCount() const
{
    unsigned int count = 0;
    for (const SamplerMetricConfig& metric : metrics) {
        if (metric.index + 1 > count)
            count = metric.index + 1;
    }
    return count;
}

bool parseSamplerConfig(const char* text, std::size_t length, SamplerConfig& config, std::string& error)
{
    config = SamplerConfig();
    const std::string all(text, length);
    std::size_t pos = 0;
    unsigned lineNumber = 0;
    bool sawHeader = false;
    bool sawFirstOnNode = false;
    while (pos < all.size()) {
        const std::size_t newline = all.find('\n', pos);
        if (newline == std::string::npos)
            return fail(error, lineNumber + 1, "the last line has no line end; the file is truncated");
        const std::string line = all.substr(pos, newline - pos);
        pos = newline + 1;
        ++lineNumber;

        if (!sawHeader) {
            const std::string expected = "zor-sampler-config " + std::to_string(SAMPLER_CONFIG_VERSION);
            if (line.compare(0, 19, "zor-sampler-config ") == 0 && line != expected)
                return fail(error, lineNumber, "unsupported version \"" + line.substr(19) + "\", expected "
                                                   + std::to_string(SAMPLER_CONFIG_VERSION));
            if (line != expected)
                return fail(error, lineNumber, "not a sampler configuration (expected \"" + expected + "\")");
            sawHeader = true;
            continue;
        }
        if (!line.empty() && line[0] == '#')
            continue;
        if (line == "end")
            return true;

        const std::vector<std::string> fields = splitFields(line);
        if (fields[0] == "first-on-node") {
            if (fields.size() != 2 || (fields[1] != "0" && fields[1] != "1"))
                return fail(error, lineNumber, "\"first-on-node\" takes 0 or 1");
            if (sawFirstOnNode)
                return fail(error, lineNumber, "\"first-on-node\" given twice");
            sawFirstOnNode = true;
            config.firstOnNode = fields[1] == "1";
        } else if (fields[0] == "metric") {
            if (fields.size() != 4 && fields.size() != 5)
                return fail(error, lineNumber, "\"metric\" takes an index, flags, an identifier and optionally a library");
            SamplerMetricConfig metric;
            if (!parseUnsigned(fields[1], metric.index))
                return fail(error, lineNumber, "bad metric index \"" + fields[1] + "\"");
            for (const SamplerMetricConfig& other : config.metrics) {
                if (other.index == metric.index)
                    return fail(error, lineNumber, "metric index " + fields[1] + " given twice");
            }
            std::string badFlag;
            if (!parseFlags(fields[2], metric, badFlag))
                return fail(error, lineNumber, "unknown metric flag \"" + badFlag + "\"");
            if (!percentDecode(fields[3], metric.id) || metric.id.empty())
                return fail(error, lineNumber, "bad metric identifier \"" + fields[3] + "\"");
            if (fields.size() == 5 && (!percentDecode(fields[4], metric.library) || metric.library.empty()))
                return fail(error, lineNumber, "bad library path \"" + fields[4] + "\"");
            config.metrics.push_back(metric);
        } else {
            return fail(error, lineNumber, "unknown item \"" + fields[0] + "\"");
        }
    }
    if (!sawHeader)
        return fail(error, 1, "the file is empty");
    return fail(error, lineNumber, "no \"end\" line; the file is truncated");
}

bool readSamplerConfigFile(const char* path, SamplerConfig& config, std::string& error)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = std::string("can't open the configuration ") + path + ": " + strerror(errno);
        return false;
    }
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            error = std::string("can't read the configuration ") + path + ": " + strerror(errno);
            close(fd);
            return false;
        }
        if (n == 0)
            break;
        text.append(buffer, static_cast<std::size_t>(n));
        if (text.size() > MAX_CONFIG_BYTES) {
            error = std::string("the configuration ") + path + " is too large to be one";
            close(fd);
            return false;
        }
    }
    close(fd);
    if (!parseSamplerConfig(text.data(), text.size(), config, error)) {
        error = std::string("configuration ") + path + ", " + error;
        return false;
    }
    return true;
}

} // namespace quorvex
