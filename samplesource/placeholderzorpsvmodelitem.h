// Stands in a call tree for a leaf frame whose instruction isn't known yet:
// leaf addresses are disassembled in bulk after all trees are built, and the
// placeholder is then replaced by the real frame.
#ifndef ZOR_PLACEHOLDERZORPSVMODELITEM_H
#define ZOR_PLACEHOLDERZORPSVMODELITEM_H

#include "zorpsvmodelitem.h"

class PlaceholderZORPSVModelItem : public ZORPSVModelItem
{
public:
    PlaceholderZORPSVModelItem(ZORPSVModelItem* parent, unsigned long long address, bool fromAccelerator);
    ~PlaceholderZORPSVModelItem() override;

    unsigned long long address() const { return mAddress; }
    bool isFromAcceleratorSharedLibrary() const { return mFromAccelerator; }

    // A placeholder must never leave the back-end: this always throws.
    void writeExtraXml(XmlWriter& writer) const override;
    bool isPlaceholder() const override;

private:
    unsigned long long mAddress;
    bool mFromAccelerator;
};

#endif
