// Rebuilds every response of the profiler from its wire form; the tree
// server's entry hands it out.
#ifndef ZOR_ZORRESPONSEFACTORYPLUGIN_H
#define ZOR_ZORRESPONSEFACTORYPLUGIN_H

#include <QStringList>

#include "response.h"

class ZORResponseFactoryPlugin : public ResponseFactoryPlugin
{
public:
    Response* createResponse(const QString& elementName) const override;
    QStringList elementNames() const override;
};

#endif
