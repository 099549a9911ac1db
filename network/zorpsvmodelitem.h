// The profiler's call tree node. This minimal form carries no positions or
// counts yet: samples own their per-thread trees through it, so that the
// command path can be built and tested before the tree model lands, which
// replaces this file wholesale.
#ifndef ZOR_ZORPSVMODELITEM_H
#define ZOR_ZORPSVMODELITEM_H

class ZORPSVModelItem
{
public:
    ZORPSVModelItem() = default;
    virtual ~ZORPSVModelItem() = default;
    virtual ZORPSVModelItem* clone() const { return new ZORPSVModelItem(*this); }
};

#endif
