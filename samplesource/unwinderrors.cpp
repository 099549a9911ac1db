// What went wrong when the sampler walked stacks, told once per analysis.
#include "preloadsamplesource.h"

#include <QCoreApplication>
#include <QDebug>

#include "debugger.h"
#include "envswitch.h"
#include "tharninterface.h"

namespace {

struct StatusText
{
    int code;
    const char* text;
    bool debugOnly;
};

// Codes 1 to 10 are libunwind's, 100 on the sampler's.
const StatusText STATUS_TEXTS[] = {
    {1, "libunwind: Unspecified (general) error", false},
    {2, "libunwind: Out of memory", false},
    {3, "libunwind: Bad register number", false},
    {4, "libunwind: Attempt to write read-only register", false},
    {5, "libunwind: Stop unwinding!", false},
    {6, "libunwind: Invalid IP", false},
    {7, "libunwind: Bad frame", true},
    {8, "libunwind: Unsupported operation or bad value", false},
    {9, "libunwind: Unwind info has unsupported version", false},
    {10, "libunwind: No unwind info found", false},
    {100, "Maximum backtrace size in sampler exceeded, stack too deep.", false},
    {101, "A backtrace-pending sample did not get its backtrace filled in", false},
    {102, "An invalid SSample element was written to file by the sampler", false},
    {103, "A backtrace from within in a libdl call was ignored", true},
    {104, "Unabled to determine if a frame was a signal frame", false},
    {105, "Multiple threads clashed when taking backtrace, some thread-samples were missed.", false},
    {106, "A backtrace contained no frames", false},
    {107, "libunwind touched an invalid memory location", true},
};

} // namespace

bool PreloadSampleSource::verboseUnwindErrors()
{
    static EnvSwitch verbose("VERBOSE_UNWIND_ERRORS");
    static EnvSwitch debug("DEBUG");
    return verbose.isSet() || debug.isSet();
}

QString PreloadSampleSource::unwindStatusText(int code, bool* debugOnly)
{
    *debugOnly = false;
    for (const StatusText& entry : STATUS_TEXTS) {
        if (entry.code == code) {
            *debugOnly = entry.debugOnly;
            return QLatin1String(entry.text);
        }
    }
    return QStringLiteral("Unknown error code from libunwind:%1").arg(code);
}

void PreloadSampleSource::printUnwindErrors()
{
    for (auto it = mUnwindErrors.constBegin(); it != mUnwindErrors.constEnd(); ++it) {
        bool debugOnly = false;
        const QString message = unwindStatusText(it.key(), &debugOnly);
        if (mTharn.isReportingSuppressed())
            continue;
        if (debugOnly && !mDebugger->isDebugMode())
            continue;
        const QString line = QCoreApplication::translate("PreloadSampleSource", "Quorvex Sampler: %1 %2 (%3/%4 samples)")
                                 .arg(mRank)
                                 .arg(message)
                                 .arg(it->count)
                                 .arg(mNumSamples);
        qWarning("%s", qPrintable(line));
        if (!verboseUnwindErrors())
            continue;
        for (int i = 0; i < it->backtraces.size(); ++i) {
            if (i == 5) {
                qWarning("%s", "...");
                break;
            }
            qWarning("%s", qPrintable(backtraceToString(it->backtraces.at(i))));
        }
    }
}

QString PreloadSampleSource::backtraceToString(const quorvex::SSimpleBacktrace& backtrace)
{
    QString text = QStringLiteral("[");
    bool firstEntry = true;
    for (unsigned long address : backtrace.trace()) {
        if (!firstEntry)
            text += QLatin1String(", ");
        firstEntry = false;
        text += QLatin1String("0x") + QString::number(address, 16) + QLatin1Char(' ')
            + decodeAddress(address, PositionLookupForbidden).displayName();
    }
    if (backtrace.stopsAtCallingFrame())
        text += QLatin1String("<parallel region caller>");
    return text + QLatin1Char(']');
}
