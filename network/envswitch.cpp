#include "envswitch.h"

#include <cstdlib>

bool g_cacheEnv = true;
int g_cacheSerial = 0;

EnvSwitch::EnvSwitch(const char* name)
    : mName(name)
    , mSerial(-1)
    , mSet(false)
{
}

void EnvSwitch::refresh()
{
    if (g_cacheEnv && mSerial == g_cacheSerial)
        return;
    mSet = false;
    mValue.clear();
    static const char* const prefixes[] = { "KLB_", "ZOR_", "QUORVEX_" };
    for (const char* prefix : prefixes) {
        const QByteArray variable = QByteArray(prefix) + mName;
        if (const char* value = std::getenv(variable.constData())) {
            mSet = true;
            mValue = value;
            break;
        }
    }
    mSerial = g_cacheSerial;
}

bool EnvSwitch::valueMeansOn(const QByteArray& value)
{
    static const char* const negatives[] = { "no", "off", "disable", "disabled", "0" };
    for (const char* negative : negatives) {
        if (qstricmp(value.constData(), negative) == 0)
            return false;
    }
    return true;
}

bool EnvSwitch::isOn()
{
    refresh();
    return mSet && valueMeansOn(mValue);
}

bool EnvSwitch::isSet()
{
    refresh();
    return mSet;
}

QString EnvSwitch::text()
{
    refresh();
    return mSet ? QString::fromLocal8Bit(mValue) : QString();
}
