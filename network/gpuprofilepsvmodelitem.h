// The GPU side of one sample: under a root, the program; under it the
// kernels that ran; under each kernel its source lines with a share of time
// per stall reason. A kernel also keeps the share that the GPU's sampling
// dropped and the share that no line accounts for.
//
// Wire form: the caller opens an element and calls writeXml; readTree takes
// the reader at that element and reads through its end.
#ifndef ZOR_GPUPROFILEPSVMODELITEM_H
#define ZOR_GPUPROFILEPSVMODELITEM_H

#include "position.h"
#include "stallreasoncounts.h"

#include <QList>

class QXmlStreamReader;
class QXmlStreamWriter;

class GpuProfilePSVModelItem
{
public:
    enum Kind { Root = 0, Program = 1, Kernel = 2, Line = 3 };

    // The root.
    GpuProfilePSVModelItem();
    GpuProfilePSVModelItem(const GpuProfilePSVModelItem& other);
    GpuProfilePSVModelItem& operator=(const GpuProfilePSVModelItem&) = delete;
    ~GpuProfilePSVModelItem();

    // Each of these gives the child at that position, made if there is
    // none, and adds to what is there: repeated kernels and lines
    // accumulate. On the root, on a program's node and on a kernel's node.
    GpuProfilePSVModelItem* addProgramNode(const Position& position);
    GpuProfilePSVModelItem* addKernelHit(const Position& position);
    GpuProfilePSVModelItem* addLineHit(const Position& position, const StallReasonCounts& counts);
    void addDroppedSampleStalls(double value) { mDroppedStalls += value; }
    void addUnknownStalls(double value) { mUnknownStalls += value; }

    Kind kind() const { return mKind; }
    const Position& position() const { return mPosition; }
    GpuProfilePSVModelItem* parent() const { return mParent; }
    const QList<GpuProfilePSVModelItem*>& children() const { return mChildren; }
    // A line's stall shares; zero elsewhere.
    const StallReasonCounts& stalls() const { return mStalls; }
    double droppedStalls() const { return mDroppedStalls; }
    double unknownStalls() const { return mUnknownStalls; }
    // Every share below and at this node: lines, dropped and unknown.
    double totalStalls() const;

    // Adds other's nodes and shares to this tree, node by node.
    void merge(const GpuProfilePSVModelItem& other);

    void writeXml(QXmlStreamWriter& writer) const;
    // Null on failure, with the reason in *error.
    static GpuProfilePSVModelItem* readTree(QXmlStreamReader& reader, QString* error);

    bool operator==(const GpuProfilePSVModelItem& other) const;
    bool operator!=(const GpuProfilePSVModelItem& other) const { return !(*this == other); }

private:
    GpuProfilePSVModelItem(GpuProfilePSVModelItem* parent, Kind kind, const Position& position);
    GpuProfilePSVModelItem* child(Kind kind, const Position& position);
    bool readContent(QXmlStreamReader& reader, QString* error);

    Kind mKind;
    Position mPosition;
    GpuProfilePSVModelItem* mParent;
    QList<GpuProfilePSVModelItem*> mChildren;
    StallReasonCounts mStalls;
    double mDroppedStalls;
    double mUnknownStalls;
};

#endif
