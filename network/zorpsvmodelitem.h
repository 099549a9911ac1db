// The profiler's call tree node. Beyond the merged counts of PSVModelItem it
// knows what kind of frame it is (Special), four sample counters, and the
// instruction counts of its line for active cores and for the main thread.
//
// Wire form: the caller opens an element, calls writeXml, and closes it;
// readTree (or readXml on a fresh root) reads such an element back through
// its end element, e.g.
//
//   writer.writeStartElement("tree"); root->writeXml(writer); writer.writeEndElement();
//   ... reader at <tree>: ZORPSVModelItem* root = ZORPSVModelItem::readTree(reader, &error);
#ifndef ZOR_ZORPSVMODELITEM_H
#define ZOR_ZORPSVMODELITEM_H

#include "category.h"
#include "linemetrics.h"
#include "psvmodelitem.h"

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
    void writeExtraXml(QXmlStreamWriter& writer) const override;
    bool readExtraXml(QXmlStreamReader& reader, QString* error) override;

    using PSVModelItem::findChild;
    // The first child at position, as PSVModelItem::findChild matches.
    virtual ZORPSVModelItem* findChild(const Position& position);
    // A leaf that still waits for its instruction to be decoded.
    virtual bool isPlaceholder() const;
    // Whether the node counts more than one sample.
    virtual bool isMultiSamplePSVModel() const;

    void setSpecial(Special special) { mSpecial = special; }
    Special specialType() const { return mSpecial; }
    ZORPSVModelItem* parentZORModelItem() const;

    // The OpenMP runtime that the frames of this subtree show, judged by
    // the names of runtime entry points and compiler-outlined regions;
    // Unknown when none does.
    Category::OmpCompiler::Enum detectOmpRuntime() const;

    int sampleCount() const { return mSamples; }
    int selfSampleCount() const { return mSelfSamples; }
    int mpiSampleCount() const { return mMpiSamples; }
    int sleepingSampleCount() const { return mSleepingSamples; }
    void addSampleCounts(int samples, int selfSamples, int mpiSamples, int sleepingSamples);

    void mergeActiveCoreLineMetrics(const LineMetrics& metrics) { mActiveCoreLineMetrics.merge(metrics); }
    void mergeMainThreadLineMetrics(const LineMetrics& metrics) { mMainThreadLineMetrics.merge(metrics); }
    const LineMetrics& activeCoreLineMetrics() const { return mActiveCoreLineMetrics; }
    const LineMetrics& mainThreadLineMetrics() const { return mMainThreadLineMetrics; }

    // Reads the element at which reader stands into a new tree; null on
    // failure, with the reason in *error.
    static ZORPSVModelItem* readTree(QXmlStreamReader& reader, QString* error);

private:
    void mergeOwnFields(const ZORPSVModelItem& other);

    Special mSpecial;
    int mSamples;
    int mSelfSamples;
    int mMpiSamples;
    int mSleepingSamples;
    LineMetrics mActiveCoreLineMetrics;
    LineMetrics mMainThreadLineMetrics;
};

#endif
