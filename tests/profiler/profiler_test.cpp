// The command path end to end: a recording host hands commands to the
// plug-in as the host daemon would, and a scripted source stands in for the
// sampler in a target.
#include <QFile>
#include <QTimer>
#include <gtest/gtest.h>

#include "command.h"
#include "constants.h"
#include "fakehost.h"
#include "profiler.h"
#include "profilerresponses.h"
#include "sample.h"
#include "samplelist.h"
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
