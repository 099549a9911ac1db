// What the tree builders need to know of one decoded address, worked out
// once when the address is first decoded, so that building a tree costs a
// hash lookup per frame and no string work.
#ifndef ZOR_DECODEDFRAME_H
#define ZOR_DECODEDFRAME_H

#include <QVector>

#include "psvmodelitem.h"

// A position with its key among a node's children, worked out once.
struct KeyedPosition
{
    KeyedPosition() : key(0), immortal(false), kept(nullptr) {}
    explicit KeyedPosition(const Position& position)
        : position(position), key(PSVModelItem::positionKeyOf(position)),
          immortal(PSVModelItem::hasImmortalNames(position)), kept(nullptr)
    {
    }

    Position position;
    quint32 key;
    // Both names are kept forever (PSVModelItem::hasImmortalNames).
    bool immortal;
    // PSVModelItem::keptPosition of position, asked when the first node of
    // it is made.
    const Position* kept;
};

struct DecodedFrame
{
    DecodedFrame()
        : positionKey(0), inlineCallersAt(0), inlineCallerCount(0), immortalNames(false), hasInlineCallers(false), hasLineInfo(false), unknownPrefix(false), exactlyUnknown(false), samplerFrame(false),
          inSamplerLibrary(false), samplerWrapper(false), inMpiWrapper(false), telling(false), cuda(-1), kept(nullptr)
    {
    }

    Position position;
    quint32 positionKey;
    // The inlined callers, outermost first: inlineCallerCount of them from
    // inlineCallersAt on in the list that the analysis keeps of all of them,
    // where those of all frames lie close together.
    quint32 inlineCallersAt;
    quint16 inlineCallerCount;
    // Both names of position are kept forever (PSVModelItem::hasImmortalNames).
    bool immortalNames;
    bool hasInlineCallers;
    // A file and a line above 0.
    bool hasLineInfo;
    // The function starts with, or is, the name for unknown functions.
    bool unknownPrefix;
    bool exactlyUnknown;
    // Code of the sampler itself: by name, or by lying in its library.
    bool samplerFrame;
    // Lies in the sampler's library, which stands in front of some of the
    // runtimes' entry points (a parallel region's opening) and calls on into
    // them: such a frame in the middle of a stack is no frame of the program.
    bool inSamplerLibrary;
    // The sampler's wrapper below which the program's own frames begin.
    bool samplerWrapper;
    // Lies in the MPI or SHMEM wrapper, whose functions call on into the
    // library's of the same names.
    bool inMpiWrapper;
    // The naming rules could tell a thread's class or runtime by the name
    // of position or of one of its inlined callers: a tree without such a
    // frame needs no walk for them.
    bool telling;
    // Whether the address one byte above lies in accelerator code; -1 until
    // asked. Return addresses are decoded one byte back, so this answers
    // for the return address itself.
    signed char cuda;
    // PSVModelItem::keptPosition of position, asked when the first node of
    // it is made.
    const Position* kept;
};

#endif
