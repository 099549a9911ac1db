// The command path end to end: a recording host hands commands to the
// plug-in as the host daemon would, and a scripted source stands in for the
// sampler in a target.
#include <QTimer>
#include <gtest/gtest.h>
#include <numeric>
#include <tuple>

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

namespace {

Sample* sampleAt(long long ms)
{
    Sample* sample = new Sample;
    sample->backendOnly_setTimestamp(ms);
    return sample;
}

class CommandPath : public ::testing::Test
{
protected:
    void SetUp() override { restart(); }
    // A fresh plug-in, source script and record.
    void restart()
    {
        script = std::make_shared<SourceScript>();
        Profiler::setSampleSourceFactory(ScriptedSampleSource::factory(script));
        host.clear();
        plugin.reset(new ZORProfiler);
        Command initCommand;
        plugin->init(initCommand, host);
        handler = plugin->getMessageHandler();
        profiler = static_cast<Profiler*>(handler);
    }
    void TearDown() override { Profiler::setSampleSourceFactory(Profiler::SampleSourceFactory()); }

    static Command make(const char* name, const QVariantMap& parameters = {})
    {
        Command command(QString::fromLatin1(name), QString::fromLatin1(XML_TARGET_PROFILER));
        command.parameters = parameters;
        return command;
    }
    void deliver(Command& command) { host.deliver(*handler, command); }
    Command run(const char* name, const QVariantMap& parameters = {})
    {
        Command command = make(name, parameters);
        deliver(command);
        return command;
    }

    // The one failure answering `command`, or null.
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
    void expectFailure(const Command& command, int code, const QString& text)
    {
        auto failure = failureOf(command);
        ASSERT_TRUE(failure) << qPrintable(command.name);
        EXPECT_EQ(failure->code(), code);
        EXPECT_EQ(failure->message(), text);
        EXPECT_EQ(failure->source(), QStringLiteral("profiler"));
    }

    std::shared_ptr<ProfilerPlayResponse> playReply()
    {
        const QList<FakeHost::Record> replies = host.responses(ProfilerPlayResponse::staticElementName());
        if (replies.size() != 1 || replies.first().kind != FakeHost::Reply)
            return nullptr;
        return std::dynamic_pointer_cast<ProfilerPlayResponse>(replies.first().response);
    }

    FakeHost host;
    std::unique_ptr<ZORProfiler> plugin;
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

    QVariantMap definitions{ { QString::fromLatin1(METRIC_CHARS_READ), QVariantMap{ { "index", 0 } } } };
    Command play = run(CMD_ZOR_PLAY, { { "numSamples", 100 }, { "initialInterval", "5" },
                                       { "metricDefinitions", definitions }, { "timestamp", 77u },
                                       { "startOffset", 1000 }, { "stopOffset", "2000" },
                                       { "cudaEnabled", "true" }, { "enableLineMetrics", false } });

    // The init response goes out first, on its own, then the answer.
    ASSERT_EQ(host.records.size(), 2);
    EXPECT_EQ(host.records[0].kind, FakeHost::Sent);
    auto init = std::dynamic_pointer_cast<ProfilerSamplerInitResponse>(host.records[0].response);
    ASSERT_TRUE(init);
    EXPECT_TRUE(init->hasWrappedMpiCalls());
    auto r = playReply();
    ASSERT_TRUE(r);
    EXPECT_EQ(host.records[1].commandUid, play.getUid());
    EXPECT_EQ(std::make_tuple(r->rank(), r->interrupted(), r->sampleCount(), r->duration(), r->mpiThreadMultiple(),
                              r->notSelected(), r->hasOmpRegions(), r->cudaProfilingEnabled()),
              std::make_tuple(3, false, 3, 1234LL, true, false, true, true));
    EXPECT_EQ(r->ompRuntimes(), script->ompRuntimes);
    EXPECT_EQ(r->metrics().value(QString::fromLatin1(METRIC_NUM_DOWNSAMPLES)).to_uint64_t(), 2u);

    const SampleSourceSettings& s = script->settings;
    EXPECT_EQ(std::make_tuple(s.numSamples, s.initialInterval, s.timestamp, s.startOffset, s.stopOffset, s.cudaEnabled,
                              s.enableCudaPcSampling, script->lineMetrics),
              std::make_tuple(100, 5, 77u, 1000u, 2000u, true, false, false));
    ASSERT_NE(s.metrics.getMetricById(QString::fromLatin1(METRIC_CHARS_READ)), nullptr);

    // The source lives for the run only; the samples stay.
    EXPECT_EQ(std::make_tuple(script->created, script->destroyed, script->readCalls, profiler->samples()->size(),
                              profiler->samples()->capacity()),
              std::make_tuple(1, 1, 2, 3, 100));
    EXPECT_GE(host.flushes, 1);
    EXPECT_TRUE(profiler->currentCommand().isEmpty());
}

TEST_F(CommandPath, AttributesFallBackToTheirDefaultsAndRanksAreSelected)
{
    host.rank = 7;
    run(CMD_ZOR_PLAY, { { "numSamples", "many" }, { "timestamp", "-" }, { "metricDefinitions", "not a map" },
                        { "cudaEnabled", QVariant() }, { "enableLineMetrics", QVariantMap() }, { "selectedRanks", "0-3,5" } });
    ASSERT_TRUE(playReply());
    const SampleSourceSettings& s = script->settings;
    EXPECT_EQ(std::make_tuple(s.numSamples, s.initialInterval, s.timestamp, s.metrics.isEmpty(), s.cudaEnabled,
                              script->lineMetrics, profiler->samples()->capacity()),
              std::make_tuple(0, 20, 0u, true, false, true, 0));
    // Outside the selection: still a source and a run, flagged.
    EXPECT_TRUE(playReply()->notSelected());
    EXPECT_TRUE(script->settings.notSelected);

    // An interval of 0 that converts stays 0. The selection is merged, not
    // replaced: adding rank 7 selects this rank and keeps rank 2.
    host.clear();
    Command again = run(CMD_ZOR_PLAY, { { "initialInterval", "0" }, { "selectedRanks", "7" } });
    EXPECT_FALSE(failureOf(again));
    EXPECT_EQ(script->settings.initialInterval, 0);
    EXPECT_FALSE(playReply()->notSelected());
    EXPECT_TRUE(profiler->selectedRanks().contains(2));

    // A selection that doesn't parse selects nobody in particular: every rank.
    restart();
    host.rank = 12;
    run(CMD_ZOR_PLAY, { { "selectedRanks", "3-x" } });
    ASSERT_TRUE(playReply());
    EXPECT_FALSE(playReply()->notSelected());
}

TEST_F(CommandPath, StopDuringARunEndsItAndIsNeverAnswered)
{
    script->waitForStop = true;
    script->batches = { { sampleAt(1) } };
    Command play = make(CMD_ZOR_PLAY);
    Command stop = make(CMD_ZOR_STOP);
    // The stop arrives while play waits inside the source's yield.
    QTimer::singleShot(0, [&]() { deliver(stop); });
    deliver(play);

    ASSERT_TRUE(playReply());
    EXPECT_TRUE(playReply()->interrupted());
    EXPECT_EQ(playReply()->sampleCount(), 1);
    EXPECT_EQ(script->stops, 1);
    for (const FakeHost::Record& record : host.records)
        EXPECT_NE(record.commandUid, stop.getUid());
}

TEST_F(CommandPath, WhetherARunWasInterrupted)
{
    // A stop before any run reaches no source, gets no answer, and marks
    // the next run interrupted; without it the source decides.
    run(CMD_ZOR_STOP);
    EXPECT_TRUE(host.records.isEmpty());
    run(CMD_ZOR_PLAY);
    EXPECT_TRUE(playReply()->interrupted());
    EXPECT_EQ(script->stops, 0);

    restart();
    script->interrupted = true;
    run(CMD_ZOR_PLAY);
    EXPECT_TRUE(playReply()->interrupted());
    host.clear();
    script->interrupted = false;
    run(CMD_ZOR_PLAY);
    EXPECT_FALSE(playReply()->interrupted());
}

TEST_F(CommandPath, InitKillAndFinish)
{
    // Kill reaches only an initialised source; neither it nor finish answers.
    run(CMD_ZOR_KILL);
    EXPECT_TRUE(host.records.isEmpty());
    run(CMD_ZOR_INIT);
    ASSERT_EQ(host.records.size(), 1);
    EXPECT_EQ(host.records[0].kind, FakeHost::Reply);
    EXPECT_EQ(host.records[0].elementName, ProfilerSamplerInitResponse::staticElementName());
    host.clear();
    run(CMD_ZOR_KILL);
    EXPECT_EQ(script->terminates, 1);

    // Play after init fails: the source exists already.
    Command play = run(CMD_ZOR_PLAY);
    expectFailure(play, 20003, QStringLiteral("Profiler::init() has already been called"));
    EXPECT_EQ(script->created, 1);

    ScriptedDebugger debugger;
    host.debugger = &debugger;
    host.clear();
    run(CMD_ZOR_FINISH);
    EXPECT_EQ(host.targetMonitoringCalls, QList<bool>{ false });
    EXPECT_EQ(debugger.commands, QStringList{ QString::fromLatin1(CMD_DETACH) });
    // With the target gone there is nothing to detach from.
    debugger.state = StatusResponse::TargetGone;
    debugger.commands.clear();
    run(CMD_ZOR_FINISH);
    EXPECT_TRUE(debugger.commands.isEmpty());
    EXPECT_TRUE(host.records.isEmpty());
}

TEST_F(CommandPath, UnknownCommandIsAnsweredWithItsNameAndTheNextOneWorks)
{
    Command bogus = run("zor_bogus");
    expectFailure(bogus, 20004, QStringLiteral("Unrecognised command \"zor_bogus\" sent to ZOR"));
    run(CMD_ZOR_PLAY);
    EXPECT_TRUE(playReply());
    EXPECT_TRUE(handler->messageHandlerAcceptsTarget(QStringLiteral("profiler")));
    EXPECT_FALSE(handler->messageHandlerAcceptsTarget(QStringLiteral("debugger")));
}

TEST_F(CommandPath, ACancelledCommandSendsNoAnswerButStillItsFailure)
{
    script->waitForStop = true;
    Command play = make(CMD_ZOR_PLAY);
    Command stop = make(CMD_ZOR_STOP);
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

    script->failAfterBatch = 0;
    script->batches = { { sampleAt(5) } };
    script->readFailure = std::make_shared<Exception>(20009, QStringLiteral("No samples collected"));
    Command failing = make(CMD_ZOR_PLAY);
    QTimer::singleShot(0, [&]() {
        handler->cancelCommand(failing.getUid());
        deliver(stop);
    });
    deliver(failing);
    ASSERT_TRUE(failureOf(failing));
    EXPECT_EQ(failureOf(failing)->code(), 20019);
}

TEST_F(CommandPath, FailuresOfTheSourceLeaveTheProfilerUsable)
{
    // A failed read is wrapped, and the samples read before it are dropped.
    script->batches = { { sampleAt(1), sampleAt(2) }, { sampleAt(3) } };
    script->failAfterBatch = 1;
    script->readFailure = std::make_shared<Exception>(20009, QStringLiteral("No such file or directory"));
    Command play = run(CMD_ZOR_PLAY);
    expectFailure(play, 20019, QStringLiteral("Exception when reading sampler data"));
    ASSERT_TRUE(failureOf(play)->nested());
    EXPECT_EQ(failureOf(play)->nested()->code(), 20009);
    EXPECT_EQ(failureOf(play)->nested()->message(), QStringLiteral("No such file or directory"));
    EXPECT_EQ(script->destroyed, 1);
    EXPECT_EQ(profiler->samples()->size(), 0);

    // A source that can't start fails play as it is, and a retry may follow.
    host.clear();
    script->constructorFailure = std::make_shared<Exception>(20016, QStringLiteral("sampler refused"));
    Command refused = run(CMD_ZOR_PLAY);
    EXPECT_EQ(failureOf(refused)->code(), 20016);
    EXPECT_TRUE(host.ofKind(FakeHost::Sent).isEmpty());
    script->constructorFailure.reset();
    script->failAfterBatch = -1;
    run(CMD_ZOR_PLAY);
    EXPECT_TRUE(playReply());
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
        script->metricErrors[QStringLiteral("m")].insert(3, MetricError(QStringLiteral("m"), 3, QStringLiteral("no m"), 2));
    }

    void play(const char* selectedRanks = "")
    {
        run(CMD_ZOR_PLAY, { { "numSamples", 100 }, { "selectedRanks", selectedRanks } });
        ASSERT_TRUE(playReply());
        uncategorised = playReply()->uncategorisedInstructions();
        host.clear();
    }

    Command sendSamples(QVariantMap parameters)
    {
        parameters.insert(QStringLiteral("duration"), 100);
        return run(CMD_ZOR_SEND_SAMPLES, parameters);
    }

    QList<std::shared_ptr<SampleBlockResponse>> blocks() const
    {
        QList<std::shared_ptr<SampleBlockResponse>> result;
        for (const FakeHost::Record& record : host.responses(SampleBlockResponse::staticElementName()))
            result.append(std::dynamic_pointer_cast<SampleBlockResponse>(record.response));
        return result;
    }

    Command sendHistograms(const QVariantMap& parameters) { return run(CMD_ZOR_SEND_HISTOGRAM, parameters); }

    QMap<QString, unsigned int> uncategorised; // of the last play
};

TEST_F(Delivery, SamplesGoOutInEveryBlockAskedFor)
{
    play("0-3");
    // Play counts the mnemonics that no category knows.
    EXPECT_EQ(uncategorised, (QMap<QString, unsigned int>{ { "frobnicate", 5 } }));
    Command command = sendSamples({ { "numBlocks", 4 }, { "blockSize", 3 }, { "numSamples", 10 } });
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
    EXPECT_EQ(answer->rank(), 2);
    EXPECT_EQ(answer->numSamples(), 10);

    // The raw list is untouched: another request gives a fresh result, and
    // zero samples give empty blocks. blockSize defaults to 8.
    host.clear();
    sendSamples({ { "numBlocks", 2 }, { "numSamples", 5 } });
    ASSERT_EQ(blocks().size(), 2);
    EXPECT_EQ(blocks()[0]->samples().size(), 5);
    EXPECT_EQ(blocks()[0]->blockSize(), 8);
    host.clear();
    sendSamples({ { "numBlocks", 3 }, { "numSamples", 0 } });
    ASSERT_EQ(blocks().size(), 3);
    EXPECT_TRUE(blocks()[0]->samples().isEmpty());
    EXPECT_EQ(profiler->samples()->size(), 10);
}

TEST_F(Delivery, BlockCountIsCheckedBeforeAnythingIsSent)
{
    expectFailure(sendSamples({ { "numBlocks", 1 } }), 20005, QStringLiteral("Profiler::play() has not yet been called"));
    play();
    expectFailure(sendSamples({ { "numBlocks", 3 }, { "blockSize", 2 }, { "numSamples", 7 } }), 20007,
                  QStringLiteral("Not enough blocks: 3 blocks of 2 samples transfers 6 samples, however 7 samples "
                                 "have been requested."));
    EXPECT_TRUE(blocks().isEmpty());
    EXPECT_FALSE(failureOf(sendSamples({ { "numBlocks", 3 }, { "blockSize", 2 }, { "numSamples", 6 } })));
    for (const QVariant& numBlocks : { QVariant(), QVariant(QStringLiteral("three")) }) {
        QVariantMap parameters{ { "blockSize", 2 } };
        if (numBlocks.isValid())
            parameters.insert(QStringLiteral("numBlocks"), numBlocks);
        expectFailure(sendSamples(parameters), 20007, QStringLiteral("CMD_SEND_SAMPLES missing numBlocks attribute"));
    }
    // Without numSamples the whole list is asked for: 10 don't fit 1 block of 8.
    EXPECT_EQ(failureOf(sendSamples({ { "numBlocks", 1 } }))->code(), 20007);
}

TEST_F(Delivery, HistogramsAreBinnedOverTheFrontEndsRanges)
{
    play();
    sendSamples({ { "numBlocks", 2 }, { "blockSize", 5 }, { "numSamples", 10 } });
    host.clear();
    SamplesRanges ranges;
    for (int i = 0; i < 10; ++i)
        ranges.addSample({ { QStringLiteral("m"), SampleValueRange{ SampleValue(0.0), SampleValue(10.0) } } });
    sendHistograms({ { "numBlocks", 2 }, { "blockSize", 5 }, { "numBins", 5 }, { "ranges", ranges.toBase64() } });

    const QList<FakeHost::Record> sent = host.responses(HistogramBlockResponse::staticElementName());
    ASSERT_EQ(sent.size(), 2);
    QVector<int> binOfSample;
    for (const FakeHost::Record& record : sent) {
        auto block = std::dynamic_pointer_cast<HistogramBlockResponse>(record.response);
        ASSERT_EQ(block->histograms().size(), 5);
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
    const QString empty = SamplesRanges().toBase64();
    // Valid, but before any samples were sent: refused, not a crash.
    EXPECT_TRUE(failureOf(sendHistograms({ { "numBlocks", 1 }, { "blockSize", 1 }, { "numBins", 1 }, { "ranges", empty } })));
    const char* names[] = { "numBlocks", "blockSize", "numBins" };
    for (const char* missing : names) {
        QVariantMap parameters{ { "ranges", empty } };
        for (const char* name : names) {
            if (name != missing)
                parameters.insert(QString::fromLatin1(name), 2);
        }
        expectFailure(sendHistograms(parameters), 20022,
                      QStringLiteral("CMD_SEND_HISTOGRAMS missing %1 attribute").arg(QString::fromLatin1(missing)));
    }
    SamplesRanges five;
    for (int i = 0; i < 5; ++i)
        five.addSample({});
    for (const QVariant& ranges : { QVariant(), QVariant(QStringLiteral("#not base64#")), QVariant(five.toBase64()) }) {
        QVariantMap parameters{ { "numBlocks", 2 }, { "blockSize", 2 }, { "numBins", 3 } };
        if (ranges.isValid())
            parameters.insert(QStringLiteral("ranges"), ranges);
        expectFailure(sendHistograms(parameters), 20022,
                      QStringLiteral("CMD_SEND_HISTOGRAMS specifies the wrong number of ranges"));
    }
}

TEST_F(Delivery, EndMetricsAndErrorsGoToSelectedRanksOnly)
{
    play();
    run(CMD_ZOR_SEND_METRIC_ERRORS);
    run(CMD_ZOR_SEND_EXTERNAL_METRICS);
    auto errors = std::dynamic_pointer_cast<SendMetricErrorsResponse>(host.records.at(0).response);
    ASSERT_TRUE(errors);
    EXPECT_EQ(errors->errors().value(QStringLiteral("m")).value(3).message(), QStringLiteral("no m"));
    auto end = std::dynamic_pointer_cast<SendMetricsCollectedAtTheEndResponse>(host.records.at(1).response);
    ASSERT_TRUE(end);
    ASSERT_TRUE(end->hasMpiCallMetrics());
    EXPECT_EQ(end->mpiCallMetrics().calls().size(), 1);
    EXPECT_EQ(end->mpiCallMetrics().rank(), 2);
    EXPECT_TRUE(end->hasSelfProfilePoints());

    play("5");
    run(CMD_ZOR_SEND_METRIC_ERRORS);
    run(CMD_ZOR_SEND_EXTERNAL_METRICS);
    ASSERT_EQ(host.records.size(), 2);
    EXPECT_TRUE(std::dynamic_pointer_cast<SendMetricErrorsResponse>(host.records.at(0).response)->errors().isEmpty());
    EXPECT_FALSE(std::dynamic_pointer_cast<SendMetricsCollectedAtTheEndResponse>(host.records.at(1).response)
                     ->hasMpiCallMetrics());
}

// The tree server's entry: every run of zor profile loads it (frontend_test).
TEST(Entries, TheProfilersEntryRefusesToBeUsedOutOfOrder)
{
    FakeHost host;
    ZORProfiler plugin;
    auto codeOf = [](const std::function<void()>& call) {
        try {
            call();
        } catch (Exception* e) {
            const int code = e->code();
            delete e;
            return code;
        }
        return 0;
    };
    Command command;
    EXPECT_EQ(codeOf([&] { plugin.getMessageHandler(); }), 20001);
    EXPECT_TRUE(plugin.init(command, host));
    TharnMessageHandler* first = plugin.getMessageHandler();
    EXPECT_EQ(codeOf([&] { plugin.init(command, host); }), 20002);
    EXPECT_EQ(plugin.getMessageHandler(), first);
}

} // namespace
