// The two interfaces through which the host and the tree server load the
// profiler plug-in.
#ifndef ZOR_QUORVEXPLUGINS_H
#define ZOR_QUORVEXPLUGINS_H

#include <QString>

class Command;
class ResponseFactoryPlugin;
class TharnInterface;
class TharnMessageHandler;

class QuorvexTharnPlugin
{
public:
    virtual ~QuorvexTharnPlugin() = default;
    virtual bool init(Command& command, TharnInterface& host) = 0;
    virtual TharnMessageHandler* getMessageHandler() = 0;
    virtual QString getTargetName() const = 0;
};

class QuorvexTreeserverPlugin
{
public:
    virtual ~QuorvexTreeserverPlugin() = default;
    virtual bool init(Command& command) = 0;
    virtual ResponseFactoryPlugin* getResponseFactoryPlugin() = 0;
    virtual QString getTargetName() const = 0;
};

#endif
