#include "placeholderzorpsvmodelitem.h"

#include "exception.h"

namespace {

const QString& placeholderName()
{
    static const QString name = QStringLiteral("[placeholder]");
    return name;
}

} // namespace

PlaceholderZORPSVModelItem::PlaceholderZORPSVModelItem(ZORPSVModelItem* parent, unsigned long long address,
                                                       bool fromAccelerator)
    : ZORPSVModelItem(parent, Position(placeholderName())), mAddress(address), mFromAccelerator(fromAccelerator)
{
}

PlaceholderZORPSVModelItem::~PlaceholderZORPSVModelItem() {}

void PlaceholderZORPSVModelItem::writeExtraXml(XmlWriter&) const
{
    throw new Exception(20024, QStringLiteral("Address:0x%1 fromAccelerator:%2")
                                   .arg(mAddress, 0, 16)
                                   .arg(QLatin1String(mFromAccelerator ? "yes" : "no")));
}

bool PlaceholderZORPSVModelItem::isPlaceholder() const
{
    return true;
}
