// Every response of the profiler travels as XML and is rebuilt by the
// factory; malformed messages are refused with a reason, never a crash.
#include <QXmlStreamReader>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>

#include "constants.h"
#include "gpuprofilepsvmodelitem.h"
#include "message.h"
#include "profilerresponses.h"
#include "sample.h"
#include "zorpsvmodelitem.h"
#include "zorresponsefactoryplugin.h"

namespace {

// main -> solve (solver.c:42) -> dot (blas.c:7), with counts of rank 2.
ZORPSVModelItem* tree()
{
    ZORPSVModelItem* root = new ZORPSVModelItem;
    ZORPSVModelItem* main = new ZORPSVModelItem(root, Position(QStringLiteral("main"), QStringLiteral("main.c"), 3, -1));
    ZORPSVModelItem* solve =
        new ZORPSVModelItem(main, Position(QStringLiteral("solve"), QStringLiteral("solver.c"), 42, -1));
    ZORPSVModelItem* dot = new ZORPSVModelItem(solve, Position(QStringLiteral("dot"), QStringLiteral("blas.c"), 7, -1));
    main->setSpecial(ZORPSVModelItem::specialMainFrame);
    for (PSVModelItem* node : { static_cast<PSVModelItem*>(root), static_cast<PSVModelItem*>(main),
                                static_cast<PSVModelItem*>(solve), static_cast<PSVModelItem*>(dot) })
        node->addThread(2, false, false);
    dot->addSampleCounts(1, 1, 0, 0);
    return root;
}

Sample* richSample(long long stamp)
{
    // Every field differs from its default, the repeat flag included.
    Sample* sample = new Sample(Sample(MetricDefinitions(), 2), true);
    sample->backendOnly_setTimestamp(stamp);
    sample->setMetric(QString::fromLatin1(METRIC_CHARS_READ), SampleValue(4096UL));
    sample->setMetric(QString::fromLatin1(METRIC_MPI_TIME_IN_CALL), SampleValue(-3L));
    sample->setMetric(QString::fromLatin1(METRIC_CPU_TIME_PERCENT), SampleValue(99.5));
    ThreadContext context;
    context.rank = 2;
    context.pid = 4321;
    sample->backendOnly_addThread(tree(), 100, context, InstructionQuery(QStringLiteral("addsd"), false),
                                  Sample::MainThread, 5000000ULL, false);
    sample->backendOnly_addAllocatedCpuTime(100, 1250000ULL);
    sample->backendOnly_addThread(nullptr, 101, ThreadContext(), InstructionQuery(QStringLiteral("rep movsb"), true),
                                  Sample::ParallelRegionThread, 0ULL, true);
    sample->backendOnly_setThreadMetric(100, QString::fromLatin1(METRIC_INSTR_FP), 40);
    sample->backendOnly_setLiveThreads({ 100, 101, 102 });
    sample->addLibunwindErrorCode(-3);
    sample->setIgnore(true);
    QMap<QString, SampleValueRange> ranges;
    ranges.insert(QString::fromLatin1(METRIC_INSTR_FP), SampleValueRange{ SampleValue(0UL), SampleValue(100UL) });
    sample->backendOnly_calculateHistograms(4, ranges);
    // A kernel whose shares include a NaN, as one with no samples leaves.
    GpuProfilePSVModelItem* gpu = new GpuProfilePSVModelItem;
    GpuProfilePSVModelItem* kernel =
        gpu->addProgramNode(Position(QStringLiteral("app")))->addKernelHit(Position(QStringLiteral("saxpy")));
    StallReasonCounts counts;
    counts.inc(GpuProfilerStallReason::MemoryDependency, 0.25);
    counts.inc(GpuProfilerStallReason::None, std::nan(""));
    kernel->addLineHit(Position(QStringLiteral("saxpy"), QStringLiteral("k.cu"), 12, -1), counts);
    kernel->addDroppedSampleStalls(0.125);
    kernel->addUnknownStalls(1.0 / 3);
    sample->setGpuPsvModel(gpu);
    return sample;
}

// One populated response of each kind the factory knows.
std::vector<std::unique_ptr<Response>> everyResponse()
{
    std::vector<std::unique_ptr<Response>> all;
    all.emplace_back(new ProfilerSamplerInitResponse(true));

    QMap<QString, unsigned int> uncategorised;
    uncategorised.insert(QStringLiteral("vfmadd231pd"), 3);
    auto play = new ProfilerPlayResponse(5, true, 1000, 123456789012LL, uncategorised, true, false, true,
                                         { Category::OmpCompiler::Gnu, Category::OmpCompiler::Llvm });
    play->setStopReason(2);
    play->setCudaUsedByTarget(true);
    play->addOmpNumThreadsString(QStringLiteral("8,4"));
    play->setSingleValueCustomMetric(5, QStringLiteral("custom"), SampleValue(1.25));
    play->setMetric(QString::fromLatin1(METRIC_NUM_DOWNSAMPLES), SampleValue(7UL));
    play->setMetric(QStringLiteral("nan"), SampleValue(std::nan("")));
    play->setMetric(QStringLiteral("tiny"), SampleValue(5e-324));
    play->setThreadName(77, QStringLiteral("GC Thread#0 \"&<"));
    all.emplace_back(play);

    all.emplace_back(new ProfilerProgressResponse(ProfilerProgressResponse::AnalysisProgress, 4, 37));

    auto block = new SampleBlockResponse(8, 3);
    block->setCollectingHistogramsFlag(true);
    block->addProfiledRanks(CompactSet<int>(QStringLiteral("0-3,9")));
    block->addSample(richSample(10));
    block->addSample(new Sample);
    all.emplace_back(block);

    all.emplace_back(new SendSamplesResponse(5, 1000));

    auto histograms = new HistogramBlockResponse(2, 1, 3);
    SampleHistogram histogram(3);
    histogram.setBins(QString::fromLatin1(METRIC_INSTR_FP), { 1, 0, 7 });
    histograms->addHistogram(histogram);
    histograms->addHistogram(SampleHistogram(3));
    all.emplace_back(histograms);

    all.emplace_back(new SendHistogramsResponse);

    MetricErrorMap errors;
    errors[QString::fromLatin1(METRIC_INSTR_FP)].insert(
        1, MetricError(QString::fromLatin1(METRIC_INSTR_FP), 1, QStringLiteral("CPU metrics unavailable\n<here>"), 1));
    errors[QStringLiteral("other")].insert(-4, MetricError(QStringLiteral("other"), -4, QString(), 0));
    all.emplace_back(new SendMetricErrorsResponse(errors));

    auto end = new SendMetricsCollectedAtTheEndResponse;
    MpiCallMetrics calls(5);
    calls.addCall(MpiCallMetric(5, QStringLiteral("MPI_Allreduce"), SampleValue(10), SampleValue(2.5), SampleValue(),
                                SampleValue(1UL)));
    end->setMpiCallMetrics(calls);
    SelfProfilePoints points(5);
    points.addPoint(SelfProfilePoint(5, QStringLiteral("20.read"), SampleValue(12), SampleValue(1L), SampleValue(-2L),
                                     SampleValue(3L), SampleValue(4L), SampleValue(5L), SampleValue(6L),
                                     SampleValue(7L), SampleValue(8L), SampleValue(1000)));
    end->setSelfProfilePoints(points);
    all.emplace_back(end);
    return all;
}

Response* rebuild(const QString& text, QString* error)
{
    return ZORResponseFactoryPlugin().fromXml(text.toUtf8(), error);
}

TEST(Responses, EveryResponseTheFactoryKnowsComesBackEqual)
{
    ZORResponseFactoryPlugin factory;
    QStringList covered;
    for (const auto& original : everyResponse()) {
        const QString text = original->toString();
        QString error;
        std::unique_ptr<Response> copy(rebuild(text, &error));
        ASSERT_TRUE(copy) << qPrintable(original->elementName()) << ": " << qPrintable(error);
        EXPECT_EQ(copy->elementName(), original->elementName());
        // Written again, the copy gives the same text: nothing was lost or changed.
        EXPECT_EQ(copy->toString(), text);
        covered.append(original->elementName());
    }
    covered.sort();
    QStringList known = factory.elementNames();
    known.sort();
    EXPECT_EQ(covered, known) << "a response without a round trip here";
    EXPECT_EQ(factory.createResponse(QStringLiteral("NoSuchResponse")), nullptr);
}

// A sample is equal in everything that travels, the trees and the GPU tree
// included; two fields looked at through their own accessors, in case
// equality itself misses them.
TEST(Responses, ASampleSurvivesTheRoundTrip)
{
    SampleBlockResponse block(8, 3);
    Sample* original = richSample(42);
    block.addSample(original);
    QString error;
    std::unique_ptr<Response> copy(rebuild(block.toString(), &error));
    auto read = dynamic_cast<SampleBlockResponse*>(copy.get());
    ASSERT_TRUE(read && read->samples().size() == 1) << qPrintable(error);
    const Sample& sample = *read->samples().first();
    EXPECT_TRUE(sample == *original);
    EXPECT_EQ(sample.backendOnly_getAllocatedCpuTime(100), 1250000ULL);
    EXPECT_EQ(sample.backendOnly_instruction(101), InstructionQuery(QStringLiteral("rep movsb"), true));
    // A flag that a round trip of text alone would miss, were it never written.
    std::unique_ptr<Response> play(rebuild(ProfilerPlayResponse(1, false, 2, 3, {}, false, true, false, {}).toString(), &error));
    ASSERT_TRUE(dynamic_cast<ProfilerPlayResponse*>(play.get())) << qPrintable(error);
    EXPECT_TRUE(static_cast<ProfilerPlayResponse*>(play.get())->notSelected());
}

// A block with what our own reader takes, names that need escaping among it.
SampleBlockResponse* plainBlock()
{
    auto block = new SampleBlockResponse(4, 2);
    block->setCollectingHistogramsFlag(true);
    block->addProfiledRanks(CompactSet<int>(QStringLiteral("0-3,9")));
    for (int i = 0; i < 4; ++i) {
        if (i == 2) {
            // A repeat of the sample before, with its trees.
            Sample* repeat = new Sample(*block->samples().last(), true);
            repeat->backendOnly_setTimestamp(-i);
            repeat->setIgnore(false);
            block->addSample(repeat);
            continue;
        }
        Sample* sample = new Sample(Sample(MetricDefinitions(), 3), i > 0);
        sample->backendOnly_setTimestamp(-i);
        sample->setMetric(QString::fromLatin1(METRIC_CPU_TIME_PERCENT), SampleValue(12.5 * i));
        ZORPSVModelItem* root = tree();
        ZORPSVModelItem* odd = new ZORPSVModelItem(
            root, Position(QStringLiteral("operator<< <\"é\" & '中'>\tx"), QStringLiteral("/s p/ü.cc"), i == 3 ? 10 : 9, -1));
        odd->addThreads(0, 2, true, true);
        odd->addThreads(5, 1, false, false);
        odd->addThreads(6, 1, false, false);
        odd->addSampleCounts(3, -1, 0, 2);
        odd->setSpecial(ZORPSVModelItem::specialOmpMonitor);
        LineMetrics metrics;
        metrics.set(QStringLiteral("fp=x"), 0.25);
        odd->mergeActiveCoreLineMetrics(metrics);
        odd->mergeMainThreadLineMetrics(metrics);
        ThreadContext context;
        context.rank = 3;
        context.pid = -2;
        sample->backendOnly_addThread(root, 7, context, InstructionQuery(QStringLiteral("rep movsb"), true),
                                      Sample::ParallelRegionThread, 18446744073709551615ULL, true);
        sample->backendOnly_addAllocatedCpuTime(7, 3);
        sample->backendOnly_addThread(nullptr, 2, ThreadContext(), InstructionQuery(), Sample::MainThread, 0, false);
        sample->backendOnly_setThreadMetric(7, QString::fromLatin1(METRIC_INSTR_FP), 40);
        sample->backendOnly_setLiveThreads({ 7, 2, -4 });
        sample->addLibunwindErrorCode(-3);
        sample->addLibunwindErrorCode(10);
        sample->setIgnore(i == 1);
        block->addSample(sample);
    }
    block->addSample(new Sample);
    return block;
}

TEST(Responses, OurReaderReadsBlocksOfSamplesAsQtsDoesAndLeavesItTheRest)
{
    ZORResponseFactoryPlugin factory;
    std::unique_ptr<SampleBlockResponse> plain(plainBlock());
    const QByteArray xml = Message::forResponse(*plain).toXml();
    Message message;
    QString error;
    ASSERT_TRUE(Message::readSampleBlock(xml, &factory, &message, &error)) << qPrintable(error);
    std::unique_ptr<Response> qts(rebuild(plain->toString(), &error));
    ASSERT_TRUE(qts) << qPrintable(error);
    EXPECT_EQ(message.response->toString(), qts->toString());
    EXPECT_EQ(message.response->toString(), plain->toString());
    // Equal trees travel once and are shared again on arrival: the repeat's
    // and that of the sample before it, alike but not a copy. The last one
    // differs in a line.
    EXPECT_EQ(xml.count("<tree"), 4);
    EXPECT_EQ(xml.count("<tree ref=\"0\"/>"), 2);
    for (const Response* response : { message.response.get(), qts.get() }) {
        const QList<Sample*>& read = static_cast<const SampleBlockResponse*>(response)->samples();
        ASSERT_EQ(read.size(), 5);
        EXPECT_EQ(read[0]->psvModel(7), read[1]->psvModel(7));
        EXPECT_EQ(read[1]->psvModel(7), read[2]->psvModel(7));
        EXPECT_NE(read[2]->psvModel(7), read[3]->psvModel(7));
        for (int i = 0; i < read.size(); ++i)
            EXPECT_TRUE(*read[i] == *plain->samples()[i]) << i;
    }

    // Histograms and device trees are for Qt's reader, and still arrive.
    SampleBlockResponse rich(1, 0);
    rich.addSample(richSample(1));
    const QByteArray richXml = Message::forResponse(rich).toXml();
    EXPECT_FALSE(Message::readSampleBlock(richXml, &factory, &message, &error));
    ASSERT_TRUE(Message::fromXml(richXml, &factory, &message, &error)) << qPrintable(error);
    EXPECT_EQ(message.response->toString(), rich.toString());

    // Cut anywhere before its last '>', a block is refused by both.
    for (int length = 0; length <= xml.lastIndexOf('>'); ++length) {
        EXPECT_FALSE(Message::readSampleBlock(xml.left(length), &factory, &message, &error)) << length;
        EXPECT_FALSE(Message::fromXml(xml.left(length), &factory, &message, &error)) << length;
    }

    // What our reader refuses: what a message may hold that it doesn't
    // know, which Qt's reads (true; Qt's stops at the root's end), and
    // malformed XML, which Qt's refuses as well (false).
    const QByteArray good = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><message kind=\"response\">"
                            "<SampleBlockResponse blockSize=\"1\" blockNumber=\"0\"><sample rank=\"0\" t=\"5\">"
                            "<thread tid=\"1\" type=\"0\" cpu=\"2\"><tree processes=\"0=1\"><node function=\"f\" "
                            "file=\"a.c\" line=\"3\" processes=\"0=1\"/></tree></thread></sample>"
                            "</SampleBlockResponse></message>";
    ASSERT_TRUE(Message::readSampleBlock(good, &factory, &message, &error)) << qPrintable(error);
    // A sample naming the tree of the one before, as files of version 2 do.
    QByteArray older = good;
    older.replace("</sample>", "</sample><sample rank=\"0\"><thread tid=\"1\" type=\"0\" cpu=\"2\" sameTree=\"yes\"/></sample>");
    ASSERT_TRUE(Message::readSampleBlock(older, &factory, &message, &error)) << qPrintable(error);
    const QList<Sample*>& two = static_cast<const SampleBlockResponse*>(message.response.get())->samples();
    ASSERT_EQ(two.size(), 2);
    EXPECT_TRUE(two[1]->psvModel(1) && two[1]->psvModel(1) == two[0]->psvModel(1));
    const struct
    {
        const char* from;
        const char* to;
        bool xml;
    } cases[] = {
        { "<sample ", "<!-- a comment --><sample ", true },
        { "<sample ", "<?pi data?><sample ", true },
        { "<sample ", "text<![CDATA[<x>]]><sample ", true },
        { "line=\"3\"", "line='3'", true },
        { "line=\"3\"", "line=\"+3\"", true },
        { "function=\"f\"", "function=\"f\ng\"", true },
        { "encoding=\"UTF-8\"", "encoding=\"utf-8\"", true },
        { "<?xml version=\"1.0\" encoding=\"UTF-8\"?>", "<!DOCTYPE message>", true },
        { "</thread>", "</threads>", false },
        { "</message>", "</message><message/>", true },
        { "function=\"f\"", "function=\"a<b\"", false },
        { "function=\"f\"", "function=\"&nope;\"", false },
        { "function=\"f\"", "function=\"&#0;\"", false },
        { "function=\"f\"", "function=\"&#xD800;\"", false },
        { "function=\"f\"", "function=\"\x01\"", false },
        { "function=\"f\"", "function=\"\xff\"", false },
        { "function=\"f\"", "function=\"\xc0\xaf\"", false },
        { "rank=\"0\"", "rank=\"0\" rank=\"1\"", false },
        { "blockSize=\"1\" ", "blockSize=\"1\"", false },
        { "rank=\"0\"", "rank=\"99999999999\"", false },
        { "t=\"5\"", "t=\"soon\"", false },
        { "<sample ", "<x:sample ", false },
        { "</tree>", "", false },
        // The tree of a sample before it, where there is none, and trees
        // that came nowhere before.
        { "cpu=\"2\">", "cpu=\"2\" sameTree=\"yes\">", false },
        { "<tree processes", "<tree ref=\"0\"/><tree processes", false },
        { "<tree processes", "<tree ref=\"-1\"/><tree processes", false },
        { "<tree processes", "<tree ref=\"zero\"/><tree processes", false },
    };
    for (const auto& c : cases) {
        QByteArray text = good;
        text.replace(c.from, c.to);
        error.clear();
        EXPECT_FALSE(Message::readSampleBlock(text, &factory, &message, &error)) << c.to;
        EXPECT_FALSE(error.isEmpty()) << c.to;
        error.clear();
        EXPECT_EQ(Message::fromXml(text, &factory, &message, &error), c.xml) << c.to << ": " << qPrintable(error);
        EXPECT_EQ(error.isEmpty(), c.xml) << c.to;
    }
}

TEST(Responses, MalformedMessagesAreRefusedWithAReason)
{
    const char* const bad[] = {
        "",
        "not xml at all",
        "<NoSuchResponse/>",
        "<SendSamplesResponse rank=\"1\"/>",
        "<SendSamplesResponse rank=\"x\" numSamples=\"1\"/>",
        "<SendSamplesResponse rank=\"1\" numSamples=\"1\"/><SendSamplesResponse rank=\"1\" numSamples=\"1\"/>",
        "<SendSamplesResponse rank=\"1\" numSamples=\"1\"/>trailing",
        "<ProfilerProgressResponse status=\"9\" progress=\"1\" memory=\"1\"/>",
        "<ProfilerProgressResponse status=\"3\" progress=\"1\" memory=\"70000\"/>",
        "<SampleBlockResponse blockSize=\"1\" blockNumber=\"0\"><sample rank=\"0\" t=\"soon\"/></SampleBlockResponse>",
        "<SampleBlockResponse blockSize=\"1\" blockNumber=\"0\"><sample rank=\"0\"><thread tid=\"1\" type=\"7\" "
        "cpu=\"0\"/></sample></SampleBlockResponse>",
        "<SampleBlockResponse blockSize=\"1\" blockNumber=\"0\" profiledRanks=\"a-b\"/>",
        "<HistogramBlockResponse blockSize=\"1\" blockNumber=\"0\" numBins=\"2\"><histogram bins=\"2\">"
        "<metric id=\"m\">1,2,3</metric></histogram></HistogramBlockResponse>",
        "<ProfilerPlayResponse rank=\"0\" samples=\"0\" duration=\"0\" stopReason=\"0\"><metric id=\"m\" v=\"q:1\"/>"
        "</ProfilerPlayResponse>",
        "<SendMetricsCollectedAtTheEndResponse><selfProfilePoints rank=\"0\"><point name=\"p\"><v>i:1</v></point>"
        "</selfProfilePoints></SendMetricsCollectedAtTheEndResponse>",
    };
    for (const char* text : bad) {
        QString error;
        std::unique_ptr<Response> response(rebuild(QString::fromUtf8(text), &error));
        EXPECT_FALSE(response) << text;
        EXPECT_FALSE(error.isEmpty()) << text;
    }
}

TEST(Responses, AMessageCutAnywhereIsRefused)
{
    for (const auto& original : everyResponse()) {
        const QString text = original->toString().trimmed();
        for (int length = 0; length < text.size(); ++length) {
            QString error;
            std::unique_ptr<Response> response(rebuild(text.left(length), &error));
            EXPECT_FALSE(response) << qPrintable(text.left(length));
            EXPECT_FALSE(error.isEmpty());
        }
    }
}

} // namespace
