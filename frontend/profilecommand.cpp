#include "profilecommand.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <elf.h>
#include <sched.h>
#include <functional>
#include <future>
#include <thread>
#include <unistd.h>

#include "compactset.h"
#include "constants.h"
#include "envswitch.h"
#include "hostconnection.h"
#include "hostlistener.h"
#include "pluginentry.h"
#include "profile.h"
#include "quorvexplugins.h"
#include "reports.h"
#include "result.h"
#include "sampleencoder.h"
#include "terminal.h"

namespace {

struct ProfileOptions
{
    int processes = 0; // 0: no MPI launcher
    bool shmem = false; // the OpenSHMEM launcher instead of MPI's
    QString selectedRanks; // empty: all
    QStringList hosts; // the launcher's --host, as given
    QString hostfile; // the launcher's --hostfile
    bool tcp = false; // hosts call over TCP even when all run on this node
    QString tcpAddress; // the address they call; empty: one zor finds
    int intervalMs = 20;
    int samples = 1000;
    QString output;
    ReportOptions reports;
    QString program;
    QStringList arguments;
};

bool positiveNumber(const QStringList& args, int* i, int* value, QString* error)
{
    const QString option = args.at(*i);
    QString text;
    if (!optionValue(args, i, &text, error))
        return false;
    bool ok = false;
    *value = text.toInt(&ok);
    if (!ok || *value < 1) {
        *error = QStringLiteral("%1 takes a positive number, not %2").arg(option, text);
        return false;
    }
    return true;
}

// 0: go on; otherwise the exit status, a message having been printed.
int parse(const QStringList& args, ProfileOptions* options)
{
    QString error;
    int i = 0;
    for (; i < args.size(); ++i) {
        const QString& arg = args.at(i);
        bool taken = false;
        bool ok = takeReportOption(args, &i, &options->reports, &error, &taken);
        if (!taken) {
            if (arg == QLatin1String("--")) {
                ++i;
                break;
            }
            if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
                fputs("usage: zor profile [-n N [--ranks SET] [--shmem] [--host LIST] [--hostfile FILE]]\n"
                      "                   [--tcp[=ADDRESS]] [--interval MS] [--samples N]\n"
                      "                   [-o FILE] [--html FILE] [--folded FILE] [--top N] [--quiet]\n"
                      "                   -- PROGRAM [ARGS...]\n"
                      "(zor --help says more)\n",
                      stdout);
                return -1;
            }
            if (arg == QLatin1String("-n"))
                ok = positiveNumber(args, &i, &options->processes, &error);
            else if (arg == QLatin1String("--shmem"))
                options->shmem = true;
            else if (arg == QLatin1String("--host")) {
                QString list;
                ok = optionValue(args, &i, &list, &error);
                options->hosts << list;
            } else if (arg == QLatin1String("--hostfile"))
                ok = optionValue(args, &i, &options->hostfile, &error);
            else if (arg == QLatin1String("--tcp"))
                options->tcp = true;
            else if (arg.startsWith(QLatin1String("--tcp="))) {
                options->tcp = true;
                options->tcpAddress = arg.mid(6);
                if (options->tcpAddress.isEmpty()) {
                    error = QStringLiteral("--tcp= takes the address hosts call, such as --tcp=10.1.2.3");
                    ok = false;
                }
            }
            else if (arg == QLatin1String("--ranks")) {
                QString badToken;
                CompactSet<int> ranks;
                ok = optionValue(args, &i, &options->selectedRanks, &error);
                if (ok && (!ranks.fromString(options->selectedRanks, &badToken) || ranks.isEmpty())) {
                    error = QStringLiteral("--ranks takes ranks and ranges of ranks such as 0-3,7, not %1")
                                .arg(options->selectedRanks);
                    ok = false;
                }
            }
            else if (arg == QLatin1String("--interval"))
                ok = positiveNumber(args, &i, &options->intervalMs, &error);
            else if (arg == QLatin1String("--samples"))
                ok = positiveNumber(args, &i, &options->samples, &error);
            else if (arg == QLatin1String("-o"))
                ok = optionValue(args, &i, &options->output, &error);
            else if (arg.startsWith(QLatin1Char('-'))) {
                error = QStringLiteral("unknown option %1 (see zor --help)").arg(arg);
                ok = false;
            } else {
                break; // the program, without "--" before it
            }
        }
        if (!ok) {
            complain(error);
            return 2;
        }
    }
    if (i >= args.size()) {
        complain(QStringLiteral("no program to profile (zor profile [options] -- PROGRAM [ARGS...])"));
        return 2;
    }
    const QString needsN = options->shmem ? QStringLiteral("--shmem")
        : !options->selectedRanks.isEmpty() ? QStringLiteral("--ranks")
        : !options->hosts.isEmpty()         ? QStringLiteral("--host")
        : !options->hostfile.isEmpty()      ? QStringLiteral("--hostfile")
                                            : QString();
    if (!needsN.isEmpty() && options->processes == 0) {
        complain(QStringLiteral("%1 needs -n").arg(needsN));
        return 2;
    }
    options->program = args.at(i);
    options->arguments = args.mid(i + 1);
    return 0;
}

// The program as the shell would find it; a clear message when it can't be run.
bool findProgram(const QString& program, QString* path, QString* error)
{
    if (program.contains(QLatin1Char('/'))) {
        *path = program;
    } else {
        *path = QStandardPaths::findExecutable(program);
        if (path->isEmpty()) {
            // findExecutable skips files without execute permission; say which it is.
            for (const QString& dir : QString::fromLocal8Bit(qgetenv("PATH")).split(QLatin1Char(':'))) {
                const QFileInfo candidate(QDir(dir.isEmpty() ? QStringLiteral(".") : dir), program);
                if (candidate.isFile()) {
                    *error = QStringLiteral("%1 is not executable").arg(candidate.filePath());
                    return false;
                }
            }
            *error = QStringLiteral("no such program: %1 (not found in PATH)").arg(program);
            return false;
        }
    }
    const QFileInfo info(*path);
    if (!info.exists()) {
        *error = QStringLiteral("no such program: %1").arg(program);
        return false;
    }
    if (info.isDir() || access(QFile::encodeName(*path).constData(), X_OK) != 0) {
        *error = QStringLiteral("%1 is not executable").arg(program);
        return false;
    }
    return true;
}

// The interpreter line of a script ("#!/usr/bin/python3 -u"), empty for
// anything else; `head` gets the start of the file.
QString interpreterLine(const QString& path, QByteArray* head = nullptr)
{
    QFile file(path);
    const QByteArray start = file.open(QIODevice::ReadOnly) ? file.read(2048) : QByteArray();
    if (head)
        *head = start;
    if (!start.startsWith("#!"))
        return QString();
    const int end = start.indexOf('\n');
    return QString::fromLocal8Bit(start.mid(2, end < 0 ? -1 : end - 2)).trimmed();
}

// What runs when `program` is started: the program itself, or for a script
// its interpreter, with what the kernel puts before the script's arguments
// (the interpreter's argument, the script). The interpreter does a script's
// work in the same process, so that is what is sampled; a shell does it in
// the programs it starts, or by becoming another program (/usr/bin/7z execs
// the real 7z), and neither is seen from the shell's process.
bool resolveProgram(const QString& program, QString* path, QStringList* leading, QString* error)
{
    leading->clear();
    if (!findProgram(program, path, error))
        return false;
    QByteArray head;
    const QString line = interpreterLine(*path, &head);
    if (line.isEmpty())
        return true;
    const auto unusable = [&](const QString& why) {
        *error = QStringLiteral("%1 is a script (#!%2): %3").arg(program, line, why);
        return false;
    };
    // The kernel passes what follows the interpreter as one argument; env
    // finds its program in PATH, and splits its words with -S.
    const int space = line.indexOf(QRegularExpression(QStringLiteral("\\s")));
    QString interpreter = space < 0 ? line : line.left(space);
    QStringList arguments;
    if (space >= 0)
        arguments << line.mid(space + 1).trimmed();
    if (QFileInfo(interpreter).fileName() == QLatin1String("env") && !arguments.isEmpty()) {
        QStringList words = arguments.first().split(QRegularExpression(QStringLiteral("\\s+")), Qt::SkipEmptyParts);
        if (words.first() == QLatin1String("-S"))
            words.removeFirst();
        if (words.isEmpty() || words.first().startsWith(QLatin1Char('-')) || words.first().contains(QLatin1Char('=')))
            return unusable(QStringLiteral("zor can't start it as env would: profile its interpreter with the script as "
                                           "an argument"));
        interpreter = words.takeFirst();
        arguments = words;
    }
    QString found;
    QString why;
    if (!findProgram(interpreter, &found, &why))
        return unusable(why);
    static const QStringList shells = { "sh", "bash", "dash", "zsh", "ksh", "mksh", "csh", "tcsh", "fish", "busybox" };
    if (shells.contains(QFileInfo(found).fileName())) {
        // An uninstalled program of a build that uses libtool is such a
        // script, which sets up the build's libraries and execs the program.
        static const QRegularExpression libtool(QStringLiteral("temporary wrapper script for (\\S+)"));
        const QRegularExpressionMatch wrapped = libtool.match(QString::fromLocal8Bit(head));
        if (wrapped.hasMatch())
            return unusable(QStringLiteral("libtool's wrapper of %1: run zor through libtool, which sets up the "
                                           "build's libraries for it: libtool --mode=execute zor profile -- %2")
                                .arg(wrapped.captured(1), program));
        return unusable(QStringLiteral("a shell script's work is done by the programs that it runs, which zor doesn't "
                                       "sample: profile the program that it runs"));
    }
    if (!interpreterLine(found).isEmpty())
        return unusable(QStringLiteral("its interpreter is a script too: profile the program that runs it"));
    *path = found;
    *leading = arguments;
    *leading << program;
    return true;
}

// The libraries a 64-bit ELF program names as needed; empty for anything else
// (a script, a damaged file), which then starts as it would without a look.
QStringList neededLibraries(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() < qint64(sizeof(Elf64_Ehdr)))
        return {};
    const uchar* data = file.map(0, file.size());
    if (!data)
        return {};
    const quint64 size = quint64(file.size());
    const auto* header = reinterpret_cast<const Elf64_Ehdr*>(data);
    if (std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 || header->e_ident[EI_CLASS] != ELFCLASS64
        || header->e_shentsize != sizeof(Elf64_Shdr) || header->e_shoff > size
        || (size - header->e_shoff) / sizeof(Elf64_Shdr) < header->e_shnum)
        return {};
    const auto* sections = reinterpret_cast<const Elf64_Shdr*>(data + header->e_shoff);
    QStringList needed;
    for (int i = 0; i < header->e_shnum; ++i) {
        const Elf64_Shdr& dynamic = sections[i];
        if (dynamic.sh_type != SHT_DYNAMIC || dynamic.sh_link >= header->e_shnum)
            continue;
        const Elf64_Shdr& strings = sections[dynamic.sh_link];
        if (dynamic.sh_offset > size || dynamic.sh_size > size - dynamic.sh_offset || strings.sh_offset > size
            || strings.sh_size > size - strings.sh_offset)
            return {};
        const auto* entries = reinterpret_cast<const Elf64_Dyn*>(data + dynamic.sh_offset);
        const char* names = reinterpret_cast<const char*>(data + strings.sh_offset);
        for (quint64 e = 0; e < dynamic.sh_size / sizeof(Elf64_Dyn) && entries[e].d_tag != DT_NULL; ++e) {
            const quint64 at = entries[e].d_un.d_val;
            if (entries[e].d_tag == DT_NEEDED && at < strings.sh_size)
                needed << QString::fromLatin1(names + at, int(qstrnlen(names + at, uint(strings.sh_size - at))));
        }
    }
    return needed;
}

// An OpenSHMEM program started by mpirun runs, but its calls go uncounted:
// such a program goes through oshrun as if --shmem had been given.
bool usesOpenShmem(const QString& program)
{
    const QStringList needed = neededLibraries(program);
    return std::any_of(needed.begin(), needed.end(), [](const QString& library) {
        return library.startsWith(QLatin1String("liboshmem.")) || library.startsWith(QLatin1String("libsma."));
    });
}

QString defaultOutput(const QString& program, const QDateTime& started)
{
    return QStringLiteral("%1-%2.zor")
        .arg(QFileInfo(program).fileName(), started.toLocalTime().toString(QStringLiteral("yyyyMMdd-HHmmss")));
}

// zor-host lies beside zor, in the build tree and in an installed prefix
// alike; it finds the plug-in, the sampler and the MPI wrapper the same way.
QString hostProgram()
{
    return QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("zor-host"));
}

// The hosts don't take Ctrl-C from the terminal: zor turns it into a stop
// of sampling, after which it still needs them for the result.
class HostProcess : public QProcess
{
protected:
    void setupChildProcess() override { signal(SIGINT, SIG_IGN); }
};

const int SampleBlockSize = 64;
const int ConnectTimeoutMs = 120000;
const int EndTimeoutMs = 30000;
// The longest a host may take to answer a command once the program has
// stopped being sampled: reading, analysing and sending its samples.
const int AnswerTimeoutMs = 240000;
// When a rank aborts, mpirun asks every host to end, and kills them this
// many seconds later; it waits as long again before asking. The hosts
// deliver what was sampled in that time.
const int LauncherKillDelayS = 20;
const int UnknownEndGraceMs = 20000;

class ProfileRun : public QObject
{
public:
    ProfileRun(const ProfileOptions& options, const QString& program, const QStringList& leading)
        : mOptions(options)
        , mProgram(program)
        , mLeading(leading)
        , mRanks(std::max(1, options.processes))
    {
        connect(&mInterrupts, &InterruptWatcher::interrupted, this, &ProfileRun::interrupted);
    }
    ~ProfileRun() override { abortHosts(); }

    // The exit status of zor.
    int run();

private:
    bool start(QString* error);
    bool connectHosts(QString* error);
    // Runs the event loop until `done` holds; false, with a message, when
    // a host broke, the hosts' launcher ended early, or the run was aborted.
    bool waitUntil(const std::function<bool()>& done, int timeoutMs, const QString& what, QString* error);
    // Sends the command to every host and waits for all answers, at most
    // `timeoutMs` (< 0: as long as the program runs, and AnswerTimeoutMs
    // once sampling was asked to stop).
    // With `dropFailed`, a rank whose answer is a failure is told on
    // standard error and left out of the rest of the run, as long as one
    // rank answered.
    bool everyHost(const Command& command, QList<std::shared_ptr<Response>>* answers, QString* error,
                   int timeoutMs = AnswerTimeoutMs, const std::function<void()>& whileWaiting = nullptr,
                   bool dropFailed = false);
    // Sends the command to every host now, to run right behind those before
    // it in the hosts' queues, without waiting for a round trip each; a
    // later everyHost of the same command waits for these answers.
    void sendAhead(const Command& command);
    void stopSampling();
    // Waits, at most `timeoutMs`, for the launcher to end.
    bool waitForLauncher(int timeoutMs);
    // While the ranks play: a rank whose program died stops sampling on the
    // others, which would otherwise wait for it in MPI for ever.
    void stopOthersIfARankDied();
    void interrupted(int count);
    void abortHosts();
    void showProgress();
    int programStatus() const;

    ProfileOptions mOptions;
    QString mProgram;
    // Before the user's arguments: a script's interpreter takes the script.
    QStringList mLeading;
    int mRanks;
    QTemporaryDir mDirectory{ QDir(QDir::tempPath()).filePath(QStringLiteral("zor-XXXXXX")) };
    HostListener mListener;
    HostProcess mLauncher;
    QList<HostConnection*> mHosts;
    QList<HostConnection*> mDroppedHosts;
    const ResponseFactoryPlugin* mFactory = nullptr;
    InterruptWatcher mInterrupts;
    ProgressLine mProgress;
    QElapsedTimer mClock;
    QString mPhase;
    bool mPlaying = false;
    bool mStopping = false;
    bool mAborted = false;
    bool mRankFailed = false;
    QElapsedTimer mStopSent;
    QSet<int> mAnnounced; // ranks whose failed end was told
    QHash<QString, QList<int>> mSentAhead; // by command name: its uid on each host
    std::unique_ptr<SampleEncoder> mEncoder;
};

bool ProfileRun::start(QString* error)
{
    const QString host = hostProgram();
    if (!QFileInfo(host).isExecutable()) {
        *error = QStringLiteral("cannot find zor-host beside zor (looked for %1)").arg(host);
        return false;
    }
    if (!mDirectory.isValid()) {
        *error = QStringLiteral("cannot make a temporary directory in %1: %2").arg(QDir::tempPath(), mDirectory.errorString());
        return false;
    }
    // Hosts on other nodes can't reach a local socket: they call over TCP,
    // on an address of this node that the first of them reaches.
    QString remote;
    const bool tcp = mOptions.tcp
        || (mOptions.processes > 0
            && hostsElsewhere(mOptions.hosts, mOptions.hostfile, QProcessEnvironment::systemEnvironment(), &remote));
    const bool listening = tcp ? mListener.listenTcp(mOptions.tcpAddress.isEmpty() ? reachableAddress(remote)
                                                                                    : mOptions.tcpAddress,
                                                     error)
                               : mListener.listenLocal(mDirectory.filePath(QStringLiteral("hosts")), error);
    if (!listening)
        return false;
    // Where a firewall must let the hosts of other nodes through.
    if (tcp && !mOptions.reports.quiet)
        fprintf(stderr, "zor: the hosts call %s\n", qPrintable(mListener.address()));
    connect(&mListener, &HostListener::refused, this, [this](const QString& why) {
        mProgress.clear();
        complain(QStringLiteral("refused a connection: %1").arg(why));
    });
    connect(&mListener, &HostListener::newConnection, this, [this]() {
        while (QIODevice* socket = mListener.nextConnection()) {
            HostConnection* connection = new HostConnection(socket, mFactory, this);
            connect(connection, &HostConnection::notice, this, [this](const QString& text) {
                mProgress.clear();
                complain(text);
            });
            mHosts.append(connection);
        }
    });

    // The program keeps zor's environment, working directory and standard
    // streams; the hosts learn where to call through the environment, which
    // the MPI launcher passes on to every rank.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // A setting's first spelling would win over zor's.
    environment.remove(QStringLiteral("KLB_FRONTEND"));
    environment.remove(QStringLiteral("KLB_FRONTEND_TOKEN"));
    environment.insert(QStringLiteral("ZOR_FRONTEND"), mListener.address());
    environment.insert(QStringLiteral("ZOR_FRONTEND_TOKEN"), QString::fromLatin1(mListener.token()));
    // The summary counts the samples whose stacks couldn't be walked; the
    // hosts' own lines about them (and the stacks) only for one who asked.
    environment.remove(QStringLiteral("KLB_SUPPRESS_REPORTS"));
    if (!EnvSwitch("VERBOSE_UNWIND_ERRORS").isSet() && !EnvSwitch("DEBUG").isSet())
        environment.insert(QStringLiteral("ZOR_SUPPRESS_REPORTS"), QStringLiteral("1"));
    const QString killDelay = QStringLiteral("OMPI_MCA_odls_base_sigkill_timeout");
    if (mOptions.processes > 0 && !environment.contains(killDelay))
        environment.insert(killDelay, QString::number(LauncherKillDelayS));
    if (mOptions.shmem) {
        environment.remove(QStringLiteral("KLB_SHMEM"));
        environment.insert(QStringLiteral("ZOR_SHMEM"), QStringLiteral("1"));
        // Open MPI 4.1's one-sided component of RDMA frees memory at the end
        // of an OpenSHMEM program through a hook that UCX has unloaded by
        // then, and the program dies of SIGSEGV in shmem_finalize: the
        // program needs none of it.
        const QString oneSided = QStringLiteral("OMPI_MCA_osc");
        if (!environment.contains(oneSided))
            environment.insert(oneSided, QStringLiteral("^rdma"));
    }
    mLauncher.setProcessEnvironment(environment);
    mLauncher.setProcessChannelMode(QProcess::ForwardedChannels);
    mLauncher.setInputChannelMode(QProcess::ForwardedInputChannel);
    QStringList arguments;
    QString launcher = host;
    if (mOptions.processes > 0) {
        // oshrun is Open MPI's launcher for OpenSHMEM programs, and takes
        // mpirun's options.
        const QString name = mOptions.shmem ? QStringLiteral("oshrun") : QStringLiteral("mpirun");
        launcher = QStandardPaths::findExecutable(name);
        if (launcher.isEmpty()) {
            *error = QStringLiteral("-n needs the launcher %1, which is not in PATH").arg(name);
            return false;
        }
        arguments << QStringLiteral("-n") << QString::number(mOptions.processes) << QStringLiteral("--oversubscribe");
        for (const QString& hosts : qAsConst(mOptions.hosts))
            arguments << QStringLiteral("--host") << hosts;
        if (!mOptions.hostfile.isEmpty())
            arguments << QStringLiteral("--hostfile") << mOptions.hostfile;
        // mpirun hands the environment to the ranks of other nodes only as
        // told; the token goes by name, never on a command line.
        arguments << QStringLiteral("-x") << QStringLiteral("ZOR_FRONTEND") << QStringLiteral("-x")
                  << QStringLiteral("ZOR_FRONTEND_TOKEN");
        if (mOptions.shmem)
            arguments << QStringLiteral("-x") << QStringLiteral("ZOR_SHMEM");
        if (geteuid() == 0)
            arguments << QStringLiteral("--allow-run-as-root");
        arguments << host;
    }
    arguments << QStringLiteral("--") << mProgram << mLeading << mOptions.arguments;
    mLauncher.start(launcher, arguments);
    if (!mLauncher.waitForStarted(30000)) {
        *error = QStringLiteral("cannot start %1: %2").arg(launcher, mLauncher.errorString());
        return false;
    }
    // The plug-in reads the hosts' answers, the first of which comes after
    // the host has started its program: it loads meanwhile.
    QString why;
    QuorvexTreeserverPlugin* treeserver = loadTreeserverPlugin(defaultProfilerPluginPath(), &why);
    Command init(QStringLiteral("init"), QString::fromLatin1(XML_TARGET_PROFILER));
    if (!treeserver || !treeserver->init(init) || !(mFactory = treeserver->getResponseFactoryPlugin())) {
        *error = why.isEmpty() ? QStringLiteral("the profiler plug-in has no response factory") : why;
        mLauncher.terminate();
        return false;
    }
    return true;
}

bool ProfileRun::waitUntil(const std::function<bool()>& done, int timeoutMs, const QString& what, QString* error)
{
    QElapsedTimer waited;
    waited.start();
    QTimer tick;
    connect(&tick, &QTimer::timeout, this, &ProfileRun::showProgress);
    tick.start(200);
    while (!done()) {
        if (mAborted) {
            *error = QStringLiteral("aborted");
            return false;
        }
        for (HostConnection* host : qAsConst(mHosts)) {
            if (host->isBroken()) {
                *error = QStringLiteral("%1%2 while %3")
                             .arg(mRanks > 1 ? QStringLiteral("rank %1: ").arg(host->rank()) : QString(),
                                  host->brokenReason(), what);
                return false;
            }
        }
        if (mLauncher.state() == QProcess::NotRunning && mHosts.size() + mDroppedHosts.size() < mRanks) {
            *error = QStringLiteral("zor-host ended (status %1) before %2").arg(mLauncher.exitCode()).arg(what);
            return false;
        }
        if (timeoutMs >= 0 && waited.elapsed() > timeoutMs) {
            *error = QStringLiteral("no answer from the hosts within %1 s while %2").arg(timeoutMs / 1000).arg(what);
            return false;
        }
        if (timeoutMs < 0 && mStopSent.isValid() && mStopSent.elapsed() > AnswerTimeoutMs) {
            *error = QStringLiteral("no answer from the hosts within %1 s of stopping sampling, while %2")
                         .arg(AnswerTimeoutMs / 1000)
                         .arg(what);
            return false;
        }
        // The two-argument processEvents drops WaitForMoreEvents and spins; the tick above bounds the sleep.
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

bool ProfileRun::connectHosts(QString* error)
{
    mPhase = QStringLiteral("starting");
    const auto hellos = [this]() {
        int n = 0;
        for (HostConnection* host : qAsConst(mHosts))
            n += host->hasHello() ? 1 : 0;
        return n >= mRanks;
    };
    if (!waitUntil(hellos, ConnectTimeoutMs, QStringLiteral("starting the program"), error))
        return false;
    std::sort(mHosts.begin(), mHosts.end(), [](HostConnection* a, HostConnection* b) { return a->rank() < b->rank(); });
    for (HostConnection* host : qAsConst(mHosts)) {
        const QString failure = host->hello().value(QString::fromLatin1(HelloKeys::Error)).toString();
        if (!failure.isEmpty()) {
            *error = mRanks > 1 ? QStringLiteral("rank %1: %2").arg(host->rank()).arg(failure) : failure;
            return false;
        }
    }
    return true;
}

bool ProfileRun::everyHost(const Command& command, QList<std::shared_ptr<Response>>* answers, QString* error,
                           int timeoutMs, const std::function<void()>& whileWaiting, bool dropFailed)
{
    QList<int> uids = mSentAhead.take(command.name);
    if (uids.size() != mHosts.size()) {
        uids.clear();
        for (HostConnection* host : qAsConst(mHosts)) {
            uids.append(host->send(command));
            host->flush();
        }
    }
    const auto answered = [&]() {
        if (whileWaiting)
            whileWaiting();
        for (int i = 0; i < mHosts.size(); ++i)
            if (!mHosts.at(i)->hasAnswer(uids.at(i)))
                return false;
        return true;
    };
    if (!waitUntil(answered, timeoutMs, QStringLiteral("waiting for %1").arg(command.name), error)) {
        QStringList silent;
        for (int i = 0; i < mHosts.size(); ++i)
            if (!mHosts.at(i)->hasAnswer(uids.at(i)) && !mHosts.at(i)->isBroken())
                silent << QString::number(mHosts.at(i)->rank());
        if (mRanks > 1 && !silent.isEmpty() && error->startsWith(QLatin1String("no answer")))
            *error += QStringLiteral(" (ranks that didn't answer: %1)").arg(silent.join(QLatin1Char(',')));
        return false;
    }
    answers->clear();
    QList<HostConnection*> answering;
    for (int i = 0; i < mHosts.size(); ++i) {
        HostConnection* host = mHosts.at(i);
        if (!host->failure(uids.at(i)).isEmpty()) {
            *error = mRanks > 1 ? QStringLiteral("rank %1: %2").arg(host->rank()).arg(host->failure(uids.at(i)))
                                : host->failure(uids.at(i));
            if (!dropFailed)
                return false;
            mProgress.clear();
            fprintf(stderr, "zor: %s; the result leaves it out\n", qPrintable(*error));
            mDroppedHosts.append(host);
            continue;
        }
        answering.append(host);
        answers->append(host->answer(uids.at(i)));
    }
    if (answering.isEmpty())
        return false;
    mHosts = answering;
    return true;
}

void ProfileRun::sendAhead(const Command& command)
{
    QList<int>& uids = mSentAhead[command.name];
    uids.clear();
    for (HostConnection* host : qAsConst(mHosts)) {
        uids.append(host->send(command));
        host->flush();
    }
}

void ProfileRun::stopOthersIfARankDied()
{
    if (mStopping || mRanks < 2)
        return;
    bool othersRun = false;
    for (HostConnection* host : qAsConst(mHosts))
        othersRun = othersRun || !host->targetEnded();
    for (HostConnection* host : qAsConst(mHosts)) {
        if (!host->targetEnded())
            continue;
        // A rank whose end the host couldn't read counts as failed once the
        // others have had time to end as well: ranks that finish together
        // leave MPI_Finalize together.
        const bool unknown = !host->exitStatusKnown() && othersRun
            && host->msSinceTargetEnded() > UnknownEndGraceMs;
        if (!unknown && host->exitSignal() == 0 && host->exitCode() == 0)
            continue;
        mProgress.clear();
        const QString how = unknown ? QStringLiteral("ended %1 s ago, how is unknown, while others run")
                                          .arg(host->msSinceTargetEnded() / 1000)
            : host->exitSignal() > 0 ? QStringLiteral("died of signal %1").arg(host->exitSignal())
                                     : QStringLiteral("ended with status %1").arg(host->exitCode());
        fprintf(stderr, "zor: the program of rank %d %s; stopping sampling on the other ranks\n", host->rank(),
                qPrintable(how));
        mAnnounced.insert(host->rank());
        mRankFailed = true;
        stopSampling();
        return;
    }
}

void ProfileRun::showProgress()
{
    if (!mProgress.enabled() || mPhase.isEmpty())
        return;
    const QString elapsed = QStringLiteral("%1 s").arg(mClock.elapsed() / 1000.0, 0, 'f', 1);
    bool analysing = false;
    int percent = 0;
    for (HostConnection* host : qAsConst(mHosts)) {
        analysing = analysing || host->runOver();
        percent += host->analysisPercent();
    }
    if (mPlaying && analysing)
        mProgress.show(QStringLiteral("zor: analysing"), mHosts.isEmpty() ? 0 : percent / mHosts.size());
    else if (mPlaying)
        mProgress.show(QStringLiteral("zor: %1 running, %2%3")
                           .arg(QFileInfo(mOptions.program).fileName(), elapsed,
                                mStopping ? QStringLiteral(", stopping") : QStringLiteral(" (Ctrl-C stops)")));
    else
        mProgress.show(QStringLiteral("zor: %1").arg(mPhase));
}

void ProfileRun::interrupted(int count)
{
    mProgress.clear();
    if (count == 1 && mPlaying) {
        fprintf(stderr, "zor: stopping sampling; Ctrl-C again aborts\n");
        stopSampling();
        return;
    }
    fprintf(stderr, "zor: aborted\n");
    mAborted = true;
}

void ProfileRun::stopSampling()
{
    // A host whose program ended has stopped already.
    mStopping = true;
    mStopSent.start();
    for (HostConnection* host : qAsConst(mHosts)) {
        if (host->targetEnded())
            continue;
        host->sendWithoutAnswer(Command(QString::fromLatin1(CMD_ZOR_STOP), QString::fromLatin1(XML_TARGET_PROFILER)));
        host->flush();
    }
}

bool ProfileRun::waitForLauncher(int timeoutMs)
{
    QElapsedTimer waited;
    waited.start();
    while (mLauncher.state() != QProcess::NotRunning && waited.elapsed() < timeoutMs) {
        showProgress();
        mLauncher.waitForFinished(200);
    }
    return mLauncher.state() == QProcess::NotRunning;
}

void ProfileRun::abortHosts()
{
    if (mLauncher.state() == QProcess::NotRunning)
        return;
    // A host whose connection closes ends the program and its debugger and
    // removes the run's files; asked to end, a host that hasn't connected
    // does the same. Whatever is left after a while is killed.
    QList<int> pids;
    for (HostConnection* host : mHosts + mDroppedHosts) {
        for (const char* key : { HelloKeys::TargetPid, HelloKeys::DebuggerPid }) {
            const int pid = host->hello().value(QString::fromLatin1(key), 0).toInt();
            if (pid > 0)
                pids << pid;
        }
        delete host;
    }
    mHosts.clear();
    mDroppedHosts.clear();
    if (waitForLauncher(mRanks > 1 ? 5000 : 10000))
        return;
    // mpirun, asked to end, ends its hosts in its own time.
    mLauncher.terminate();
    if (waitForLauncher(mRanks > 1 ? 2 * LauncherKillDelayS * 1000 + 10000 : 10000))
        return;
    for (int pid : pids)
        ::kill(pid, SIGKILL);
    mLauncher.kill();
    mLauncher.waitForFinished(5000);
}

int ProfileRun::programStatus() const
{
    const QList<HostConnection*> all = mHosts + mDroppedHosts;
    for (HostConnection* host : all) {
        if (host->targetEnded() && host->exitSignal() > 0)
            return 128 + host->exitSignal();
    }
    for (HostConnection* host : all) {
        if (host->targetEnded() && host->exitCode() != 0)
            return host->exitCode();
    }
    return 0;
}

int ProfileRun::run()
{
    mClock.start();
    // zor ends right after the run: the result's samples and their tens of
    // thousands of nodes go with the process, not one by one before it.
    Result& result = *new Result;
    result.run.program = mOptions.program;
    result.run.arguments = mOptions.arguments;
    result.run.started = QDateTime::currentDateTimeUtc();
    result.run.intervalMs = mOptions.intervalMs;
    result.run.samplesPerProcess = mOptions.samples;
    // The program inherits zor's processors; the ranks of a launcher may
    // have others, on other nodes.
    cpu_set_t usable;
    if (mOptions.processes == 0 && sched_getaffinity(0, sizeof usable, &usable) == 0)
        result.run.cpus = CPU_COUNT(&usable);
    if (mOptions.output.isEmpty())
        mOptions.output = defaultOutput(mOptions.program, result.run.started);

    QString error;
    const auto fail = [&](int status) {
        mProgress.clear();
        if (!mAborted)
            complain(error);
        abortHosts();
        return status;
    };
    if (!start(&error))
        return fail(1);
    if (!connectHosts(&error))
        return fail(mAborted ? 130 : 1);

    // The run: the program runs to its end, or until Ctrl-C stops sampling,
    // and each host analyses what its sampler recorded.
    Command play(QString::fromLatin1(CMD_ZOR_PLAY), QString::fromLatin1(XML_TARGET_PROFILER));
    play.addParameter(QStringLiteral("numSamples"), mOptions.samples);
    play.addParameter(QStringLiteral("initialInterval"), mOptions.intervalMs);
    QVariantMap metrics;
    if (mOptions.processes > 0) {
        // Time in MPI calls per sample, which the MPI wrapper counts.
        metrics.insert(QString::fromLatin1(METRIC_MPI_TIME_IN_CALL),
                       QVariantMap{{QStringLiteral("displayName"), QStringLiteral("Time in MPI")},
                                   {QStringLiteral("units"), QStringLiteral("ns")}});
    }
    play.addParameter(QStringLiteral("metricDefinitions"), metrics);
    if (!mOptions.selectedRanks.isEmpty())
        play.addParameter(QStringLiteral("selectedRanks"), mOptions.selectedRanks);
    QList<std::shared_ptr<Response>> answers;
    mPlaying = true;
    mClock.restart();
    const bool played = everyHost(play, &answers, &error, -1, [this]() { stopOthersIfARankDied(); }, mRanks > 1);
    mPlaying = false;
    if (!played)
        return fail(mAborted ? 130 : 1);
    mPhase = QStringLiteral("collecting samples");
    long long duration = 0;
    for (int i = 0; i < mHosts.size(); ++i) {
        RankResult rank;
        if (auto response = std::dynamic_pointer_cast<ProfilerPlayResponse>(answers.at(i)))
            rank.play = *response;
        duration = std::max(duration, rank.play.duration());
        result.ranks.append(rank);
    }
    // Only the user's stop counts: a program that ends also ends a run.
    result.run.interrupted = mStopping;
    result.run.wallMs = duration;
    // The programs' own CPU time, where every rank's is known and kept.
    bool processCpuKnown = mOptions.selectedRanks.isEmpty();
    qint64 processCpuMs = 0;
    for (HostConnection* host : qAsConst(mHosts)) {
        processCpuKnown = processCpuKnown && host->processCpuMs() >= 0;
        processCpuMs += std::max<qint64>(host->processCpuMs(), 0);
        if (host->targetEnded())
            result.run.programMs = std::max(result.run.programMs, mClock.elapsed() - host->msSinceTargetEnded());
        if (host->childrenCpuMs() >= 0)
            result.run.childrenCpuMs = std::max<qint64>(result.run.childrenCpuMs, 0) + host->childrenCpuMs();
    }
    if (processCpuKnown && !mHosts.isEmpty())
        result.run.processCpuMs = processCpuMs;

    // The same number of samples from every rank, on one time axis.
    Command send(QString::fromLatin1(CMD_ZOR_SEND_SAMPLES), QString::fromLatin1(XML_TARGET_PROFILER));
    send.addParameter(QStringLiteral("blockSize"), SampleBlockSize);
    send.addParameter(QStringLiteral("numSamples"), mOptions.samples);
    send.addParameter(QStringLiteral("numBlocks"), (mOptions.samples + SampleBlockSize - 1) / SampleBlockSize);
    send.addParameter(QStringLiteral("duration"), duration);
    const Command metricErrors(QString::fromLatin1(CMD_ZOR_SEND_METRIC_ERRORS), QString::fromLatin1(XML_TARGET_PROFILER));
    const Command endMetrics(QString::fromLatin1(CMD_ZOR_SEND_EXTERNAL_METRICS), QString::fromLatin1(XML_TARGET_PROFILER));
    // The last questions go right behind the samples' command: the hosts
    // answer them as soon as the samples are out.
    mEncoder.reset(new SampleEncoder);
    for (HostConnection* host : qAsConst(mHosts))
        host->encodeBlocksWith(mEncoder.get());
    sendAhead(send);
    sendAhead(metricErrors);
    sendAhead(endMetrics);
    if (!everyHost(send, &answers, &error))
        return fail(mAborted ? 130 : 1);
    QList<QList<Sample>> samples;
    QList<QList<int>> tickets;
    for (int i = 0; i < mHosts.size(); ++i) {
        tickets.append(QList<int>());
        samples.append(mHosts.at(i)->takeSamples(&tickets.last()));
        result.ranks[i].samples = samples.last();
    }
    // The file's samples were encoded as their blocks came in; what is
    // left is finished while the run's last answers come in.
    SampleEncoder* encoder = mEncoder.get();
    std::future<QList<ResultFile::EncodedSamples>> encodedSamples =
        std::async(std::launch::async, [samples, tickets, encoder]() {
            QList<ResultFile::EncodedSamples> encoded;
            for (int i = 0; i < samples.size(); ++i)
                encoded.append(tickets.at(i).isEmpty() ? ResultFile::encodeSamples(samples.at(i))
                                                       : encoder->take(tickets.at(i)));
            return encoded;
        });

    if (!everyHost(metricErrors, &answers, &error))
        return fail(mAborted ? 130 : 1);
    for (int i = 0; i < mHosts.size(); ++i) {
        if (auto errors = std::dynamic_pointer_cast<SendMetricErrorsResponse>(answers.at(i)))
            result.ranks[i].metricErrors = *errors;
    }
    if (!everyHost(endMetrics, &answers, &error))
        return fail(mAborted ? 130 : 1);
    for (int i = 0; i < mHosts.size(); ++i) {
        if (auto metrics = std::dynamic_pointer_cast<SendMetricsCollectedAtTheEndResponse>(answers.at(i)))
            result.ranks[i].endMetrics = *metrics;
    }

    // Finished: the hosts let go of the program, which ends, or is ended
    // when the connection closes if sampling was stopped early.
    mPhase = QStringLiteral("finishing");
    for (HostConnection* host : qAsConst(mHosts)) {
        host->sendWithoutAnswer(Command(QString::fromLatin1(CMD_ZOR_FINISH), QString::fromLatin1(XML_TARGET_PROFILER)));
        host->flush();
    }
    if (!result.run.interrupted) {
        QString ignored;
        waitUntil([this]() {
            for (HostConnection* host : qAsConst(mHosts))
                if (!host->targetEnded() && !host->isBroken())
                    return false;
            return true;
        }, EndTimeoutMs, QStringLiteral("waiting for the program to end"), &ignored);
    }
    result.run.exitStatus = programStatus();
    for (HostConnection* host : mHosts + mDroppedHosts) {
        if (host->targetEnded() && host->exitSignal() > 0 && result.run.exitSignal == 0)
            result.run.exitSignal = host->exitSignal();
    }
    // A failed end learnt only once the run was over (mpirun had the hosts
    // stop first) is told too.
    for (HostConnection* host : mHosts + mDroppedHosts) {
        if (mRanks < 2 || !host->targetEnded() || mAnnounced.contains(host->rank())
            || (host->exitSignal() == 0 && host->exitCode() == 0))
            continue;
        mProgress.clear();
        fprintf(stderr, "zor: the program of rank %d %s\n", host->rank(),
                qPrintable(host->exitSignal() > 0 ? QStringLiteral("died of signal %1").arg(host->exitSignal())
                                                  : QStringLiteral("ended with status %1").arg(host->exitCode())));
        mAnnounced.insert(host->rank());
    }
    bool allEnded = true;
    for (HostConnection* host : qAsConst(mHosts))
        allEnded = allEnded && host->targetEnded();
    // Closing the connections lets the hosts end.
    for (HostConnection* host : mHosts + mDroppedHosts)
        delete host;
    mHosts.clear();
    mDroppedHosts.clear();
    // After a rank failed, mpirun ends the other hosts in its own time. A
    // lone host's end tells nothing more: it ends (letting go of its
    // debugger) while the result is written and summarised.
    const bool launcherTells = mOptions.processes > 0;
    mPhase = QStringLiteral("waiting for %1 to end").arg(QFileInfo(mLauncher.program()).fileName());
    if (launcherTells && !waitForLauncher(mRankFailed ? 2 * LauncherKillDelayS * 1000 + 10000 : EndTimeoutMs))
        abortHosts();
    mPhase.clear();
    mProgress.clear();
    // A program stopped by Ctrl-C, which the hosts then end, ends as a
    // shell would say.
    if (result.run.exitStatus == 0 && mStopping && !mRankFailed && !allEnded)
        result.run.exitStatus = 128 + SIGINT;
    if (result.run.exitStatus == 0 && mLauncher.exitStatus() == QProcess::NormalExit && launcherTells)
        result.run.exitStatus = mLauncher.exitCode();
    // A rank failed in a way its host couldn't read.
    if (result.run.exitStatus == 0 && mRankFailed)
        result.run.exitStatus = 1;

    // The file is written beside the summary, on a thread of its own: both
    // only read the result.
    bool written = false;
    QString fileError;
    std::thread fileWriter(
        [&]() { written = ResultFile::write(mOptions.output, result, &fileError, encodedSamples.get()); });
    bool reported = false;
    {
        const Profile profile(result);
        reported = writeReports(profile, mOptions.reports, stderr, &error);
    }
    fileWriter.join();
    if (!written)
        complain(fileError);
    if (!reported)
        complain(error);
    if (!written || !reported)
        return 1;
    if (!mOptions.reports.quiet)
        fprintf(stderr, "Result: %s (zor report %s shows it again)\n", qPrintable(mOptions.output),
                qPrintable(shellWord(mOptions.output)));
    if (!launcherTells && !waitForLauncher(EndTimeoutMs))
        abortHosts();
    return result.run.exitStatus;
}

} // namespace

int runProfileCommand(const QStringList& args)
{
    ProfileOptions options;
    const int status = parse(args, &options);
    if (status != 0)
        return status < 0 ? 0 : status;
    QString program;
    QStringList leading;
    QString error;
    if (!resolveProgram(options.program, &program, &leading, &error)) {
        complain(error);
        return 127;
    }
    if (options.processes > 0 && !options.shmem && usesOpenShmem(program))
        options.shmem = true;
    ProfileRun run(options, program, leading);
    return run.run();
}
