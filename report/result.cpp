#include "result.h"

#include <QCryptographicHash>
#include <QFile>
#include <QSaveFile>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>
#include <QtEndian>

#include <zlib.h>

#include "xmlreading.h"
#include "xmlwriting.h"

namespace ResultFile {

// 2: a repeated sample's trees are written once (a thread's "sameTree").
// 3: every tree of a rank's samples is written once; a thread whose tree
//    came before names its number (a tree's "ref").
// Files of older versions read as they always did.
const quint32 Version = 3;

} // namespace ResultFile

namespace {

// The first byte has its high bit set and the rest holds CR LF and ^Z, so
// that a file passed through a text conversion no longer matches.
const char Magic[8] = { '\x89', 'Z', 'O', 'R', '\r', '\n', '\x1a', '\n' };
const int HashSize = 32;
const int HeaderSize = sizeof(Magic) + 4 + 4 + 8 + HashSize;

const QString RootElement = QStringLiteral("zorResult");

void writeRun(QXmlStreamWriter& w, const RunInfo& run)
{
    w.writeStartElement(QStringLiteral("run"));
    w.writeAttribute(QStringLiteral("program"), run.program);
    w.writeAttribute(QStringLiteral("started"), run.started.toUTC().toString(Qt::ISODateWithMs));
    w.writeAttribute(QStringLiteral("wallMs"), QString::number(run.wallMs));
    w.writeAttribute(QStringLiteral("interval"), QString::number(run.intervalMs));
    w.writeAttribute(QStringLiteral("samples"), QString::number(run.samplesPerProcess));
    w.writeAttribute(QStringLiteral("exitStatus"), QString::number(run.exitStatus));
    if (run.exitSignal > 0)
        w.writeAttribute(QStringLiteral("exitSignal"), QString::number(run.exitSignal));
    if (run.interrupted)
        w.writeAttribute(QStringLiteral("interrupted"), QStringLiteral("yes"));
    if (run.programMs > 0)
        w.writeAttribute(QStringLiteral("programMs"), QString::number(run.programMs));
    if (run.childrenCpuMs >= 0)
        w.writeAttribute(QStringLiteral("childrenCpuMs"), QString::number(run.childrenCpuMs));
    if (run.processCpuMs >= 0)
        w.writeAttribute(QStringLiteral("processCpuMs"), QString::number(run.processCpuMs));
    if (run.cpus > 0)
        w.writeAttribute(QStringLiteral("cpus"), QString::number(run.cpus));
    for (const QString& argument : run.arguments)
        w.writeTextElement(QStringLiteral("arg"), argument);
    w.writeEndElement();
}

bool readRun(QXmlStreamReader& r, RunInfo* run, QString* error)
{
    const QXmlStreamAttributes a = r.attributes();
    bool ok[5] = {};
    run->program = a.value(QLatin1String("program")).toString();
    run->started = QDateTime::fromString(a.value(QLatin1String("started")).toString(), Qt::ISODateWithMs);
    run->wallMs = a.value(QLatin1String("wallMs")).toLongLong(&ok[0]);
    run->intervalMs = a.value(QLatin1String("interval")).toInt(&ok[1]);
    run->samplesPerProcess = a.value(QLatin1String("samples")).toInt(&ok[2]);
    run->exitStatus = a.value(QLatin1String("exitStatus")).toInt(&ok[3]);
    run->interrupted = a.value(QLatin1String("interrupted")) == QLatin1String("yes");
    run->exitSignal = std::max(0, a.value(QLatin1String("exitSignal")).toInt());
    // Not in files of older versions.
    run->programMs = std::max(0LL, a.value(QLatin1String("programMs")).toLongLong());
    bool childrenKnown = false;
    run->childrenCpuMs = a.value(QLatin1String("childrenCpuMs")).toLongLong(&childrenKnown);
    if (!childrenKnown || run->childrenCpuMs < 0)
        run->childrenCpuMs = -1;
    bool processKnown = false;
    run->processCpuMs = a.value(QLatin1String("processCpuMs")).toLongLong(&processKnown);
    if (!processKnown || run->processCpuMs < 0)
        run->processCpuMs = -1;
    run->cpus = std::max(0, a.value(QLatin1String("cpus")).toInt());
    ok[4] = run->started.isValid();
    for (bool b : ok) {
        if (!b) {
            *error = QStringLiteral("the run's description is incomplete");
            return false;
        }
    }
    while (r.readNextStartElement()) {
        if (r.name() == QLatin1String("arg"))
            run->arguments.append(r.readElementText());
        else
            r.skipCurrentElement();
    }
    return true;
}

bool readResponse(QXmlStreamReader& r, Response* response, QString* error)
{
    if (response->readXml(r, error))
        return true;
    *error = QStringLiteral("%1: %2").arg(response->elementName(), *error);
    return false;
}

// The samples of each rank, the bulk of a result, read with our own reader:
// what lies between "<samples>" and "</samples>" (a '<' in a name or a
// value is always escaped, so these bytes are the tags) is read as a
// document of its own and left out of `rest`, which Qt's reader reads.
// False where our reader doesn't take a rank's samples (histograms, device
// trees): Qt's reader then reads it all.
bool readSamplesFast(const QByteArray& xml, QByteArray* rest, QList<QList<Sample>>* ranks)
{
    static const QByteArray open("<samples>");
    static const QByteArray close("</samples>");
    rest->clear();
    int from = 0;
    for (int start = xml.indexOf(open); start >= 0; start = xml.indexOf(open, from)) {
        const int content = start + open.size();
        const int end = xml.indexOf(close, content);
        if (end < 0)
            return false;
        const QByteArray element = QByteArray::fromRawData(xml.constData() + start, end + close.size() - start);
        FastXmlReader reader(element);
        if (!reader.readNextStartElement())
            return false;
        QList<Sample> samples;
        SampleTreeTable trees;
        while (reader.readNextStartElement()) {
            Sample sample;
            if (!reader.nameIs(QLatin1String("sample")) || !sample.readXml(reader, &trees))
                return false;
            samples.append(sample);
        }
        if (reader.hasError() || !reader.atDocumentEnd())
            return false;
        ranks->append(samples);
        rest->append(xml.constData() + from, content - from);
        from = end;
    }
    rest->append(xml.constData() + from, xml.size() - from);
    return true;
}

// `fast`: the ranks' samples read ahead, in order, or null; `taken` counts
// those used.
bool readRank(QXmlStreamReader& r, RankResult* rank, QString* error, const QList<QList<Sample>>* fast, int* taken)
{
    while (r.readNextStartElement()) {
        const QStringRef name = r.name();
        if (name == rank->play.elementName()) {
            if (!readResponse(r, &rank->play, error))
                return false;
        } else if (name == rank->metricErrors.elementName()) {
            if (!readResponse(r, &rank->metricErrors, error))
                return false;
        } else if (name == rank->endMetrics.elementName()) {
            if (!readResponse(r, &rank->endMetrics, error))
                return false;
        } else if (name == QLatin1String("samples") && fast) {
            r.skipCurrentElement();
            if (*taken < fast->size())
                rank->samples = fast->at(*taken);
            ++*taken;
        } else if (name == QLatin1String("samples")) {
            SampleTreeTable trees;
            while (r.readNextStartElement()) {
                Sample sample;
                if (!sample.readXml(r, error, &trees))
                    return false;
                rank->samples.append(sample);
            }
        } else {
            r.skipCurrentElement();
        }
    }
    return true;
}

QByteArray samplesXml(const QList<Sample>& samples, SampleTreeTable* trees)
{
    QByteArray xml;
    XmlWriter out(&xml);
    SampleTreeTable own;
    for (const Sample& sample : samples)
        sample.writeXml(out, trees ? trees : &own);
    return xml;
}

// Raw deflate blocks that end on a byte boundary, the last block only
// where `last`: pieces compressed apart join into one stream.
ResultFile::EncodedSamples deflatePiece(const QByteArray& xml, bool last)
{
    ResultFile::EncodedSamples piece;
    piece.size = xml.size();
    piece.adler = quint32(adler32(1, reinterpret_cast<const Bytef*>(xml.constData()), uInt(xml.size())));
    z_stream stream = {};
    if (deflateInit2(&stream, 6, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        qFatal("zlib can't start compressing");
    piece.deflated.resize(int(deflateBound(&stream, uLong(xml.size()))) + 16);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(xml.constData()));
    stream.avail_in = uInt(xml.size());
    stream.next_out = reinterpret_cast<Bytef*>(piece.deflated.data());
    stream.avail_out = uInt(piece.deflated.size());
    const int status = deflate(&stream, last ? Z_FINISH : Z_SYNC_FLUSH);
    if (status != (last ? Z_STREAM_END : Z_OK) || stream.avail_in != 0)
        qFatal("zlib failed to compress %d bytes", xml.size());
    piece.deflated.resize(int(stream.total_out));
    deflateEnd(&stream);
    return piece;
}

// The body as qCompress makes it (the length, then a zlib stream) from the
// XML around the ranks' samples and their pieces compressed ahead.
QByteArray bodyOf(const Result& result, const QList<ResultFile::EncodedSamples>& encodedSamples)
{
    QByteArray xml;
    QXmlStreamWriter w(&xml);
    // Where the samples of each rank go in xml.
    QVector<int> cuts;
    w.writeStartDocument();
    w.writeStartElement(RootElement);
    writeRun(w, result.run);
    for (int i = 0; i < result.ranks.size(); ++i) {
        const RankResult& rank = result.ranks.at(i);
        w.writeStartElement(QStringLiteral("rank"));
        rank.play.writeXml(w);
        rank.metricErrors.writeXml(w);
        rank.endMetrics.writeXml(w);
        w.writeStartElement(QStringLiteral("samples"));
        // Empty characters close the start tag.
        w.writeCharacters(QString());
        cuts.append(xml.size());
        w.writeEndElement();
        w.writeEndElement();
    }
    w.writeEndElement();
    w.writeEndDocument();

    QList<ResultFile::EncodedSamples> pieces;
    int from = 0;
    for (int i = 0; i < cuts.size(); ++i) {
        pieces.append(deflatePiece(xml.mid(from, cuts.at(i) - from), false));
        pieces.append(i < encodedSamples.size() ? encodedSamples.at(i)
                                                : ResultFile::encodeSamples(result.ranks.at(i).samples));
        from = cuts.at(i);
    }
    pieces.append(deflatePiece(xml.mid(from), true));

    qint64 size = 0;
    uLong adler = 1;
    QByteArray body(6, '\0');
    for (const ResultFile::EncodedSamples& piece : pieces) {
        adler = adler32_combine(adler, piece.adler, z_off_t(piece.size));
        size += piece.size;
        body.append(piece.deflated);
    }
    if (size > 0xffffffffLL)
        qFatal("a result of %lld bytes is too large to save", size);
    qToBigEndian<quint32>(quint32(size), body.data());
    // The zlib header of the default compression and window.
    body[4] = char(0x78);
    body[5] = char(0x9c);
    char word[4];
    qToBigEndian<quint32>(quint32(adler), word);
    body.append(word, 4);
    return body;
}

bool parseBody(const QByteArray& xml, Result* result, QString* error, const QList<QList<Sample>>* fast = nullptr)
{
    // Each rank's samples may have been read ahead, with nothing of them
    // left in xml.
    int taken = 0;
    QXmlStreamReader r(xml);
    if (!r.readNextStartElement() || r.name() != RootElement) {
        *error = QStringLiteral("no result inside");
        return false;
    }
    bool haveRun = false;
    while (r.readNextStartElement()) {
        if (r.name() == QLatin1String("run")) {
            if (!readRun(r, &result->run, error))
                return false;
            haveRun = true;
        } else if (r.name() == QLatin1String("rank")) {
            RankResult rank;
            if (!readRank(r, &rank, error, fast, &taken))
                return false;
            result->ranks.append(rank);
        } else {
            r.skipCurrentElement();
        }
    }
    if (r.hasError()) {
        *error = r.errorString();
        return false;
    }
    if (!haveRun) {
        *error = QStringLiteral("the run's description is missing");
        return false;
    }
    if (fast && taken != fast->size()) {
        *error = QStringLiteral("the samples read ahead don't match the ranks");
        return false;
    }
    return true;
}

} // namespace

QString shellWord(const QString& word)
{
    if (QRegExp(QStringLiteral("[A-Za-z0-9_@%+=:,./-]+")).exactMatch(word))
        return word;
    return QLatin1Char('\'') + QString(word).replace(QLatin1Char('\''), QLatin1String("'\\''")) + QLatin1Char('\'');
}

QString RunInfo::commandLine() const
{
    QStringList words(program);
    words += arguments;
    for (QString& word : words)
        word = shellWord(word);
    return words.join(QLatin1Char(' '));
}

ResultFile::EncodedSamples ResultFile::encodeSamples(const QList<Sample>& samples, SampleTreeTable* trees)
{
    return deflatePiece(samplesXml(samples, trees), false);
}

ResultFile::EncodedSamples ResultFile::join(const QList<EncodedSamples>& pieces)
{
    EncodedSamples whole;
    for (const EncodedSamples& piece : pieces) {
        whole.deflated += piece.deflated;
        whole.adler = quint32(adler32_combine(whole.adler, piece.adler, z_off_t(piece.size)));
        whole.size += piece.size;
    }
    return whole;
}

QByteArray ResultFile::encode(const Result& result, const QList<EncodedSamples>& samples)
{
    const QByteArray body = bodyOf(result, samples);
    QByteArray data(Magic, sizeof(Magic));
    char word[8];
    qToBigEndian<quint32>(Version, word);
    data.append(word, 4);
    qToBigEndian<quint32>(0, word); // flags, none yet
    data.append(word, 4);
    qToBigEndian<quint64>(body.size(), word);
    data.append(word, 8);
    data.append(QCryptographicHash::hash(body, QCryptographicHash::Sha256));
    data.append(body);
    return data;
}

bool ResultFile::decode(const QByteArray& data, const QString& name, Result* result, QString* error)
{
    if (data.size() < int(sizeof(Magic)) || memcmp(data.constData(), Magic, sizeof(Magic)) != 0) {
        *error = QStringLiteral("%1 is not a zor result file").arg(name);
        return false;
    }
    if (data.size() < HeaderSize) {
        *error = QStringLiteral("%1 is truncated: its header is incomplete").arg(name);
        return false;
    }
    const uchar* header = reinterpret_cast<const uchar*>(data.constData()) + sizeof(Magic);
    const quint32 version = qFromBigEndian<quint32>(header);
    if (version < 1 || version > ResultFile::Version) {
        *error = QStringLiteral("%1 is a zor result of format version %2; this zor reads versions 1 to %3")
                     .arg(name)
                     .arg(version)
                     .arg(ResultFile::Version);
        return false;
    }
    const quint64 length = qFromBigEndian<quint64>(header + 8);
    const quint64 present = quint64(data.size() - HeaderSize);
    if (present < length) {
        *error = QStringLiteral("%1 is truncated: %2 of its %3 bytes are there")
                     .arg(name)
                     .arg(present + HeaderSize)
                     .arg(length + HeaderSize);
        return false;
    }
    if (present > length) {
        *error = QStringLiteral("%1 is damaged: %2 bytes follow its end").arg(name).arg(present - length);
        return false;
    }
    const QByteArray body = data.mid(HeaderSize);
    const QByteArray hash = data.mid(HeaderSize - HashSize, HashSize);
    if (QCryptographicHash::hash(body, QCryptographicHash::Sha256) != hash) {
        *error = QStringLiteral("%1 is damaged: its checksum doesn't match").arg(name);
        return false;
    }
    const QByteArray xml = qUncompress(body);
    QString reason;
    Result read;
    // Our own reader for the samples, which are nearly all of it; Qt's for
    // the rest, and for all of it where ours doesn't take something.
    QByteArray rest;
    QList<QList<Sample>> fast;
    if (!xml.isEmpty() && readSamplesFast(xml, &rest, &fast) && parseBody(rest, &read, &reason, &fast)) {
        *result = read;
        return true;
    }
    read = Result();
    if (xml.isEmpty() || !parseBody(xml, &read, &reason)) {
        *error = QStringLiteral("%1 is damaged: %2").arg(name, xml.isEmpty() ? QStringLiteral("it doesn't uncompress") : reason);
        return false;
    }
    *result = read;
    return true;
}

bool ResultFile::write(const QString& path, const Result& result, QString* error,
                       const QList<EncodedSamples>& samples)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(encode(result, samples)) < 0 || !file.commit()) {
        *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

bool ResultFile::read(const QString& path, Result* result, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return false;
    }
    return decode(file.readAll(), path, result, error);
}
