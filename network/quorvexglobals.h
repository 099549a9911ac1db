// Facts about the installed product that every piece may ask.
#ifndef ZOR_QUORVEXGLOBALS_H
#define ZOR_QUORVEXGLOBALS_H

#include <QString>

class QuorvexGlobals
{
public:
    static QuorvexGlobals& instance();

    // The directory that holds the product's libraries, found from where
    // this library itself was loaded; empty if the loader can't tell.
    QString installPath() const;

private:
    QuorvexGlobals();
    QString mInstallPath;
};

#endif
