// What the tree builders need to know of one decoded address, worked out
// once when the address is first decoded, so that building a tree costs a
// hash lookup per frame and no string work.
#ifndef ZOR_DECODEDFRAME_H
#define ZOR_DECODEDFRAME_H

#include <QVector>

#include <memory>
#include <stdexcept>

#include "psvmodelitem.h"

// A position, one that PSVModelItem::keptPosition handed out, with its key
// among a node's children, both worked out once.
struct KeyedPosition
{
    KeyedPosition() : position(nullptr), key(0) {}
    explicit KeyedPosition(const Position& position)
        : position(nullptr), key(PSVModelItem::positionKeyOf(position))
    {
        this->position = PSVModelItem::keptPosition(position, key);
    }

    const Position* position;
    quint32 key;
};

// The inlined callers of all decoded frames, each frame's side by side, by
// index. What was added never moves: tree builders read it while the
// decoder adds the callers of more frames.
class InlineCallerList
{
public:
    // Where callers now lie, or 0 for none.
    quint32 add(const QVector<KeyedPosition>& callers)
    {
        const quint32 count = quint32(callers.size());
        if (count == 0)
            return 0;
        quint32 offset = mSize & BlockMask;
        quint32 block = mSize >> BlockBits;
        if (mSize == 0 || offset == 0 || offset + count > BlockSize) {
            // A frame's callers don't straddle blocks: a new block, as
            // large as they need.
            if (mSize != 0 && offset != 0)
                ++block;
            if (block >= MaxBlocks)
                throw std::length_error("too many inlined callers");
            mBlocks[block].reset(new KeyedPosition[count > BlockSize ? count : BlockSize]);
            offset = 0;
        }
        KeyedPosition* at = mBlocks[block].get() + offset;
        for (const KeyedPosition& caller : callers)
            *at++ = caller;
        const quint32 index = (block << BlockBits) + offset;
        mSize = count >= BlockSize ? (block + 1) << BlockBits : index + count;
        return index;
    }
    KeyedPosition* at(quint32 index) const { return mBlocks[index >> BlockBits].get() + (index & BlockMask); }

private:
    static const quint32 BlockBits = 12;
    static const quint32 BlockSize = 1u << BlockBits;
    static const quint32 BlockMask = BlockSize - 1;
    static const quint32 MaxBlocks = 4096;
    // A fixed table of blocks, so that nothing a reader reads ever moves.
    std::unique_ptr<std::unique_ptr<KeyedPosition[]>[]> mBlocks{new std::unique_ptr<KeyedPosition[]>[MaxBlocks]};
    quint32 mSize = 0;
};

// Half a cache line with its key in the table of decoded frames, which the
// tree builders probe for every frame of every trace.
struct DecodedFrame
{
    DecodedFrame()
        : position(nullptr), positionKey(0), inlineCallersAt(0), inlineCallerCount(0), hasInlineCallers(false),
          hasLineInfo(false), unknownPrefix(false), exactlyUnknown(false), samplerFrame(false),
          inSamplerLibrary(false), samplerWrapper(false), inMpiWrapper(false), telling(false), cuda(-1)
    {
    }

    // The process's one copy (PSVModelItem::keptPosition), which the nodes
    // of the frame point at.
    const Position* position;
    quint32 positionKey;
    // The inlined callers, outermost first: inlineCallerCount of them from
    // inlineCallersAt on in the InlineCallerList of the analysis, where
    // those of all frames lie close together.
    quint32 inlineCallersAt;
    quint16 inlineCallerCount;
    bool hasInlineCallers : 1;
    // A file and a line above 0.
    bool hasLineInfo : 1;
    // The function starts with, or is, the name for unknown functions.
    bool unknownPrefix : 1;
    bool exactlyUnknown : 1;
    // Code of the sampler itself: by name, or by lying in its library.
    bool samplerFrame : 1;
    // Lies in the sampler's library, which stands in front of some of the
    // runtimes' entry points (a parallel region's opening) and calls on into
    // them: such a frame in the middle of a stack is no frame of the program.
    bool inSamplerLibrary : 1;
    // The sampler's wrapper below which the program's own frames begin.
    bool samplerWrapper : 1;
    // Lies in the MPI or SHMEM wrapper, whose functions call on into the
    // library's of the same names.
    bool inMpiWrapper : 1;
    // The naming rules could tell a thread's class or runtime by the name
    // of position or of one of its inlined callers: a tree without such a
    // frame needs no walk for them.
    bool telling : 1;
    // Whether the address one byte above lies in accelerator code; -1 until
    // asked. Return addresses are decoded one byte back, so this answers
    // for the return address itself. Builders write it beside each other:
    // a byte of its own, apart from the bits above.
    signed char cuda;
};

static_assert(sizeof(DecodedFrame) <= 24, "a decoded frame and its key fill half a cache line");

#endif
