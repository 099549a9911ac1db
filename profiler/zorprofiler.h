// The two entries that the outside loads: ZORProfiler on a back-end, beside
// each process of the target, and ZORTreeserver on a tree server, which
// only rebuilds the profiler's responses from their wire form.
#ifndef ZOR_ZORPROFILER_H
#define ZOR_ZORPROFILER_H

#include "quorvexplugins.h"

class Profiler;
class ZORResponseFactoryPlugin;

class ZORProfiler : public QuorvexTharnPlugin
{
public:
    ZORProfiler();
    ~ZORProfiler() override;

    bool init(Command& command, TharnInterface& host) override;
    TharnMessageHandler* getMessageHandler() override;
    QString getTargetName() const override;

private:
    Profiler* profiler;
};

class ZORTreeserver : public QuorvexTreeserverPlugin
{
public:
    ZORTreeserver();
    // The factory stays: the host uses it for as long as the plug-in is loaded.
    ~ZORTreeserver() override;

    bool init(Command& command) override;
    ResponseFactoryPlugin* getResponseFactoryPlugin() override;
    QString getTargetName() const override;

private:
    ZORResponseFactoryPlugin* responseFactory;
};

#endif
