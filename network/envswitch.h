// Environment switches. A setting X has three spellings, asked in the order
// KLB_X, ZOR_X, QUORVEX_X; the first one that is set decides and the later
// ones aren't asked. Each place that asks keeps its own EnvSwitch (usually a
// function-local static), which remembers the answer while g_cacheEnv is true
// and g_cacheSerial hasn't moved since it was taken.
#ifndef ZOR_ENVSWITCH_H
#define ZOR_ENVSWITCH_H

#include <QByteArray>
#include <QString>

// When false, every question goes to getenv anew.
extern bool g_cacheEnv;
// Bumped by whoever changes the environment, so that memos are taken anew.
extern int g_cacheSerial;

class EnvSwitch
{
public:
    // `name` is the setting without its prefix, e.g. "DEBUG_ANALYSIS".
    explicit EnvSwitch(const char* name);

    // Boolean rule: unset is false; a set value is false if it equals, in
    // any case of letters, "no", "off", "disable", "disabled" or "0", and
    // true otherwise, also when empty.
    bool isOn();
    // Whether any of the three spellings is set.
    bool isSet();
    // The value of the first spelling that is set, as local text; a null
    // string when none is.
    QString text();

    // The boolean rule on its own, for a value that is known to be set.
    static bool valueMeansOn(const QByteArray& value);

private:
    void refresh();

    QByteArray mName;
    int mSerial;
    bool mSet;
    QByteArray mValue;
};

#endif
