// The command path end to end: a recording host hands commands to the
// plug-in as the host daemon would, and a scripted source stands in for the
// sampler in a target.
#include <QFile>
#include <QTimer>
#include <numeric>
#include <gtest/gtest.h>

#include "command.h"
#include "constants.h"
#include "fakehost.h"
#include "profiler.h"
#include "profilerresponses.h"
#include "sample.h"
#include "samplelist.h"
#include "samplesranges.h"
#include "scripteddebugger.h"
#include "scriptedsamplesource.h"
#include "zorprofiler.h"
#include "zorresponsefactoryplugin.h"

namespace {

Command profilerCommand(const char* name)
{
    return Command(QString::fromLatin1(name), QString::fromLatin1(XML_TARGET_PROFILER));
}

Sample* sampleAt(long long ms)
{
    Sample* sample = new Sample;
    sample->backendOnly_setTimestamp(ms);
    return sample;
}

class CommandPath : public ::testing::Test
{
protected:
    void SetUp() override
    {
        script = std::make_shared<SourceScript>();
        Profiler::setSampleSourceFactory(ScriptedSampleSource::factory(script));
        Command initCommand;
        plugin.init(initCommand, host);
        handler = plugin.getMessageHandler();
        profiler = static_cast<Profiler*>(handler);
    }
    void TearDown() override { Profiler::setSampleSourceFactory(Profiler::SampleSourceFactory()); }

    void deliver(Command& command) { host.deliver(*handler, command); }

    // The one failure answering `command`.
    std::shared_ptr<Exception> failureOf(const Command& command)
    {
        std::shared_ptr<Exception> found;
        for (const FakeHost::Record& record : host.ofKind(FakeHost::ReplyException)) {
            if (record.commandUid == command.getUid()) {
                EXPECT_FALSE(found) << "two failures for one command";
                found = record.exception;
            }
        }
        return found;
    }

    std::shared_ptr<ProfilerPlayResponse> playReply()
    {
        const QList<FakeHost::Record> replies = host.responses(ProfilerPlayResponse::staticElementName());
        if (replies.size() != 1 || replies.first().kind != FakeHost::Reply)
            return nullptr;
        return std::dynamic_pointer_cast<ProfilerPlayResponse>(replies.first().response);
    }

    FakeHost host;
    ZORProfiler plugin;
    TharnMessageHandler* handler = nullptr;
    Profiler* profiler = nullptr;
    std::shared_ptr<SourceScript> script;
};

TEST_F(CommandPath, PlayRunsTheWholeRunAndAnswersWithItsFacts)
{
    host.rank = 3;
    script->hasWrappedMpiCalls = true;
    script->batches = { { sampleAt(10), sampleAt(20) }, { sampleAt(30) } };
    script->duration = 1234;
    script->mpiThreadMultiple = true;
    script->ompRegions = true;
    script->ompRuntimes = { Category::OmpCompiler::Gnu };
    script->runMetrics.insert(QString::fromLatin1(METRIC_NUM_DOWNSAMPLES), SampleValue(2UL));
    script->mpiCalls = { MpiCallMetric(3, QStringLiteral("MPI_Send"), SampleValue(1), SampleValue(2), SampleValue(3),
                                       SampleValue(4)) };

    QVariantMap metric;
    metric.insert(QStringLiteral("index"), 0);
    QVariantMap definitions;
    definitions.insert(QString::fromLatin1(METRIC_CHARS_READ), metric);
    Command play = profilerCommand(CMD_ZOR_PLAY);
    play.addParameter(QStringLiteral("numSamples"), 100);
    play.addParameter(QStringLiteral("initialInterval"), QStringLiteral("5"));
    play.addParameter(QStringLiteral("metricDefinitions"), definitions);
    play.addParameter(QStringLiteral("timestamp"), 77u);
    play.addParameter(QStringLiteral("startOffset"), 1000);
    play.addParameter(QStringLiteral("stopOffset"), QStringLiteral("2000"));
    play.addParameter(QStringLiteral("cudaEnabled"), QStringLiteral("true"));
    play.addParameter(QStringLiteral("enableLineMetrics"), false);
    deliver(play);

    // The init response goes out first, on its own, then the answer.
    ASSERT_EQ(host.records.size(), 2);
    EXPECT_EQ(host.records[0].kind, FakeHost::Sent);
    auto init = std::dynamic_pointer_cast<ProfilerSamplerInitResponse>(host.records[0].response);
    ASSERT_TRUE(init);
    EXPECT_TRUE(init->hasWrappedMpiCalls());

    auto response = playReply();
    ASSERT_TRUE(response);
    EXPECT_EQ(host.records[1].commandUid, play.getUid());
    EXPECT_EQ(response->rank(), 3);
    EXPECT_FALSE(response->interrupted());
    EXPECT_EQ(response->sampleCount(), 3);
    EXPECT_EQ(response->duration(), 1234);
    EXPECT_TRUE(response->mpiThreadMultiple());
    EXPECT_FALSE(response->notSelected());
    EXPECT_TRUE(response->hasOmpRegions());
    EXPECT_EQ(response->ompRuntimes(), script->ompRuntimes);
    EXPECT_EQ(response->metrics().value(QString::fromLatin1(METRIC_NUM_DOWNSAMPLES)).to_uint64_t(), 2u);
    EXPECT_TRUE(response->cudaProfilingEnabled());

    const SampleSourceSettings& settings = script->settings;
    EXPECT_EQ(settings.numSamples, 100);
    EXPECT_EQ(settings.initialInterval, 5);
    EXPECT_EQ(settings.timestamp, 77u);
    EXPECT_EQ(settings.startOffset, 1000u);
    EXPECT_EQ(settings.stopOffset, 2000u);
    EXPECT_TRUE(settings.cudaEnabled);
    EXPECT_FALSE(settings.enableCudaPcSampling);
    EXPECT_FALSE(settings.notSelected);
    ASSERT_NE(settings.metrics.getMetricById(QString::fromLatin1(METRIC_CHARS_READ)), nullptr);
    EXPECT_FALSE(script->lineMetrics);

    // The source lives for the run only; the samples stay.
    EXPECT_EQ(script->created, 1);
    EXPECT_EQ(script->destroyed, 1);
    EXPECT_EQ(script->readCalls, 2);
    ASSERT_TRUE(profiler->samples());
    EXPECT_EQ(profiler->samples()->size(), 3);
    EXPECT_EQ(profiler->samples()->capacity(), 100);
    EXPECT_GE(host.flushes, 1);
    EXPECT_TRUE(profiler->currentCommand().isEmpty());
}

TEST_F(CommandPath, MissingOrUnconvertibleAttributesTakeTheirDefaults)
{
    Command play = profilerCommand(CMD_ZOR_PLAY);
    play.addParameter(QStringLiteral("numSamples"), QStringLiteral("many"));
    play.addParameter(QStringLiteral("timestamp"), QStringLiteral("-"));
    play.addParameter(QStringLiteral("metricDefinitions"), QStringLiteral("not a map"));
    play.addParameter(QStringLiteral("cudaEnabled"), QVariant());
    deliver(play);

    ASSERT_TRUE(playReply());
    EXPECT_EQ(script->settings.numSamples, 0);
    EXPECT_EQ(script->settings.initialInterval, 20);
    EXPECT_EQ(script->settings.timestamp, 0u);
    EXPECT_TRUE(script->settings.metrics.isEmpty());
    EXPECT_FALSE(script->settings.cudaEnabled);
    EXPECT_TRUE(script->lineMetrics);
    EXPECT_EQ(profiler->samples()->capacity(), 0);

    // An interval of 0 that converts stays 0; the next run is allowed once
    // the first has ended.
    Command again = profilerCommand(CMD_ZOR_PLAY);
    again.addParameter(QStringLiteral("initialInterval"), QStringLiteral("0"));
    deliver(again);
    EXPECT_FALSE(failureOf(again));
    EXPECT_EQ(script->settings.initialInterval, 0);
}

TEST_F(CommandPath, SelectedRanksDecideNotSelectedButEveryRankStillPlays)
{
    host.rank = 7;
    Command play = profilerCommand(CMD_ZOR_PLAY);
    play.addParameter(QStringLiteral("selectedRanks"), QStringLiteral("0-3,5"));
    deliver(play);
    auto response = playReply();
    ASSERT_TRUE(response);
    EXPECT_TRUE(response->notSelected());
    EXPECT_TRUE(script->settings.notSelected);
    EXPECT_TRUE(profiler->selectedRanks().contains(5));

    // The set is merged, not replaced: a later run adds rank 7.
    host.clear();
    Command second = profilerCommand(CMD_ZOR_PLAY);
    second.addParameter(QStringLiteral("selectedRanks"), QStringLiteral("7"));
    deliver(second);
    ASSERT_TRUE(playReply());
    EXPECT_FALSE(playReply()->notSelected());
    EXPECT_TRUE(profiler->selectedRanks().contains(2));
}

TEST_F(CommandPath, NoSelectionOrABadOneSelectsEveryRank)
{
    host.rank = 12;
    Command play = profilerCommand(CMD_ZOR_PLAY);
    play.addParameter(QStringLiteral("selectedRanks"), QStringLiteral("3-x"));
    deliver(play);
    ASSERT_TRUE(playReply());
    EXPECT_FALSE(playReply()->notSelected());
    EXPECT_TRUE(profiler->selectedRanks().isEmpty());
}

TEST_F(CommandPath, StopDuringARunEndsItAndIsNeverAnswered)
{
    script->waitForStop = true;
    script->batches = { { sampleAt(1) } };
    Command play = profilerCommand(CMD_ZOR_PLAY);
    Command stop = profilerCommand(CMD_ZOR_STOP);
    // The stop arrives while play waits inside the source's yield.
    QTimer::singleShot(0, [&]() { deliver(stop); });
    deliver(play);

    auto response = playReply();
    ASSERT_TRUE(response);
    EXPECT_TRUE(response->interrupted());
    EXPECT_EQ(response->sampleCount(), 1);
    EXPECT_EQ(script->stops, 1);
    for (const FakeHost::Record& record : host.records)
        EXPECT_NE(record.commandUid, stop.getUid());
    EXPECT_TRUE(profiler->isStopRequested());
}

TEST_F(CommandPath, StopBeforeAnyRunMarksTheNextRunInterrupted)
{
    Command stop = profilerCommand(CMD_ZOR_STOP);
    deliver(stop);
    EXPECT_TRUE(host.records.isEmpty());
    EXPECT_EQ(script->created, 0);

    Command play = profilerCommand(CMD_ZOR_PLAY);
    deliver(play);
    ASSERT_TRUE(playReply());
    EXPECT_TRUE(playReply()->interrupted());
    EXPECT_EQ(script->stops, 0);
}

TEST_F(CommandPath, TheSourceDecidesWhetherAnUnstoppedRunWasInterrupted)
{
    script->interrupted = true;
    Command play = profilerCommand(CMD_ZOR_PLAY);
    deliver(play);
    ASSERT_TRUE(playReply());
    EXPECT_TRUE(playReply()->interrupted());
}

TEST_F(CommandPath, InitThenPlayFailsBecauseTheSourceExists)
{
    Command init = profilerCommand(CMD_ZOR_INIT);
    deliver(init);
    ASSERT_EQ(host.records.size(), 1);
    EXPECT_EQ(host.records[0].kind, FakeHost::Reply);
    EXPECT_EQ(host.records[0].elementName, ProfilerSamplerInitResponse::staticElementName());

    Command play = profilerCommand(CMD_ZOR_PLAY);
    deliver(play);
    auto failure = failureOf(play);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code(), 20003);
    EXPECT_EQ(failure->message(), QStringLiteral("Profiler::init() has already been called"));
    EXPECT_EQ(failure->source(), QString::fromLatin1(XML_TARGET_PROFILER));
    EXPECT_EQ(script->created, 1);
}

TEST_F(CommandPath, KillReachesAnInitialisedSourceOnlyAndIsNotAnswered)
{
    Command kill = profilerCommand(CMD_ZOR_KILL);
    deliver(kill);
    EXPECT_TRUE(host.records.isEmpty());

    Command init = profilerCommand(CMD_ZOR_INIT);
    deliver(init);
    host.clear();
    Command kill2 = profilerCommand(CMD_ZOR_KILL);
    deliver(kill2);
    EXPECT_EQ(script->terminates, 1);
    EXPECT_TRUE(host.records.isEmpty());
}

TEST_F(CommandPath, FinishDetachesUnlessTheTargetIsGone)
{
    ScriptedDebugger debugger;
    host.debugger = &debugger;
    Command finish = profilerCommand(CMD_ZOR_FINISH);
    deliver(finish);
    EXPECT_EQ(host.targetMonitoringCalls, QList<bool>{ false });
    EXPECT_EQ(debugger.commands, QStringList{ QString::fromLatin1(CMD_DETACH) });
    EXPECT_TRUE(host.records.isEmpty());

    debugger.state = StatusResponse::TargetGone;
    debugger.commands.clear();
    debugger.detachResponse = true;
    Command finish2 = profilerCommand(CMD_ZOR_FINISH);
    deliver(finish2);
    EXPECT_TRUE(debugger.commands.isEmpty());
    EXPECT_EQ(debugger.statusQueries, 2);
    EXPECT_TRUE(host.records.isEmpty());
}

TEST_F(CommandPath, UnknownCommandIsAnsweredWithItsNameAndTheNextOneWorks)
{
    Command bogus = profilerCommand("zor_bogus");
    deliver(bogus);
    auto failure = failureOf(bogus);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code(), 20004);
    EXPECT_EQ(failure->message(), QStringLiteral("Unrecognised command \"zor_bogus\" sent to ZOR"));
    EXPECT_EQ(failure->source(), QStringLiteral("profiler"));

    Command play = profilerCommand(CMD_ZOR_PLAY);
    deliver(play);
    EXPECT_TRUE(playReply());
}

TEST_F(CommandPath, ACancelledRunSendsNoAnswerButItsBlocksAndFailuresStillGoOut)
{
    script->waitForStop = true;
    Command play = profilerCommand(CMD_ZOR_PLAY);
    Command stop = profilerCommand(CMD_ZOR_STOP);
    QTimer::singleShot(0, [&]() {
        handler->cancelCommand(play.getUid() + 1000);
        EXPECT_FALSE(profiler->isCancelled());
        handler->cancelCommand(play.getUid());
        EXPECT_TRUE(profiler->isCancelled());
        deliver(stop);
    });
    deliver(play);
    EXPECT_FALSE(playReply());
    EXPECT_EQ(host.ofKind(FakeHost::Sent).size(), 1); // the init response
    EXPECT_EQ(script->destroyed, 1);

    // A command cancelled while it fails is still answered with its failure.
    script->waitForStop = true;
    script->failAfterBatch = 0;
    script->batches = { { sampleAt(5) } };
    script->readFailure = std::make_shared<Exception>(20009, QStringLiteral("No samples collected"));
    Command failing = profilerCommand(CMD_ZOR_PLAY);
    Command stop2 = profilerCommand(CMD_ZOR_STOP);
    QTimer::singleShot(0, [&]() {
        handler->cancelCommand(failing.getUid());
        deliver(stop2);
    });
    deliver(failing);
    ASSERT_TRUE(failureOf(failing));
    EXPECT_EQ(failureOf(failing)->code(), 20019);
}

TEST_F(CommandPath, AFailedReadIsWrappedAndLeavesNoSamples)
{
    script->batches = { { sampleAt(1), sampleAt(2) }, { sampleAt(3) } };
    script->failAfterBatch = 1;
    script->readFailure = std::make_shared<Exception>(20009, QStringLiteral("No such file or directory"));
    script->mpiCalls = { MpiCallMetric(0, QStringLiteral("MPI_Recv"), SampleValue(), SampleValue(), SampleValue(),
                                       SampleValue()) };
    Command play = profilerCommand(CMD_ZOR_PLAY);
    deliver(play);

    auto failure = failureOf(play);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code(), 20019);
    EXPECT_EQ(failure->message(), QStringLiteral("Exception when reading sampler data"));
    ASSERT_TRUE(failure->nested());
    EXPECT_EQ(failure->nested()->code(), 20009);
    EXPECT_EQ(failure->nested()->message(), QStringLiteral("No such file or directory"));
    EXPECT_FALSE(playReply());
    EXPECT_EQ(script->destroyed, 1);
    ASSERT_TRUE(profiler->samples());
    EXPECT_EQ(profiler->samples()->size(), 0);
}

TEST_F(CommandPath, ASourceThatCannotStartFailsPlayAndAllowsAnotherTry)
{
    script->constructorFailure = std::make_shared<Exception>(20016, QStringLiteral("sampler refused"));
    Command play = profilerCommand(CMD_ZOR_PLAY);
    deliver(play);
    auto failure = failureOf(play);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code(), 20016);
    EXPECT_TRUE(host.ofKind(FakeHost::Sent).isEmpty());

    script->constructorFailure.reset();
    Command retry = profilerCommand(CMD_ZOR_PLAY);
    deliver(retry);
    EXPECT_TRUE(playReply());
}

TEST_F(CommandPath, OnlyTheProfilerTargetIsAccepted)
{
    EXPECT_TRUE(handler->messageHandlerAcceptsTarget(QStringLiteral("profiler")));
    EXPECT_FALSE(handler->messageHandlerAcceptsTarget(QStringLiteral("debugger")));
    EXPECT_FALSE(handler->messageHandlerAcceptsTarget(QString()));
}

// Delivery after a run: resampled samples stream out in blocks, then the
// histograms, the metric errors and what was measured at the end.
class Delivery : public CommandPath
{
protected:
    void SetUp() override
    {
        host.rank = 2;
        CommandPath::SetUp();
        QList<Sample*> samples;
        for (int i = 1; i <= 10; ++i) {
            Sample* sample = sampleAt(10 * i);
            sample->backendOnly_addThread(nullptr, 1, ThreadContext(),
                                          InstructionQuery(QString::fromLatin1(i % 2 ? "addsd" : "frobnicate"), false),
                                          Sample::MainThread, 1000, false);
            sample->backendOnly_setThreadMetric(1, QStringLiteral("m"), i);
            samples.append(sample);
        }
        script->batches = { samples };
        script->mpiCalls = { MpiCallMetric(2, QStringLiteral("MPI_Send"), SampleValue(1), SampleValue(2),
                                           SampleValue(3), SampleValue(4)) };
        script->selfProfile = SelfProfilePoints(2);
        MetricErrorMap errors;
        errors[QStringLiteral("m")].insert(3, MetricError(QStringLiteral("m"), 3, QStringLiteral("no m"), 2));
        script->metricErrors = errors;
    }

    void play(const QString& selectedRanks = QString())
    {
        Command command = profilerCommand(CMD_ZOR_PLAY);
        command.addParameter(QStringLiteral("numSamples"), 100);
        if (!selectedRanks.isNull())
            command.addParameter(QStringLiteral("selectedRanks"), selectedRanks);
        deliver(command);
        ASSERT_TRUE(playReply());
        host.clear();
    }

    Command sendSamples(QVariant numBlocks, QVariant blockSize = QVariant(), QVariant numSamples = QVariant())
    {
        Command command = profilerCommand(CMD_ZOR_SEND_SAMPLES);
        if (numBlocks.isValid())
            command.addParameter(QStringLiteral("numBlocks"), numBlocks);
        if (blockSize.isValid())
            command.addParameter(QStringLiteral("blockSize"), blockSize);
        if (numSamples.isValid())
            command.addParameter(QStringLiteral("numSamples"), numSamples);
        command.addParameter(QStringLiteral("duration"), 100);
        deliver(command);
        return command;
    }

    QList<std::shared_ptr<SampleBlockResponse>> blocks() const
    {
        QList<std::shared_ptr<SampleBlockResponse>> result;
        for (const FakeHost::Record& record : host.responses(SampleBlockResponse::staticElementName())) {
            EXPECT_EQ(record.kind, FakeHost::Sent);
            result.append(std::dynamic_pointer_cast<SampleBlockResponse>(record.response));
        }
        return result;
    }
};

TEST_F(Delivery, PlayCountsMnemonicsThatNoCategoryKnows)
{
    Command command = profilerCommand(CMD_ZOR_PLAY);
    command.addParameter(QStringLiteral("numSamples"), 100);
    deliver(command);
    ASSERT_TRUE(playReply());
    QMap<QString, unsigned int> expected;
    expected.insert(QStringLiteral("frobnicate"), 5);
    EXPECT_EQ(playReply()->uncategorisedInstructions(), expected);
}

TEST_F(Delivery, SamplesGoOutInEveryBlockAskedFor)
{
    play(QStringLiteral("0-3"));
    Command command = sendSamples(4, 3, 10);
    const auto sent = blocks();
    ASSERT_EQ(sent.size(), 4);
    QVector<int> sizes;
    long long previous = -1;
    for (int b = 0; b < sent.size(); ++b) {
        EXPECT_EQ(sent[b]->blockNumber(), b);
        EXPECT_EQ(sent[b]->blockSize(), 3);
        EXPECT_TRUE(sent[b]->profiledRanks().contains(3));
        sizes.append(sent[b]->samples().size());
        for (const Sample* sample : sent[b]->samples()) {
            EXPECT_GT(sample->backendOnly_getTimestamp(), previous);
            previous = sample->backendOnly_getTimestamp();
        }
    }
    EXPECT_EQ(sizes, QVector<int>({ 3, 3, 3, 1 }));
    const QList<FakeHost::Record> replies = host.ofKind(FakeHost::Reply);
    ASSERT_EQ(replies.size(), 1);
    EXPECT_EQ(replies.first().commandUid, command.getUid());
    auto answer = std::dynamic_pointer_cast<SendSamplesResponse>(replies.first().response);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->rank(), 2);
    EXPECT_EQ(answer->numSamples(), 10);

    // The raw list is untouched: another request gives a fresh result.
    host.clear();
    sendSamples(2, QVariant(), 5);
    ASSERT_EQ(blocks().size(), 2);
    EXPECT_EQ(blocks()[0]->samples().size(), 5);
    EXPECT_EQ(blocks()[0]->blockSize(), 8);
    EXPECT_EQ(profiler->samples()->size(), 10);
}

TEST_F(Delivery, BlockCountIsCheckedBeforeAnythingIsSent)
{
    play();
    Command tooMany = sendSamples(3, 2, 7);
    ASSERT_TRUE(failureOf(tooMany));
    EXPECT_EQ(failureOf(tooMany)->code(), 20007);
    EXPECT_EQ(failureOf(tooMany)->message(),
              QStringLiteral("Not enough blocks: 3 blocks of 2 samples transfers 6 samples, however 7 samples have "
                             "been requested."));
    EXPECT_TRUE(blocks().isEmpty());

    Command exact = sendSamples(3, 2, 6);
    EXPECT_FALSE(failureOf(exact));

    Command missing = sendSamples(QVariant(), 2, 6);
    ASSERT_TRUE(failureOf(missing));
    EXPECT_EQ(failureOf(missing)->code(), 20007);
    EXPECT_EQ(failureOf(missing)->message(), QStringLiteral("CMD_SEND_SAMPLES missing numBlocks attribute"));
    Command garbled = sendSamples(QStringLiteral("three"));
    EXPECT_EQ(failureOf(garbled)->message(), QStringLiteral("CMD_SEND_SAMPLES missing numBlocks attribute"));

    // Without numSamples the whole list is asked for: 10 don't fit 1 block of 8.
    Command whole = sendSamples(1);
    ASSERT_TRUE(failureOf(whole));
    EXPECT_EQ(failureOf(whole)->code(), 20007);
}

TEST_F(Delivery, ZeroSamplesSendsEmptyBlocksAndLosesNothing)
{
    play();
    sendSamples(3, 4, 0);
    ASSERT_EQ(blocks().size(), 3);
    for (const auto& block : blocks())
        EXPECT_TRUE(block->samples().isEmpty());
    EXPECT_EQ(profiler->samples()->size(), 10);
}

TEST_F(Delivery, SamplesBeforeAnyRunFail)
{
    Command command = sendSamples(1);
    ASSERT_TRUE(failureOf(command));
    EXPECT_EQ(failureOf(command)->code(), 20005);
    EXPECT_EQ(failureOf(command)->message(), QStringLiteral("Profiler::play() has not yet been called"));
}

TEST_F(Delivery, HistogramsAreBinnedOverTheFrontEndsRanges)
{
    play();
    sendSamples(2, 5, 10);
    host.clear();

    SamplesRanges ranges;
    for (int i = 0; i < 10; ++i) {
        QMap<QString, SampleValueRange> range;
        range.insert(QStringLiteral("m"), SampleValueRange{ SampleValue(0.0), SampleValue(10.0) });
        ranges.addSample(range);
    }
    Command command = profilerCommand(CMD_ZOR_SEND_HISTOGRAM);
    command.addParameter(QStringLiteral("numBlocks"), 2);
    command.addParameter(QStringLiteral("blockSize"), 5);
    command.addParameter(QStringLiteral("numBins"), 5);
    command.addParameter(QStringLiteral("ranges"), ranges.toBase64());
    deliver(command);

    const QList<FakeHost::Record> sent = host.responses(HistogramBlockResponse::staticElementName());
    ASSERT_EQ(sent.size(), 2);
    QVector<int> binOfSample;
    for (const FakeHost::Record& record : sent) {
        auto block = std::dynamic_pointer_cast<HistogramBlockResponse>(record.response);
        ASSERT_EQ(block->histograms().size(), 5);
        EXPECT_EQ(block->numBins(), 5);
        for (const SampleHistogram& histogram : block->histograms()) {
            const QVector<quint32> bins = histogram.bins(QStringLiteral("m"));
            ASSERT_EQ(bins.size(), 5);
            EXPECT_EQ(std::accumulate(bins.begin(), bins.end(), 0u), 1u);
            binOfSample.append(std::max_element(bins.begin(), bins.end()) - bins.begin());
        }
    }
    // Sample i carries the value i + 1: two samples to a bin of width 2.
    EXPECT_EQ(binOfSample, QVector<int>({ 0, 1, 1, 2, 2, 3, 3, 4, 4, 4 }));
    ASSERT_EQ(host.ofKind(FakeHost::Reply).size(), 1);
    EXPECT_EQ(host.ofKind(FakeHost::Reply).first().elementName, SendHistogramsResponse::staticElementName());
}

TEST_F(Delivery, HistogramAttributesAreChecked)
{
    play();
    const char* names[] = { "numBlocks", "blockSize", "numBins" };
    for (int missing = 0; missing < 3; ++missing) {
        Command command = profilerCommand(CMD_ZOR_SEND_HISTOGRAM);
        for (int i = 0; i < 3; ++i) {
            if (i != missing)
                command.addParameter(QString::fromLatin1(names[i]), 2);
        }
        command.addParameter(QStringLiteral("ranges"), SamplesRanges().toBase64());
        deliver(command);
        ASSERT_TRUE(failureOf(command));
        EXPECT_EQ(failureOf(command)->code(), 20022);
        EXPECT_EQ(failureOf(command)->message(),
                  QStringLiteral("CMD_SEND_HISTOGRAMS missing %1 attribute").arg(QString::fromLatin1(names[missing])));
    }
    SamplesRanges five;
    for (int i = 0; i < 5; ++i)
        five.addSample({});
    for (const QVariant& ranges : { QVariant(), QVariant(QStringLiteral("#not base64#")), QVariant(five.toBase64()) }) {
        Command command = profilerCommand(CMD_ZOR_SEND_HISTOGRAM);
        command.addParameter(QStringLiteral("numBlocks"), 2);
        command.addParameter(QStringLiteral("blockSize"), 2);
        command.addParameter(QStringLiteral("numBins"), 3);
        if (ranges.isValid())
            command.addParameter(QStringLiteral("ranges"), ranges);
        deliver(command);
        ASSERT_TRUE(failureOf(command));
        EXPECT_EQ(failureOf(command)->message(),
                  QStringLiteral("CMD_SEND_HISTOGRAMS specifies the wrong number of ranges"));
    }
    // Valid, but before any samples were sent: refused, not a crash.
    Command early = profilerCommand(CMD_ZOR_SEND_HISTOGRAM);
    early.addParameter(QStringLiteral("numBlocks"), 1);
    early.addParameter(QStringLiteral("blockSize"), 1);
    early.addParameter(QStringLiteral("numBins"), 1);
    early.addParameter(QStringLiteral("ranges"), SamplesRanges().toBase64());
    deliver(early);
    EXPECT_TRUE(failureOf(early));
}

TEST_F(Delivery, EndMetricsAndErrorsGoToSelectedRanksOnly)
{
    play();
    Command errors = profilerCommand(CMD_ZOR_SEND_METRIC_ERRORS);
    deliver(errors);
    Command end = profilerCommand(CMD_ZOR_SEND_EXTERNAL_METRICS);
    deliver(end);
    auto errorReply = std::dynamic_pointer_cast<SendMetricErrorsResponse>(host.records.at(0).response);
    ASSERT_TRUE(errorReply);
    EXPECT_EQ(errorReply->errors().value(QStringLiteral("m")).value(3).message(), QStringLiteral("no m"));
    auto endReply = std::dynamic_pointer_cast<SendMetricsCollectedAtTheEndResponse>(host.records.at(1).response);
    ASSERT_TRUE(endReply);
    ASSERT_TRUE(endReply->hasMpiCallMetrics());
    EXPECT_EQ(endReply->mpiCallMetrics().calls().size(), 1);
    EXPECT_EQ(endReply->mpiCallMetrics().rank(), 2);
    EXPECT_TRUE(endReply->hasSelfProfilePoints());

    host.clear();
    play(QStringLiteral("5"));
    deliver(errors);
    deliver(end);
    ASSERT_EQ(host.records.size(), 2);
    EXPECT_TRUE(std::dynamic_pointer_cast<SendMetricErrorsResponse>(host.records.at(0).response)->errors().isEmpty());
    auto emptyEnd = std::dynamic_pointer_cast<SendMetricsCollectedAtTheEndResponse>(host.records.at(1).response);
    EXPECT_FALSE(emptyEnd->hasMpiCallMetrics());
    EXPECT_FALSE(emptyEnd->hasSelfProfilePoints());
}

TEST(Entries, ProfilerEntryGuardsItsInitialisation)
{
    FakeHost host;
    ZORProfiler plugin;
    EXPECT_EQ(plugin.getTargetName(), QStringLiteral("profiler"));
    try {
        plugin.getMessageHandler();
        FAIL() << "no exception";
    } catch (Exception* e) {
        EXPECT_EQ(e->code(), 20001);
        EXPECT_EQ(e->message(), QStringLiteral("ZORProfiler has not yet been initialised"));
        delete e;
    }
    Command command;
    EXPECT_TRUE(plugin.init(command, host));
    TharnMessageHandler* first = plugin.getMessageHandler();
    try {
        plugin.init(command, host);
        FAIL() << "no exception";
    } catch (Exception* e) {
        EXPECT_EQ(e->code(), 20002);
        EXPECT_EQ(e->message(), QStringLiteral("ZORProfiler has already been initialised"));
        delete e;
    }
    EXPECT_EQ(plugin.getMessageHandler(), first);
}

TEST(Entries, TreeServerHandsOutAFactoryOfEveryResponse)
{
    ZORTreeserver server;
    EXPECT_EQ(server.getResponseFactoryPlugin(), nullptr);
    EXPECT_EQ(server.getTargetName(), QStringLiteral("profiler"));
    Command command;
    EXPECT_TRUE(server.init(command));
    ResponseFactoryPlugin* first = server.getResponseFactoryPlugin();
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(server.init(command));
    ASSERT_NE(server.getResponseFactoryPlugin(), nullptr);

    SendSamplesResponse sent(4, 200);
    QString error;
    std::unique_ptr<Response> rebuilt(server.getResponseFactoryPlugin()->fromXml(sent.toString().toUtf8(), &error));
    ASSERT_TRUE(rebuilt) << qPrintable(error);
    auto samples = dynamic_cast<SendSamplesResponse*>(rebuilt.get());
    ASSERT_TRUE(samples);
    EXPECT_EQ(samples->rank(), 4);
    EXPECT_EQ(samples->numSamples(), 200);
}

TEST(Entries, PluginCarriesItsQtConfResource)
{
    QFile file(QStringLiteral(":/qt/etc/qt.conf"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(),
              QByteArray("[Paths]\nDocumentation = ../doc\nHeaders = ../include\nLibraries = ../lib\n"
                         "Binaries = .\nPlugins = ../lib/plugins\nImports = ../imports\nData = ../lib\n"
                         "Translations = ../translations\nSettings = ../lib\nExamples = ../examples\n"
                         "Demos = ../examples\n\n"));
}

} // namespace
