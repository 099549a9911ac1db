// The profiler's call tree node. Beyond the merged counts of PSVModelItem it
// knows what kind of frame it is (Special), four sample counters, and the
// instruction counts of its line for active cores and for the main thread.
//
// Wire form: the caller opens an element, calls writeXml, and closes it;
// readTree (or readXml on a fresh root) reads such an element back through
// its end element, e.g.
//
//   writer.startElement("tree"); root->writeXml(writer); writer.endElement();
//   ... reader at <tree>: ZORPSVModelItem* root = ZORPSVModelItem::readTree(reader, &error);
#ifndef ZOR_ZORPSVMODELITEM_H
#define ZOR_ZORPSVMODELITEM_H

#include "category.h"
#include "linemetrics.h"
#include "psvmodelitem.h"

class FastXmlReader;

class ZORPSVModelItem : public PSVModelItem
{
public:
    enum Special {
        specialNone = 0,
        specialProgramFrame = 1,
        specialMainFrame = 2,
        specialThreadEntry = 3,
        specialMpiWorker = 4,
        specialOmpWorker = 5,
        specialAcceleratorWorker = 6,
        specialRegionCaller = 7,
        specialPartialTrace = 8,
        specialMpiMonitor = 10,
        specialAcceleratorMonitor = 11,
        specialOmpMonitor = 12
    };

    // A root, with an empty position.
    ZORPSVModelItem();
    // Appends the new node to parent's children when parent isn't null.
    explicit ZORPSVModelItem(ZORPSVModelItem* parent);
    ZORPSVModelItem(ZORPSVModelItem* parent, const Position& position);
    // See the PSVModelItem constructor of the same arguments.
    ZORPSVModelItem(ZORPSVModelItem* parent, const Position* kept, quint32 positionKey, const IntProcessMap& threads)
        : PSVModelItem(parent, kept, positionKey, threads)
    {
    }
    // A node without parent that starts from the given sample counters.
    ZORPSVModelItem(const Position& position, int samples, int selfSamples, int mpiSamples, int sleepingSamples);
    ZORPSVModelItem(const ZORPSVModelItem& other);
    ~ZORPSVModelItem() override;

    SaxHandler* getNestedStruct(const QString& name) override;
    void readAttributes(const QString& name, const SaxAttributes& attributes) override;
    void readListItem(const QString& list, const QString& value) override;
    // Reads like PSVModelItem::readXml, and fails on a malformed "special"
    // or "samples" attribute.
    bool readXml(QXmlStreamReader& reader, QString* error) override;
    void readXmlStreamAttributes(const QXmlStreamAttributes& attributes) override;
    void extraMergePSVModelItem(const PSVModelItem& other, void* context) override;
    ZORPSVModelItem* clone() const override;
    bool isSimplePSVModel() const override;
    void addPSVModelItem(PSVModelItem* item, void* context) override;
    PSVModelItem* createChild(const Position& position) override;
    PSVModelItem* constructChild() override;
    void writeExtraXml(XmlWriter& writer) const override;
    bool extraWritesAlike(const PSVModelItem& other) const override;
    bool readExtraXml(QXmlStreamReader& reader, QString* error) override;

    using PSVModelItem::findChild;
    // The first child at position, as PSVModelItem::findChild matches.
    virtual ZORPSVModelItem* findChild(const Position& position);
    // A leaf that still waits for its instruction to be decoded.
    virtual bool isPlaceholder() const;
    // Whether the node counts more than one sample.
    virtual bool isMultiSamplePSVModel() const;

    // Kept in the node's derived bits, so that a node stays small.
    void setSpecial(Special special) { mDerivedBits = quint32(special); }
    Special specialType() const { return Special(mDerivedBits); }
    ZORPSVModelItem* parentZORModelItem() const;

    // The OpenMP runtime that the frames of this subtree show, judged by
    // the names of runtime entry points and compiler-outlined regions;
    // Unknown when none does.
    Category::OmpCompiler::Enum detectOmpRuntime() const;

    int sampleCount() const { return countsIfAny() ? countsIfAny()->samples : 0; }
    int selfSampleCount() const { return countsIfAny() ? countsIfAny()->selfSamples : 0; }
    int mpiSampleCount() const { return countsIfAny() ? countsIfAny()->mpiSamples : 0; }
    int sleepingSampleCount() const { return countsIfAny() ? countsIfAny()->sleepingSamples : 0; }
    void addSampleCounts(int samples, int selfSamples, int mpiSamples, int sleepingSamples);

    void mergeActiveCoreLineMetrics(const LineMetrics& metrics);
    void mergeMainThreadLineMetrics(const LineMetrics& metrics);
    const LineMetrics& activeCoreLineMetrics() const;
    const LineMetrics& mainThreadLineMetrics() const;

    // Reads the element at which reader stands into a new tree; null on
    // failure, with the reason in *error.
    static ZORPSVModelItem* readTree(QXmlStreamReader& reader, QString* error);
    // The same with our own reader, which stops at anything it doesn't
    // know; null then, with the reader's error set.
    static ZORPSVModelItem* readTree(FastXmlReader& reader);

private:
    // What most nodes of a fresh tree leave at zero and empty, kept apart,
    // in the node's block of rare fields, so that such nodes stay small.
    struct Counts
    {
        int samples = 0;
        int selfSamples = 0;
        int mpiSamples = 0;
        int sleepingSamples = 0;
        LineMetrics activeCore;
        LineMetrics mainThread;
    };

    void mergeOwnFields(const ZORPSVModelItem& other);
    bool readNode(FastXmlReader& reader);
    Counts& counts();
    // Null while every count is zero and both line metrics are empty.
    Counts* countsIfAny() const { return static_cast<Counts*>(derivedData()); }
};

#endif
