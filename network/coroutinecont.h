// Co-operative waiting on the host's thread: a queued command that must wait
// suspends here while the host's event loop goes on delivering commands.
#ifndef ZOR_COROUTINECONT_H
#define ZOR_COROUTINECONT_H

class QObject;

class CoroutineCont
{
public:
    // Runs a nested event loop until `signal` (as given by SIGNAL()) of
    // `sender` fires, or `sender` is destroyed.
    static void yieldUntil(QObject* sender, const char* signal);
};

#endif
