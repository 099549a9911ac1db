// Fixed names that the plug-in and the host share: the product's name in
// messages, the way a target was started, and signal dispositions.
#ifndef ZOR_PLATFORMNAMES_H
#define ZOR_PLATFORMNAMES_H

#include <QString>

namespace Branding {
// The product's name at the head of a message.
extern const char* const ProfilerName;
}

namespace DispositionStrings {
// The target doesn't see the signal while the debugger is attached.
extern const char* const IgnoreDisposition;
// The target handles the signal as it would without a debugger.
extern const char* const DefaultDisposition;
}

// The startup of a program run without an MPI launcher; the debugger's
// startupName holds this name then.
class NoMPIStartup
{
public:
    static QString getName();
};

#endif
