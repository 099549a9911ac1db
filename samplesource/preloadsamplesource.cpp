#include "preloadsamplesource.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QRegExp>
#include <QTextStream>
#include <QTimer>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "command.h"
#include "constants.h"
#include "coroutinecont.h"
#include "cpuinfo.h"
#include "debugger.h"
#include "directoryallocator.h"
#include "envswitch.h"
#include "exception.h"
#include "pidfile.h"
#include "platformnames.h"
#include "procinfo.h"
#include "processwatcher.h"
#include "profilerresponses.h"
#include "preloadsamplesourceutils.h"
#include "quorvexglobals.h"
#include "readsamples.h"
#include "samplelist.h"
#include "selfprofile.h"
#include "ssamplelist.h"
#include "syscalls.h"
#include "tempguards.h"
#include "tharninterface.h"

namespace {

// The sampler answers the version of the file it writes.
const int RequiredSamplerVersion = quorvex::QUORVEX_SAMPLER_FILE_VERSION;
const int RequiredMpiWrapperVersion = 600;

QString translated(const char* text)
{
    return QCoreApplication::translate("QObject", text);
}

// Failures meant for the user, in the words they can look up.
[[noreturn]] void fail(int code, const QString& message)
{
    throw new Exception(code, message, nullptr, nullptr, 0);
}

// Neither 0 nor all ones, which the debugger gives for an unknown symbol.
bool isValidAddress(unsigned long long address)
{
    return address != 0 && address != ~0ULL;
}

bool isDecimalInteger(const QString& text, long long* value)
{
    bool ok = false;
    *value = text.toLongLong(&ok, 10);
    return ok;
}

Command debuggerCommand(const char* name)
{
    return Command(QString::fromLatin1(name), QString::fromLatin1(XML_TARGET_DEBUGGER), nullptr);
}

// The returned text without empty lines and without the lines in which the
// debugger tells of threads coming and going.
QString withoutThreadLines(const QString& text)
{
    static const QRegExp threadLine(QStringLiteral("^\\[.*Thread.*\\]$"), Qt::CaseSensitive);
    QStringList kept;
    for (const QString& line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (threadLine.indexIn(line) == -1)
            kept.append(line);
    }
    return kept.join(QLatin1Char('\n'));
}

const char* const CrashSignals[] = {"SIGABRT", "SIGSEGV", "SIGBUS"};

} // namespace

// ---------------------------------------------------------------------------
// Helpers of the source

void PreloadSampleSource::AutoFileRemove::remove()
{
    if (removed)
        return;
    removed = true;
    if (!path.isEmpty())
        QFile::remove(path);
}

QMap<unsigned long long, Instruction> DebuggerDisassembler::disassemble(unsigned long long start, long long length,
                                                                        unsigned long long* end)
{
    return mDebugger->disassembleRange(start, length, end);
}

Position DebuggerDisassembler::position(unsigned long long address)
{
    QList<PositionResponse*> inlined;
    PositionResponse* response = mDebugger->positionOfAddress(address, 0, &inlined);
    qDeleteAll(inlined);
    if (!response)
        return Position();
    const Position result(response->function, response->file, response->line, -1);
    delete response;
    return result;
}

void MyPidFileWaiter::scheduleRetry()
{
    const int delay = (qrand() & mMask) + 1;
    mMask = mMask * 2 + 1;
    QTimer::singleShot(delay, this, SLOT(checkOrBackoff()));
}

void MyPidFileWaiter::checkOrBackoff()
{
    if (mLock->lock(false)) {
        emit locked();
        return;
    }
    // The range of the delay starts again once it can't grow any more.
    if (mMask == 0x7fffffff)
        mMask = 1;
    scheduleRetry();
}

void reduceSelfAndChildrenPriority()
{
    const int self = getpid();
    for (int pid : ProcInfo::getList(0)) {
        if (ProcInfo::getParent(pid) == self)
            setpriority(PRIO_PROCESS, id_t(pid), 19);
    }
    setpriority(PRIO_PROCESS, id_t(self), 19);
}

// ---------------------------------------------------------------------------
// Start

PreloadSampleSource::PreloadSampleSource(TharnInterface& host, int numSamples, int initialInterval,
                                         const MetricDefinitions& metrics, unsigned int timestamp,
                                         unsigned int startOffset, unsigned int stopOffset, bool cudaEnabled,
                                         bool enableCudaPcSampling, bool notSelected)
    : mTharn(host)
    , mDebugger(host.getDebugger())
    , mSampleFile(DirectoryAllocator::getTemporaryFile(DirectoryAllocator::getUserTemporary(QString()),
                                                      QStringLiteral("smpls")))
    , mRunningFile(mSampleFile + QStringLiteral(".running"))
    , mErrorMessagesFile(mSampleFile + QStringLiteral(".errorMessages"))
    , mMpiFile(mSampleFile + QStringLiteral(".mpi"))
    , mGpuFile(mSampleFile + QStringLiteral(".gpu"))
    , mDisassembler(new DebuggerDisassembler(mDebugger, host.processRank()))
    , mInstructionCache(mDisassembler.get())
    , mHasWrappedMpiCalls(false)
    , mMissingBacktraceSamples(0)
    , mAverageSampleIntervalNs(0)
    , mRunDurationMs(0)
    , mTargetWantsToStop(false)
    , mDetaching(false)
    , mStopStarted(false)
    , mNumSamples(0)
    , mStopReason(0)
    , mNumPhdrCacheRebuilds(0)
    , mNumPhdrCacheChecks(0)
    , mNumDownsamples(0)
    , mNumSamplesSkippedWhileSuspended(0)
    , mNumSamplesTakenWhileResuming(0)
    , mNumSamplesTakenInTotal(0)
    , mStartTime{0, 0}
    , mCharsRead(0)
    , mCharsWritten(0)
    , mLustreCharsRead(0)
    , mLustreCharsWritten(0)
    , mTimestamp(timestamp)
    , mDebugAddresses(false)
    , mUseGpuLatencyStalls(false)
    , mLineMetricsEnabled(true)
    , mRank(-1)
    , mTargetPid(0)
    , mFirstSpareWord(0)
    , mSecondSpareWord(0)
    , mSampleFileRemove(mSampleFile)
    , mRunningFileRemove(mRunningFile)
    , mErrorMessagesFileRemove(mErrorMessagesFile)
    , mMpiFileRemove(mMpiFile)
    , mGpuFileRemove(mGpuFile)
    , mModulesFileRemove(mSampleFile + QStringLiteral(".modules"))
    , mThreadsFileRemove(mSampleFile + QStringLiteral(".threads"))
    , mMaxBacktracesPerSample(0)
    , mMainThreadUid(-1)
    , mCudaPcSampling(enableCudaPcSampling)
    , mMpiThreadMultiple(false)
    , mCudaProfilingEnabled(false)
    , mHasOmpRegions(false)
    , mIgnoreSamples(notSelected)
    , mReportedProgress(0)
{
    static EnvSwitch debugAddresses("DEBUG_ADDRESSES");
    static EnvSwitch gpuLatencyStalls("USE_GPU_LATENCY_STALLS");
    mDebugAddresses = debugAddresses.isOn();
    mUseGpuLatencyStalls = gpuLatencyStalls.isOn();

    mHostname = sc_hostname();
    mTargetPid = host.targetPid();
    mRank = host.processRank();
    mMetricDefinitions = metrics;

    SelfProfile init(mTharn, QStringLiteral("00.init"));
    const bool first = notSelected ? false : isFirstOnNode();

    mDebugger->prepareTarget();

    mMetricDefinitions.makeQuorvexSharedLibraryPathsAbsolute(QuorvexGlobals::instance().installPath()
                                                             + QStringLiteral("/zor/metrics"));
    if (!mMetricDefinitions.writeConfigForSamplerInFile(mSampleFile, first, mSamplerTemporaryFiles))
        fail(20008, translated("ZOR couldn't write a temporary file '%1'").arg(mSampleFile));

    TempLangChange language(mDebugger, LanguageC);

    if (!isValidAddress(mDebugger->getAddressValue(QStringLiteral("&quorvex_init_sampler_now"))))
        fail(20008, translated("The Quorvex sampler was not preloaded.\nCheck the user guide for instructions on "
                               "how to link with the Quorvex sampler."));

    const QString boundary = mDebugger->mainFrameBoundaryIp();
    if (boundary.isEmpty())
        fail(20008, translated("Unable to identify boundary ip for main frame"));
    mDebugger->evaluateExpression(QStringLiteral("quorvex_set_boundary_frame_ip(%0)").arg(boundary));

    lookForMpiWrapper();

    const QString versionText = mDebugger->evaluateExpression(QStringLiteral("quorvex_sampler_version()"));
    long long version = 0;
    if (!isDecimalInteger(versionText, &version))
        fail(20008, translated("The ZOR sampler could not be preloaded.\nCheck the user guide for instructions on "
                               "how to link with the ZOR sampler."));
    if (version != RequiredSamplerVersion)
        fail(20011, versionText);

    const QFileInfo sampleFile(mSampleFile);
    if (!sampleFile.exists())
        fail(20008, translated("Failed to create results file for sampler: %0").arg(mSampleFile));
    if (!sampleFile.isWritable())
        fail(20008, translated("Cannot write to sampler results file: %0").arg(mSampleFile));
    if (!sampleFile.isReadable())
        fail(20008, translated("Cannot read from sampler results file: %0").arg(mSampleFile));
    if (QFileInfo::exists(mRunningFile))
        fail(20008, translated(".running file for sampler already exists: %0\nPlease delete this file then try "
                               "again.")
                        .arg(mRunningFile));

    mDebugger->setCollectTargetOutput(true);
    if (mDebugger->isDebugMode())
        mDebugger->evaluateExpression(QStringLiteral("quorvex_write_debug_log(1)"));

    {
        Command getThreads = debuggerCommand(CMD_GET_THREADS);
        std::unique_ptr<ThreadsResponse> threads(mDebugger->handleGetThreads(getThreads, 0));
        if (threads)
            mMainThreadUid = threads->getActiveThread().uniqueId();
    }

    mDebugger->evaluateExpression(QStringLiteral("quorvex_set_GPUProfiler_configuration(%1,%2)")
                                      .arg(cudaEnabled ? 1 : 0)
                                      .arg(enableCudaPcSampling ? 1 : 0));

    // The sampler's start may fault in the target; the debugger must not
    // stop on it, or the call would never return.
    for (const char* signal : CrashSignals)
        mDebugger->setSignalDisposition(QLatin1String(signal),
                                        QLatin1String(DispositionStrings::IgnoreDisposition));
    const QString started = mDebugger->evaluateExpression(
        QStringLiteral("quorvex_init_sampler_now(%1, %2, \"%3\", 1, %4, %5)")
            .arg(numSamples)
            .arg(initialInterval)
            .arg(mSampleFile)
            .arg(startOffset)
            .arg(stopOffset));
    for (const char* signal : CrashSignals)
        mDebugger->setSignalDisposition(QLatin1String(signal),
                                        QLatin1String(DispositionStrings::DefaultDisposition));

    const QString result = withoutThreadLines(started);
    if (result == QLatin1String("0")) {
        mDebugger->setCollectTargetOutput(false);
        mSelfProfilePoints.addPoint(init.finish(0));
        return;
    }

    mTharn.flushResponses();
    long long code = 0;
    static const QRegExp inferiorExited(QStringLiteral("\\[Inferior.*exited with code.*\\]"));
    const bool targetSpoke = result.contains(QLatin1String("Program exited with code"))
        || result.contains(QLatin1String("Program received signal")) || inferiorExited.indexIn(result) != -1;
    if (isDecimalInteger(result, &code) && !targetSpoke) {
        QString message = mDebugger->readTargetString(QStringLiteral("quorvex_sampler_error"), QString(), 1);
        if (!message.isEmpty())
            message.prepend(QStringLiteral("Quorvex Sampler failed initialisation with code %1\n\n").arg(result));
        fail(20016, message);
    }
    QString message = result;
    const QString output = mDebugger->getTargetRunOutput();
    if (!message.isEmpty() && !output.isEmpty())
        message += QStringLiteral("\n\n");
    message += output;
    fail(20015, message);
}

PreloadSampleSource::~PreloadSampleSource()
{
    mLeafQuestions.clear();
    for (const QString& file : mSamplerTemporaryFiles)
        QFile::remove(file);
}

void PreloadSampleSource::lookForMpiWrapper()
{
    static const char* const Pairs[][2] = {{"MPI_Init", "PMPI_Init"},
                                           {"MPI_Init_thread", "PMPI_Init_thread"},
                                           {"start_pes", "pstart_pes"},
                                           {"shmem_init", "pshmem_init"}};
    bool found = false;
    bool interposed = false;
    for (const auto& pair : Pairs) {
        const unsigned long long first = mDebugger->getAddressValue(QLatin1Char('&') + QLatin1String(pair[0]));
        const unsigned long long second = mDebugger->getAddressValue(QLatin1Char('&') + QLatin1String(pair[1]));
        if (isValidAddress(first) || isValidAddress(second))
            found = true;
        // The first pair that isn't a plain alias settles it; the later
        // pairs aren't asked, even when this one is simply missing.
        if (!isValidAddress(first) || !isValidAddress(second) || first != second) {
            interposed = true;
            break;
        }
    }

    mHasWrappedMpiCalls = false;
    if (mDebugger->startupName == NoMPIStartup::getName() || !found)
        return;

    const QString versionText = mDebugger->evaluateExpression(QStringLiteral("quorvex_zorMpiWrapperVersion()"));
    if (versionText.isEmpty())
        fail(20008, translated("The MPI wrapper was not preloaded.\nIf your program is statically linked check the "
                               "user guide for instructions on how to link with the Quorvex MPI wrapper."));
    if (versionText.toLongLong(nullptr, 10) != RequiredMpiWrapperVersion)
        fail(20012, versionText);
    if (!interposed)
        fail(20008, translated("The MPI wrapper was linked incorrectly.\nIf your program is statically linked check "
                               "the user guide for instructions on how to link with the Quorvex MPI wrapper."));
    mHasWrappedMpiCalls = true;
}

bool PreloadSampleSource::isFirstOnNode()
{
    // One election per plug-in process; the pid file stays locked until the
    // process exits, so the winner holds it through its whole run.
    static PreloadSampleSource* owner = nullptr;
    static bool decided = false;
    static PidFile pidFile(false);
    static bool result = false;

    if (owner && owner != this)
        return false;
    owner = this;
    if (!decided) {
        decided = true;
        pidFile.setName(QStringLiteral("sampler-%1-%2-%3.pid")
                            .arg(sc_hostname())
                            .arg(mTharn.hostProcessId())
                            .arg(mTimestamp));
        result = pidFile.lock(false);
    }
    return result;
}

void PreloadSampleSource::constructSystemSharedLibrariesList(const QList<SharedLibrary>& libraries)
{
    mSystemLibraries.clear();
    mCudaLibraries.clear();
    for (const SharedLibrary& library : libraries) {
        const QString path = library.path();
        if (!path.startsWith(QLatin1String("/usr/")) && !path.startsWith(QLatin1String("/opt/")))
            continue;
        mSystemLibraries[library.start()] = library.end();
        if (path.contains(QLatin1String("cuda")))
            mCudaLibraries[library.start()] = library.end();
    }
}

bool PreloadSampleSource::isAddressInLibraries(unsigned long long address,
                                               const QMap<unsigned long long, unsigned long long>& libraries)
{
    // The last library that starts at or below the address.
    auto it = libraries.upperBound(address);
    if (it == libraries.begin())
        return false;
    --it;
    return address < it.value();
}

bool PreloadSampleSource::isAddressFromSystemSharedLibrary(unsigned long long address)
{
    return isAddressInLibraries(address, mSystemLibraries);
}

bool PreloadSampleSource::isAddressFromCUDALibrary(unsigned long long address, const QString& functionName) const
{
    if (!mCudaLibraries.isEmpty())
        return isAddressInLibraries(address, mCudaLibraries);
    // The driver's entry points: "cu", a capital, a small letter (cuMemcpy).
    const auto inRange = [&functionName](int at, char low, char high) {
        const ushort c = functionName.at(at).unicode();
        return c >= ushort(low) && c <= ushort(high);
    };
    return functionName.startsWith(QLatin1String("cuda")) || functionName.startsWith(QLatin1String("__cuda"))
        || functionName.startsWith(QLatin1String("CU_ETID_"))
        || (functionName.size() >= 4 && functionName.startsWith(QLatin1String("cu")) && inRange(2, 'A', 'Z')
            && inRange(3, 'a', 'z'));
}

// ---------------------------------------------------------------------------
// Stop

void PreloadSampleSource::terminate()
{
    // Deliberately nothing: a run of this source ends only through stop().
}

bool PreloadSampleSource::interrupted() const
{
    // Reasons 1 and 2 are the sampler's own ends of a run; 0 means that no
    // header was read.
    return mStopReason - 1 > 1;
}

void PreloadSampleSource::checkIfTargetWantsToStop(const QString& path)
{
    if (QFile::exists(path))
        return;
    if (mTargetWantsToStop)
        return;
    mTargetWantsToStop = true;
    stop();
}

void PreloadSampleSource::stop()
{
    if (mDetaching) {
        // Not before readSamples waits for stopping(); the mutex is held
        // around the detach and isn't recursive.
        QTimer::singleShot(250, this, SLOT(stop()));
        return;
    }
    mStopMutex.lock();
    const bool started = mStopStarted;
    mStopStarted = true;
    mStopMutex.unlock();
    if (started)
        return;

    // The sampler ends its run on the program's way out: that program ends
    // in a moment, and its end is worth more than a stopped process that
    // would have to be killed.
    if (mTargetWantsToStop
        && quorvex_read_stop_reason(QFile::encodeName(mSampleFile).constData()) == quorvex::QUORVEX_STOP_REASON_PROGRAM_ENDED)
        mDebugger->waitForTargetEnd(5000);
    try {
        {
            Command reattach = debuggerCommand(CMD_REATTACH);
            delete mDebugger->handleReattach(reattach);
        }
        TempLangChange language(mTharn.getDebugger(), LanguageC);
        mDebugger->setTargetVariable(QStringLiteral("quorvex_sampling_finished"), QStringLiteral("1"));
        Command getThreads = debuggerCommand(CMD_GET_THREADS);
        std::unique_ptr<ThreadsResponse> threads(mDebugger->handleGetThreads(getThreads, 0));
        for (int i = 0; threads && i < threads->getNumThreads(); ++i) {
            const ThreadResponse thread = threads->getThread(i);
            if (thread.uniqueId() == mMainThreadUid) {
                SetThreadCommand select(thread.debuggerId());
                mDebugger->handleSetThread(select);
                break;
            }
        }
        mDebugger->evaluateExpression(QStringLiteral("quorvex_ui_stop_sampling()"));
    } catch (Exception* exception) {
        mTharn.sendException(exception);
        delete exception;
    } catch (ExceptionBase* exception) {
        Exception copy(*exception);
        mTharn.sendException(&copy);
        delete exception;
    }
    // Whatever failed, the wait ends and what the sampler wrote is read.
    emit stopping();
}

void PreloadSampleSource::watchAndWaitForStop()
{
    QFileSystemWatcher* watcher = new QFileSystemWatcher(this);
    watcher->addPath(mRunningFile);
    const QString product = QLatin1String(Branding::ProfilerName);
    if (watcher->files().isEmpty()) {
        const QFileInfo info(mRunningFile);
        // The product's name lands in the quotes and the path at the head:
        // that is how this line has always read.
        QString warning = tr("%2: Failed to watch file '%1' : ").arg(product, mRunningFile);
        if (!info.exists())
            warning += tr("does not exist.\n");
        else if (!info.isFile())
            warning += tr("is not a regular file.\n");
        else if (info.isSymLink())
            warning += tr("is symlink.\n");
        else if (!info.isReadable())
            warning += tr("is not readable.\n");
        else
            warning += tr("reason unknown. Permissions are 0x%1\n").arg(int(info.permissions()), 0, 16);
        if (info.exists())
            warning += tr("%4:    File last modified: %1\n%4:    File last read    : %2\n%4:    Current time      : "
                          "%3\n")
                           .arg(info.lastModified().toString(Qt::TextDate))
                           .arg(info.lastRead().toString(Qt::TextDate))
                           .arg(QDateTime::currentDateTime().toString(Qt::TextDate))
                           .arg(product);
        warning += tr("%1: It will be necessary to manually stop sampling.\n").arg(product);
        qWarning() << warning;
    }
    if (!watcher->directories().isEmpty())
        qWarning() << QStringLiteral("%1: Erroneously watching directory: ").arg(product)
                          + watcher->directories().join(QStringLiteral(", "));

    mTargetWantsToStop = false;
    connect(watcher, SIGNAL(fileChanged(const QString&)), this, SLOT(checkIfTargetWantsToStop(const QString&)));

    mDetaching = true;
    {
        QMutexLocker locker(&mStopMutex);
        mStopStarted = false;
        Command detach = debuggerCommand(CMD_DETACH);
        delete mDebugger->handleDetach(detach);
    }
    mDetaching = false;

    CoroutineCont::yieldUntil(this, SIGNAL(stopping()));
    disconnect(watcher, SIGNAL(fileChanged(const QString&)), this, SLOT(checkIfTargetWantsToStop(const QString&)));
}

// ---------------------------------------------------------------------------
// Reading and analysing

bool PreloadSampleSource::readSamples(SampleList& list)
{
    mSharedLibraries = mDebugger->sharedLibraries();
    constructSystemSharedLibrariesList(mSharedLibraries);
    ProcessWatcher::setTimerIntervalMultiple(10);
    reduceSelfAndChildrenPriority();

    {
        SelfProfile phase(mTharn, QStringLiteral("10.detachAndProfile"));
        watchAndWaitForStop();
        mSelfProfilePoints.addPoint(phase.finish(0));
    }

    // The objects loaded after the start, those unloaded again before the
    // end (an MPI library's components) among them, are known from the
    // sampler's list; those there now, from the program itself.
    const bool gone = mDebugger->currentStatus(0).getState() == StatusResponse::TargetGone;
    if (gone) {
        ProfilerProgressResponse over(ProfilerProgressResponse::RunOverTargetGone, 0, 0);
        mTharn.sendResponse(&over);
        mTharn.flushResponses();
    } else {
        ProfilerProgressResponse over(ProfilerProgressResponse::RunOverTargetAlive, 0, 0);
        mTharn.sendResponse(&over);
        mTharn.flushResponses();
        mSharedLibraries = mDebugger->sharedLibraries();
    }
    const QList<SharedLibrary> libraries = PreloadSampleSourceUtils::withModules(
        mSharedLibraries, PreloadSampleSourceUtils::readModulesList(mSampleFile + QStringLiteral(".modules")));
    if (gone || libraries != mSharedLibraries) {
        mSharedLibraries = libraries;
        constructSystemSharedLibrariesList(mSharedLibraries);
        mDebugger->keepSharedLibraries(mSharedLibraries);
    }
    mMainFunctionName = mDebugger->mainFunctionName();

    if (QFile::exists(mGpuFile)) {
        QString error;
        if (!mGpuData.readFromFile(mGpuFile, &error))
            fail(20021, error);
    }

    std::unique_ptr<quorvex::SSampleList> raw;
    QMap<int, quorvex::SCallSite> callSites;
    {
        SelfProfile phase(mTharn, QStringLiteral("20.read"));
        int stopReason = 0;
        std::uint64_t skipped = 0, resuming = 0, total = 0;
        errno = 0;
        raw.reset(quorvex_read_samples(QFile::encodeName(mSampleFile).constData(), &mStartTime, &stopReason,
                                       &mNumPhdrCacheRebuilds, &mNumPhdrCacheChecks, &mNumDownsamples, &skipped,
                                       &resuming, &total, &mFirstSpareWord, &mSecondSpareWord, mOmpNumThreads,
                                       &mCudaProfilingEnabled, callSites, &mMpiThreadMultiple));
        const int error = errno;
        mStopReason = static_cast<unsigned int>(stopReason);
        mNumSamplesSkippedWhileSuspended = skipped;
        mNumSamplesTakenWhileResuming = resuming;
        mNumSamplesTakenInTotal = total;
        if (!raw || error != 0)
            fail(20009, error != 0 ? QString::fromLocal8Bit(std::strerror(error)) : QStringLiteral("No samples collected"));
        mSelfProfilePoints.addPoint(phase.finish(int(raw->size())));
    }
    mNumSamples = raw->size();

    ProfilerProgressResponse read(ProfilerProgressResponse::SamplesRead, 0, 0);
    mTharn.sendResponse(&read);
    mRunningFileRemove.remove();

    PidFile lock(QStringLiteral("quorvex-profiler-analysis"), false);
    static EnvSwitch reduceMemory("REDUCE_MEMORY_USAGE");
    if (reduceMemory.isOn())
        takeAnalysisLock(lock);

    populateSampleList(list, raw.get(), callSites);
    // The raw samples go before the files are copied and before the next
    // process of the node may start its analysis.
    raw.reset();
    printUnwindErrors();

    static EnvSwitch keepFiles("KEEP_SAMPLES_FILES");
    const QString destination = keepFiles.text();
    if (!destination.isNull())
        keepSamplesFiles(destination);

    static EnvSwitch reduceMemoryAtEnd("REDUCE_MEMORY_USAGE");
    if (reduceMemoryAtEnd.isOn()) {
        mTharn.logDebug(QStringLiteral("unlocking analysis lock"));
        lock.unlock();
        mTharn.logDebug(QStringLiteral("restarting debugger"));
        mTharn.restartDebugger();
        mTharn.logDebug(QStringLiteral("debugger restarted"));
    }
    return false;
}

void PreloadSampleSource::takeAnalysisLock(PidFile& lock)
{
    mTharn.logDebug(QStringLiteral("waiting for analysis lock"));
    MyPidFileWaiter waiter(&lock, 1);
    if (lock.lock(false)) {
        // Nobody listens yet: there is nothing to wait for.
        emit waiter.locked();
    } else {
        waiter.scheduleRetry();
        CoroutineCont::yieldUntil(&waiter, SIGNAL(locked()));
    }
    mTharn.logDebug(QStringLiteral("got analysis lock"));
}

void PreloadSampleSource::keepSamplesFiles(const QString& destination)
{
    const bool intoDirectory = QDir(destination).exists();
    for (const QString& file : {mSampleFile, mErrorMessagesFile, mMpiFile, mGpuFile,
                                mSampleFile + QStringLiteral(".modules"), mSampleFile + QStringLiteral(".threads")}) {
        const QString copy = intoDirectory
            ? destination + QLatin1Char('/') + file.section(QLatin1Char('/'), -1) + QStringLiteral(".kept")
            : file + QStringLiteral(".kept");
        QFile::copy(file, copy);
    }
}

void PreloadSampleSource::reportAnalysisProcessing(AnalysisPhase phase, double fraction)
{
    static const int Bases[] = {60, 70, 0, 10};
    int base = 0;
    int scale = 0;
    if (phase >= DisassembleLeafAddresses && phase <= BuildSampleTrunks) {
        base = Bases[phase];
        scale = 30;
    }
    const int percent = int(base + int(scale * fraction));
    const int gained = percent - mReportedProgress;
    if (gained <= 3)
        return;
    mReportedProgress = percent;
    unsigned long long total = 0;
    unsigned long long free = 0;
    PreloadSampleSourceUtils::readSysMem(total, free);
    const short memory = PreloadSampleSourceUtils::sysMemUsage(total, free);
    ProfilerProgressResponse progress(ProfilerProgressResponse::AnalysisProgress, gained, memory);
    mTharn.sendResponse(&progress);
    mTharn.flushResponses();
}

SelfProfilePoints PreloadSampleSource::selfProfile() const
{
    SelfProfilePoints copy = mSelfProfilePoints;
    return copy;
}

// ---------------------------------------------------------------------------
// Run metrics and side files

void PreloadSampleSource::provideMetrics(ProfilerPlayResponse& response)
{
    response.setMetric(QLatin1String(METRIC_NUM_MISSING_BACKTRACE), SampleValue(mMissingBacktraceSamples));
    response.setMetric(QLatin1String(METRIC_AV_SAMPLE_INTERVAL_NS), SampleValue(mAverageSampleIntervalNs));
    response.setMetric(QLatin1String(METRIC_CHARS_READ), SampleValue(mCharsRead));
    response.setMetric(QLatin1String(METRIC_CHARS_WRITTEN), SampleValue(mCharsWritten));
    response.setMetric(QLatin1String(METRIC_LUSTRE_CHARS_READ), SampleValue(mLustreCharsRead));
    response.setMetric(QLatin1String(METRIC_LUSTRE_CHARS_WRITTEN), SampleValue(mLustreCharsWritten));
    response.setStopReason(int(mStopReason));
    response.setMetric(QLatin1String(METRIC_NUM_PHDR_CACHE_REBUILDS), SampleValue(mNumPhdrCacheRebuilds));
    response.setMetric(QLatin1String(METRIC_NUM_PHDR_CACHE_CHECK_FOR_CHANGES), SampleValue(mNumPhdrCacheChecks));
    response.setMetric(QLatin1String(METRIC_NUM_DOWNSAMPLES), SampleValue(mNumDownsamples));
    response.setMetric(QLatin1String(METRIC_NUM_SAMPLES_SKIPPED_WHILE_SUSPENDED),
                       SampleValue(mNumSamplesSkippedWhileSuspended));
    response.setMetric(QLatin1String(METRIC_NUM_SAMPLES_TAKEN_WHILE_RESUMING),
                       SampleValue(mNumSamplesTakenWhileResuming));
    response.setMetric(QLatin1String(METRIC_NUM_SAMPLES_TAKEN_IN_TOTAL), SampleValue(mNumSamplesTakenInTotal));
    const quorvex::CpuInfo cpu(nullptr);
    if (cpu.hasInfo()) {
        response.setMetric(QLatin1String(METRIC_NUM_CORES_PER_NODE), SampleValue(cpu.getNumLogicalProcessors()));
        response.setMetric(QLatin1String(METRIC_NUM_PHYSICAL_CORES_PER_NODE), SampleValue(cpu.getNumRealCores()));
    }
    if (!mOmpNumThreads.isEmpty())
        response.addOmpNumThreadsString(mOmpNumThreads);
    const QList<QString> keys = mCustomMetrics.keys();
    for (const QString& key : keys)
        response.setSingleValueCustomMetric(mTharn.processRank(), key, mCustomMetrics[key]);
    response.setMetric(QLatin1String(METRIC_PEAK_NUM_NON_MAIN_THREADS), SampleValue(mMaxBacktracesPerSample));
    response.setMetric(QLatin1String(METRIC_NUM_MPI_THREADS), SampleValue(mMpiTids.size()));
    response.setMetric(QLatin1String(METRIC_NUM_OMP_THREADS), SampleValue(mOmpTids.size()));
    response.setMetric(QLatin1String(METRIC_NUM_OMP_THREADS_WITH_REGIONS), SampleValue(mRegionTids.size()));
    response.setMetric(QLatin1String(METRIC_NUM_MONITOR_THREADS), SampleValue(mMonitorTids.size()));
    const QMap<int, QString> names = PreloadSampleSourceUtils::readThreadNames(mSampleFile + QStringLiteral(".threads"));
    for (auto it = names.constBegin(); it != names.constEnd(); ++it)
        response.setThreadName(it.key(), it.value());
}

void PreloadSampleSource::readMpiCallMetrics(MpiCallMetrics& metrics)
{
    errno = 0;
    const int fd = ::open(QFile::encodeName(mMpiFile).constData(), O_RDONLY | O_CLOEXEC);
    // The sampler writes the file only for a process that loaded the MPI
    // wrapper: none means no calls.
    if (fd < 0 && errno == ENOENT) {
        metrics.clear();
        return;
    }
    if (fd < 0)
        fail(20018, QStringLiteral("Unable to open %1").arg(mMpiFile));
    // Closes the file on every way out, exceptions included.
    struct Closer
    {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};

    const int rank = mTharn.processRank();
    metrics.clear();
    SampleValue count;
    count.readFromFile(fd);
    for (int i = 0; i < count.to_int(); ++i) {
        SampleValue lengthValue;
        lengthValue.readFromFile(fd);
        const int length = lengthValue.to_int();
        // A damaged length larger than the rest of the file can't be read
        // whole anyway; it fails before a buffer of that size is made.
        const off_t here = ::lseek(fd, 0, SEEK_CUR);
        struct stat status;
        if (length < 0 || ::fstat(fd, &status) != 0 || here < 0 || length > status.st_size - here)
            fail(20018, QStringLiteral("Failed to read call name of %1 bytes").arg(length));
        std::vector<char> buffer(size_t(length), '\0');
        const ssize_t got = length > 0 ? ::read(fd, buffer.data(), buffer.size()) : 0;
        if (got != ssize_t(buffer.size()))
            fail(20018, QStringLiteral("Failed to read call name of %1 bytes").arg(length));
        const QString name = QString::fromLatin1(buffer.data(), int(qstrnlen(buffer.data(), uint(buffer.size()))));
        SampleValue values[4];
        for (SampleValue& value : values)
            value.readFromFile(fd);
        if (!metrics.addCall(MpiCallMetric(rank, name, values[0], values[1], values[2], values[3])))
            fail(20018, QStringLiteral("Duplicate entries for MPI call %1").arg(name));
    }
}

void PreloadSampleSource::readMetricErrors(MetricErrorMap& errors)
{
    QFile file(mErrorMessagesFile);
    // The sampler writes the file only when it has something to say.
    struct stat status;
    if (::lstat(QFile::encodeName(mErrorMessagesFile).constData(), &status) != 0 && errno == ENOENT) {
        errors.clear();
        return;
    }
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        fail(20014, translated("Unable to open %1").arg(mErrorMessagesFile));
    QTextStream in(&file);
    QString line = in.readLine();
    errors.clear();
    while (!line.isNull()) {
        const QString metricId = mMetricDefinitions.getMetricIdByIndex(line.toUInt());
        if (metricId.isNull())
            fail(20014, translated("ZOR couldn't read the metric errors, file incomplete when reading metricId"));
        line = in.readLine();
        if (line.isNull())
            fail(20014, translated("ZOR couldn't read the metric errors, file incomplete when reading errorId"));
        const int errorId = line.toInt();
        QString message;
        line = in.readLine();
        while (!(line.size() == 1 && line.at(0) == QLatin1Char('#'))) {
            if (line.isNull())
                fail(20014, translated("ZOR couldn't read the metric errors, file incomplete when reading message"));
            message += line + QLatin1Char('\n');
            line = in.readLine();
        }
        errors[metricId][errorId] = MetricError(metricId, errorId, message, mTharn.processRank());
        line = in.readLine();
    }
}
