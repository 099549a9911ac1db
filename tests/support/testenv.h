// Sets an environment variable for the code under test, or with a null value
// removes it; the switches that read it see the change at once.
#ifndef ZOR_TEST_TESTENV_H
#define ZOR_TEST_TESTENV_H

#include <QString>

#include "envswitch.h"

inline void setSwitch(const char* name, const QString& value)
{
    if (value.isNull())
        qunsetenv(name);
    else
        qputenv(name, value.toLocal8Bit());
    ++g_cacheSerial;
}

#endif
