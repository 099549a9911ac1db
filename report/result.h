// A saved run: everything the reports need, so that `zor report` never needs
// the program, its binary or a host again. What each rank sent back is kept
// in its wire form's classes, so that the file and the messages share one
// reader and one writer.
#ifndef ZOR_REPORT_RESULT_H
#define ZOR_REPORT_RESULT_H

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>

#include "profilerresponses.h"
#include "sample.h"

struct RunInfo
{
    QString program; // as the user gave it
    QStringList arguments;
    QDateTime started; // UTC
    qint64 wallMs = 0; // from the start of the program to its end
    // From the start of sampling to the program's end as zor saw it, which
    // may be later than sampling's end (after an exec); 0 if not known.
    qint64 programMs = 0;
    // CPU time of the processes that the program started and waited for,
    // which zor doesn't sample; -1 if not known.
    qint64 childrenCpuMs = -1;
    // CPU time of the program's processes as the ended processes tell it,
    // whether sampled or not; -1 if not known.
    qint64 processCpuMs = -1;
    // The processors that the program could run on, for a run of one
    // process; 0 if not known.
    int cpus = 0;
    int intervalMs = 20;
    int samplesPerProcess = 1000;
    int exitStatus = 0;
    int exitSignal = 0; // the signal that ended the program, if one did
    bool interrupted = false; // the user stopped sampling early

    QString commandLine() const;
};

// `word` as a shell reads it back: quoted unless made only of characters
// that no shell treats specially.
QString shellWord(const QString& word);

struct RankResult
{
    ProfilerPlayResponse play;
    QList<Sample> samples;
    SendMetricErrorsResponse metricErrors;
    SendMetricsCollectedAtTheEndResponse endMetrics;

    int rank() const { return play.rank(); }
};

struct Result
{
    RunInfo run;
    QList<RankResult> ranks;
};

// The file: a fixed header (a magic number that catches text-mode mangling,
// the format's version, the length and SHA-256 of the body), then the body,
// an XML document compressed with qCompress. A file of another version or
// kind, a truncated one and a damaged one each get their own message.
namespace ResultFile {

extern const quint32 Version;

// The samples of a rank as the body holds them, compressed: most of the
// work of writing a result, which can start as soon as the samples are in.
struct EncodedSamples
{
    QByteArray deflated; // raw deflate blocks, none of them the last
    quint32 adler = 1; // of the XML
    qint64 size = 0; // of the XML
};
// A list encoded in pieces shares one table of trees among them, so that
// a tree names one of an earlier piece; without one, the piece is a list
// of its own.
EncodedSamples encodeSamples(const QList<Sample>& samples, SampleTreeTable* trees = nullptr);
// Consecutive pieces as one: encodeSamples of a list cut into parts with
// one table, joined in order, holds the same XML as encodeSamples of the
// whole.
EncodedSamples join(const QList<EncodedSamples>& pieces);

// `samples` holds encodeSamples of each rank, in order; ranks beyond it are
// encoded here.
QByteArray encode(const Result& result, const QList<EncodedSamples>& samples = {});
// `name` names the data in messages.
bool decode(const QByteArray& data, const QString& name, Result* result, QString* error);

// Writes through a temporary file that replaces `path` only when complete.
bool write(const QString& path, const Result& result, QString* error, const QList<EncodedSamples>& samples = {});
bool read(const QString& path, Result* result, QString* error);

} // namespace ResultFile

#endif
