#include "psvmodelitem.h"
#include "xmlwriting.h"

#include <gtest/gtest.h>

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <map>
#include <memory>
#include <random>

namespace {

QString writeTree(const PSVModelItem& root)
{
    QByteArray xml;
    XmlWriter writer(&xml);
    writer.startElement(QLatin1String("tree"));
    root.writeXml(writer);
    writer.endElement();
    return QString::fromUtf8(xml);
}

// Reads the tree written by writeTree; null with *error set on failure.
std::unique_ptr<PSVModelItem> readTree(const QString& xml, QString* error)
{
    QXmlStreamReader reader(xml);
    std::unique_ptr<PSVModelItem> root(new PSVModelItem);
    if (!reader.readNextStartElement() || !root->readXml(reader, error))
        return nullptr;
    return root;
}

// One line per node, indented by depth: position, thread and CUDA counts,
// and flags. An empty CUDA map isn't written, so only its emptiness counts.
QString describe(const PSVModelItem& node, int depth = 0)
{
    const IntProcessMap& cuda = node.processToCudaThreadCountMap();
    QString text = QStringLiteral("%1%2 %3:%4 [%5] cuda [%6]%7%8%9")
                       .arg(QString(depth * 2, QLatin1Char(' ')), node.position().function, node.position().file)
                       .arg(node.position().line)
                       .arg(node.processToThreadCountMap().toString(), cuda.isEmpty() ? QString() : cuda.toString(),
                            QLatin1String(node.isCurrentGroup() ? " current" : ""), QLatin1String(node.isUnexpectedStop() ? " stop" : ""),
                            QLatin1String(node.isUnexpectedStopAncestor() ? " above-stop" : ""));
    for (const PSVModelItem* child : node.children())
        text += QLatin1Char('\n') + describe(*child, depth + 1);
    return text;
}

PSVModelItem* node(PSVModelItem* parent, const char* function, const char* file = "", int line = -1)
{
    return new PSVModelItem(parent, Position(QString::fromLatin1(function), QString::fromLatin1(file), line, -1));
}

// A rank's tree: a random call tree over six frames, one node per position
// among siblings, each node with its own thread count for this rank.
void growTree(PSVModelItem* parent, int rank, int depth, std::mt19937& rng)
{
    for (int i = 0, children = int(rng() % 4); i < children && depth < 5; ++i) {
        const int frame = int(rng() % 6);
        const Position position(QStringLiteral("f%1").arg(frame), QStringLiteral("/src/m%1.c").arg(frame % 3), 10 + frame, -1);
        if (parent->findChild(position))
            continue;
        PSVModelItem* child = new PSVModelItem(parent, position);
        child->addThreads(rank, 1 + int(rng() % 3), false, false);
        growTree(child, rank, depth + 1, rng);
    }
}

// Thread counts by path: per rank, and the node's total under -1. No
// position may stand twice among siblings, which the sums would hide.
typedef std::map<QString, std::map<int, int>> CountsByPath;
void collectCounts(const PSVModelItem& node, const QString& path, CountsByPath& counts, bool ranks = true)
{
    counts[path][-1] += node.totalThreads();
    for (const auto& entry : node.processToThreadCountMap()) {
        for (int rank = entry.first.begin; rank < entry.first.end && ranks; ++rank)
            counts[path][rank] += entry.second;
    }
    for (const PSVModelItem* child : node.children()) {
        EXPECT_EQ(node.findChild(child->position()), child) << path.toStdString();
        collectCounts(*child, path + QLatin1Char('/') + child->position().function, counts, ranks);
    }
}

// main with a current group, a CUDA kernel and a stop below it, and a wide
// node whose brief count map elides.
void buildTree(PSVModelItem& root)
{
    root.addThreads(0, 4, false, false);
    PSVModelItem* main = node(&root, "main", "/src/a&b.c", 12);
    main->addThreads(0, 4, true, false);
    main->addThreads(1, 3, false, false);
    PSVModelItem* kernel = node(main, "kernel<\"T\">");
    kernel->addCudaThreads(1, 0, 128, false, false);
    node(kernel, "deep", "d.c", 5)->addThread(1, false, true);
    PSVModelItem* wide = node(main, "wide");
    wide->setBrief(true);
    for (int rank = 0; rank < 30; rank += 2)
        wide->addThreads(rank, rank % 3 + 1, false, false);
}


} // namespace

TEST(PSVModelItem, LookupsCountsAndFlags)
{
    PSVModelItem root;
    PSVModelItem* main = node(&root, "main", "/src/app/main.c", 3);
    PSVModelItem* solve = node(main, "solve", "/src/app/solve.c", 40);
    PSVModelItem* io = node(main, "io", "/src/app/io.c", 7);
    // The same file under another spelling is the same frame; another line isn't.
    EXPECT_EQ(main->findChild(Position(QStringLiteral("solve"), QStringLiteral("app/./solve.c"), 40, -1)), solve);
    EXPECT_EQ(main->findChild(Position(QStringLiteral("solve"), QStringLiteral("/src/app/solve.c"), 41, -1)), nullptr);

    io->addThreads(0, 3, false, false);
    io->addThread(5, true, false);
    EXPECT_EQ(io->totalThreads(), 4);
    EXPECT_TRUE(io->isCurrentGroup());

    PSVModelItem* device = node(solve, "device_fn");

    // The flag marks every ancestor, and false never clears it.
    device->addThread(1, false, true);
    device->setUnexpectedStop(false);
    EXPECT_TRUE(device->isUnexpectedStop() && !solve->isUnexpectedStop());
    EXPECT_TRUE(solve->isUnexpectedStopAncestor() && root.isUnexpectedStopAncestor() && !io->isUnexpectedStopAncestor());

    io->detach();
    EXPECT_EQ(io->parent(), nullptr);
    delete io;
    delete solve; // unlinks itself
    EXPECT_EQ(main->childCount(), 0);
}

TEST(PSVModelItem, MergingRankTreesKeepsEveryCountExact)
{
    // Merged as they are, every rank's count stays; merged brief, the maps
    // elide but every node's total stays exact.
    PSVModelItem merged;
    PSVModelItem brief;
    CountsByPath expected;
    std::mt19937 rng(3);
    for (int rank = 0; rank < 64; ++rank) {
        PSVModelItem tree;
        tree.addThreads(rank, 1 + rank % 2, false, false);
        growTree(&tree, rank, 0, rng);
        collectCounts(tree, QString(), expected);
        PSVModelItem briefTree(tree);
        briefTree.setBrief(true);
        brief.mergePSVModelItem(briefTree, nullptr);
        merged.mergePSVModelItem(tree, nullptr);
    }
    CountsByPath actual;
    collectCounts(merged, QString(), actual);
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(merged.totalThreads(), 96);
    CountsByPath totals;
    collectCounts(brief, QString(), totals, false);
    ASSERT_EQ(totals.size(), expected.size());
    for (const auto& node : expected)
        EXPECT_EQ(totals[node.first][-1], node.second.at(-1)) << node.first.toStdString();
    EXPECT_EQ(brief.processToThreadCountMap().rangeCount(), BRIEF_RANGE_LIMIT);

    // Unmatched children move over, with their flags.
    PSVModelItem other;
    other.addThread(2, true, true);
    PSVModelItem* moved = node(node(&other, "elsewhere"), "c");
    merged.mergePSVModelItem(other, nullptr);
    EXPECT_EQ(other.childCount(), 0);
    EXPECT_EQ(moved->parent()->parent(), &merged);
    EXPECT_TRUE(merged.isCurrentGroup() && merged.isUnexpectedStop());
}

TEST(PSVModelItem, CopiesAreDeepAndSettingsReachEveryNode)
{
    PSVModelItem root;
    buildTree(root);
    PSVModelItem copy(root);
    EXPECT_EQ(describe(copy), describe(root));
    PSVModelItem* copiedMain = copy.firstChild();
    EXPECT_EQ(copiedMain->parent(), &copy);
    copiedMain->addThread(3, false, false);
    EXPECT_EQ(root.firstChild()->totalThreads(), 7);

    copy.setBrief(true);
    EXPECT_TRUE(copiedMain->firstChild()->firstChild()->processToThreadCountMap().isBrief());
    EXPECT_FALSE(root.firstChild()->processToThreadCountMap().isBrief());
    copy.mapRanks(QMap<int, int>{{3, 30}});
    EXPECT_EQ(copiedMain->processToThreadCountMap().value(30), 1);
}

TEST(PSVModelItem, WrittenTreeReadsBackEqual)
{
    PSVModelItem root;
    buildTree(root);
    ASSERT_TRUE(root.firstChild()->children().at(1)->processToThreadCountMap().isElided());
    const QString xml = writeTree(root);
    QString error;
    std::unique_ptr<PSVModelItem> back = readTree(xml, &error);
    ASSERT_TRUE(back) << error.toStdString();
    EXPECT_EQ(describe(*back), describe(root));
    EXPECT_EQ(writeTree(*back), xml);
    EXPECT_FALSE(xml.contains(QStringLiteral("unexpectedStopAncestor")));
}

QStringList tokens(const QByteArray& xml)
{
    QStringList found;
    QXmlStreamReader reader(xml);
    while (!reader.atEnd()) {
        reader.readNext();
        QString token = reader.tokenString() + QLatin1Char(' ') + reader.name() + QLatin1Char(' ') + reader.text();
        for (const QXmlStreamAttribute& attribute : reader.attributes())
            token += QLatin1Char(' ') + attribute.name() + QLatin1Char('=') + attribute.value();
        if (!reader.isCharacters() || !reader.text().isEmpty())
            found.append(token);
    }
    if (reader.hasError())
        found.append(reader.errorString());
    return found;
}

// The fast writer must write what QXmlStreamWriter writes, byte for byte:
// both sides of the wire and saved results read either.
TEST(XmlWriter, WritesWhatQXmlStreamWriterWrites)
{
    QString surrogatePair = QStringLiteral("a");
    surrogatePair += QChar(0xd83d);
    surrogatePair += QChar(0xde00);
    QString notCharacters = QStringLiteral("a");
    notCharacters += QChar(0xfffe);
    notCharacters += QChar(0x1);
    notCharacters += QChar(0xffff);
    notCharacters += QChar(0);
    notCharacters += QLatin1Char('b');
    const QStringList texts = {
        QString(), QStringLiteral("plain"), QStringLiteral("<a&b>\"c\"'d'"), QStringLiteral("tab\tline\nret\rend"),
        QString::fromUtf8("\xc3\xa9\xe2\x82\xac\x7f"), surrogatePair, notCharacters, QStringLiteral("]]>"),
    };
    for (const QString& text : texts) {
        QByteArray expected;
        {
            QXmlStreamWriter stream(&expected);
            stream.writeStartElement(QStringLiteral("a"));
            stream.writeAttribute(QStringLiteral("v"), text);
            stream.writeAttribute(QStringLiteral("n"), QString::number(-9223372036854775807LL - 1));
            stream.writeAttribute(QStringLiteral("u"), QString::number(18446744073709551615ULL));
            stream.writeStartElement(QStringLiteral("empty"));
            stream.writeEndElement();
            stream.writeTextElement(QStringLiteral("t"), text);
            stream.writeEndElement();
        }
        QByteArray written;
        XmlWriter writer(&written);
        writer.startElement(QLatin1String("a"));
        writer.attribute(QLatin1String("v"), text);
        writer.attribute(QLatin1String("n"), -9223372036854775807LL - 1);
        writer.attribute(QLatin1String("u"), 18446744073709551615ULL);
        writer.startElement(QLatin1String("empty"));
        writer.endElement();
        writer.textElement(QLatin1String("t"), text);
        writer.endElement();
        EXPECT_EQ(written, expected) << text.toStdString();

        // Raw elements land in a stream writer's open element, through its
        // device or, writing into a string, token by token.
        QByteArray viaDevice;
        QString viaString;
        QXmlStreamWriter intoBytes(&viaDevice);
        QXmlStreamWriter intoString(&viaString);
        for (QXmlStreamWriter* stream : {&intoBytes, &intoString}) {
            stream->writeStartElement(QStringLiteral("outer"));
            stream->writeAttribute(QStringLiteral("k"), QStringLiteral("1"));
            writeRawXml(*stream, written);
            writeRawXml(*stream, QByteArray());
            stream->writeEmptyElement(QStringLiteral("after"));
            stream->writeEndElement();
        }
        const QByteArray outer = "<outer k=\"1\">" + expected + "<after/></outer>";
        EXPECT_EQ(viaDevice, outer);
        // Token by token, an empty element may come out as a start and an
        // end tag: equal as XML, not as bytes.
        EXPECT_EQ(tokens(viaString.toUtf8()), tokens(outer)) << text.toStdString();
    }
}

TEST(PSVModelItem, ReadingPassesOverUnknownElementsAndRejectsBrokenInput)
{
    QString error;
    std::unique_ptr<PSVModelItem> root = readTree(QStringLiteral("<tree processes=\"0=1\">"
                                                                 "<extra a=\"1\"><node function=\"not-a-child\"/></extra>"
                                                                 "<node function=\"f\" line=\"3\" currentGroup=\"no\"/></tree>"),
                                                  &error);
    ASSERT_TRUE(root) << error.toStdString();
    ASSERT_EQ(root->childCount(), 1);
    EXPECT_EQ(root->firstChild()->position(), Position(QStringLiteral("f"), QString(), 3, -1));
    EXPECT_FALSE(root->firstChild()->isCurrentGroup());

    // Truncated anywhere, the reading fails with a message.
    const QString full = writeTree(*root);
    for (int cut : {full.indexOf(QStringLiteral("<node")) + 3, full.indexOf(QStringLiteral("f\"")), full.size() - 8}) {
        QString message;
        EXPECT_FALSE(readTree(full.left(cut), &message)) << cut;
        EXPECT_FALSE(message.isEmpty());
    }
}
