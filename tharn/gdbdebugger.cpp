#include "gdbdebugger.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QSocketNotifier>
#include <QStandardPaths>
#include <QThread>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "constants.h"
#include "debuggertypes.h"
#include "envswitch.h"
#include "exception.h"
#include "platformnames.h"

namespace {

// The sampler takes its samples on this signal and on SIGPROF; both reach
// the target without gdb stopping or saying a word.
int samplerSignal()
{
    return SIGRTMAX - 3;
}

// gdb's name of a signal given by number.
QString gdbSignalName(int number)
{
    if (number >= SIGRTMIN)
        return QStringLiteral("SIG%1").arg(number);
    return QString::fromLatin1(sigabbrev_np(number)).prepend(QStringLiteral("SIG"));
}

// An argument as the shell that starts the program reads it.
QString argumentWord(const QString& argument)
{
    QString word = argument;
    word.replace(QLatin1Char('\''), QLatin1String("'\\''"));
    return QLatin1Char('\'') + word + QLatin1Char('\'');
}

QString stopEvent(const MiRecord& record, int pid)
{
    const QString reason = record.results.str(QStringLiteral("reason"));
    if (reason == QLatin1String("exited-normally"))
        return QStringLiteral("[Inferior 1 (process %1) exited normally]\n").arg(pid);
    if (reason == QLatin1String("exited"))
        return QStringLiteral("[Inferior 1 (process %1) exited with code %2]\n")
            .arg(pid)
            .arg(record.results.str(QStringLiteral("exit-code")));
    if (reason == QLatin1String("exited-signalled"))
        return QStringLiteral("Program terminated with signal %1, %2.\n")
            .arg(record.results.str(QStringLiteral("signal-name")),
                 record.results.str(QStringLiteral("signal-meaning")));
    if (reason == QLatin1String("signal-received"))
        return QStringLiteral("Program received signal %1, %2.\n")
            .arg(record.results.str(QStringLiteral("signal-name")),
                 record.results.str(QStringLiteral("signal-meaning")));
    return QString();
}

bool isExitReason(const QString& reason)
{
    return reason.startsWith(QLatin1String("exited"));
}

// Whether the files' debug information is read while gdb arms the sampler
// and while the program runs, for a shorter wait at the end, at the price
// of its memory from the start.
bool readsAhead()
{
    static EnvSwitch reduceMemory("REDUCE_MEMORY_USAGE");
    return !reduceMemory.isOn();
}

// gdb in a process group of its own, so that a ^C on the terminal reaches
// the front-end, which stops the run, and not gdb.
// Whether the ELF file at `path` is a program linked statically: one that
// names no program interpreter, so that no dynamic loader runs in it to
// load a preloaded library. False for what isn't ELF (a script).
bool isStaticallyLinked(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray header = file.read(sizeof(Elf64_Ehdr));
    if (header.size() < EI_NIDENT || !header.startsWith(ELFMAG))
        return false;
    const bool wide = header[EI_CLASS] == ELFCLASS64;
    if (header.size() < int(wide ? sizeof(Elf64_Ehdr) : sizeof(Elf32_Ehdr)))
        return false;
    quint64 offset = 0;
    int size = 0, count = 0;
    quint16 type = 0;
    if (wide) {
        Elf64_Ehdr e;
        std::memcpy(&e, header.constData(), sizeof e);
        offset = e.e_phoff, size = e.e_phentsize, count = e.e_phnum, type = e.e_type;
    } else {
        Elf32_Ehdr e;
        std::memcpy(&e, header.constData(), sizeof e);
        offset = e.e_phoff, size = e.e_phentsize, count = e.e_phnum, type = e.e_type;
    }
    if ((type != ET_EXEC && type != ET_DYN) || size < int(sizeof(quint32)) || count <= 0 || !file.seek(qint64(offset)))
        return false;
    const QByteArray headers = file.read(qint64(size) * count);
    if (headers.size() < size * count)
        return false;
    bool loaded = false;
    for (int i = 0; i < count; ++i) {
        quint32 segment = 0;
        std::memcpy(&segment, headers.constData() + qint64(i) * size, sizeof segment);
        if (segment == PT_INTERP)
            return false;
        loaded = loaded || segment == PT_LOAD;
    }
    return loaded;
}

// The descriptors that gdb hands down to the program's shell: its input,
// output and error at 7, 8 and 9, numbers a plain sh can name and close in
// a redirection, so that the program gets them as 0, 1 and 2 alone.
const int ChildChannelBase = 7;

// In a child before exec: the descriptors `channels` (input, output, error)
// become `first`, `first` + 1 and `first` + 2, open across exec.
void handDownChannels(const int channels[3], int first)
{
    // Out of the way first: one may sit where another goes.
    int moved[3];
    for (int i = 0; i < 3; ++i)
        moved[i] = fcntl(channels[i], F_DUPFD_CLOEXEC, first + 3);
    for (int i = 0; i < 3; ++i) {
        if (moved[i] >= 0)
            dup2(moved[i], first + i);
    }
}

class GdbProcess : public QProcess
{
public:
    using QProcess::QProcess;
    // Input, output, error; -1 for none.
    void setChannels(const int channels[3]) { std::copy(channels, channels + 3, mChannels); }

protected:
    void setupChildProcess() override
    {
        setpgid(0, 0);
        if (mChannels[0] < 0 || mChannels[1] < 0 || mChannels[2] < 0)
            return;
        handDownChannels(mChannels, ChildChannelBase);
    }

private:
    int mChannels[3] = {-1, -1, -1};
};


// The environment variable that hands the sampler its end of the arming
// channel.
const char ArmingVariable[] = "ZOR_SAMPLER_ARMING_FD";

// The request of the sampler's channel for a call such as
// `quorvex_init_sampler_now(1000, 20, "/tmp/x", 1, 0, 0)`: a named function
// with integer and string arguments. Empty for any other expression.
QByteArray callRequest(const QString& expression)
{
    static const QRegularExpression call(QStringLiteral("^\\s*(?:\\(int\\)\\s*)?([A-Za-z_]\\w*)\\s*\\((.*)\\)\\s*$"));
    static const QRegularExpression integer(QStringLiteral("^[-+]?(?:0[xX][0-9a-fA-F]+|\\d+)$"));
    const QRegularExpressionMatch match = call.match(expression);
    if (!match.hasMatch())
        return QByteArray();
    QByteArray request = "call " + match.captured(1).toLatin1();
    const QByteArray arguments = match.captured(2).toUtf8();
    int pos = 0;
    int count = 0;
    for (;;) {
        while (pos < arguments.size() && arguments[pos] == ' ')
            ++pos;
        if (pos >= arguments.size())
            break;
        if (++count > 6)
            return QByteArray();
        if (arguments[pos] == '"') {
            QByteArray text;
            if (!parseCString(arguments, &pos, &text) || text.contains('\0'))
                return QByteArray();
            request += " s" + text.toHex();
        } else {
            const int comma = arguments.indexOf(',', pos);
            const QString word = QString::fromUtf8(arguments.mid(pos, comma < 0 ? -1 : comma - pos)).trimmed();
            if (!integer.match(word).hasMatch())
                return QByteArray();
            const bool negative = word.startsWith(QLatin1Char('-'));
            const bool sign = negative || word.startsWith(QLatin1Char('+'));
            bool ok = false;
            const qulonglong magnitude = word.mid(sign ? 1 : 0).toULongLong(&ok, 0);
            if (!ok)
                return QByteArray();
            request += " i" + QByteArray::number(negative ? -qint64(magnitude) : qint64(magnitude));
            pos = comma < 0 ? arguments.size() : comma;
        }
        while (pos < arguments.size() && arguments[pos] == ' ')
            ++pos;
        if (pos >= arguments.size())
            break;
        if (arguments[pos] != ',')
            return QByteArray();
        ++pos;
    }
    if (count == 0 && !match.captured(2).trimmed().isEmpty())
        return QByteArray();
    return request;
}

bool isIdentifier(const QString& text)
{
    static const QRegularExpression identifier(QStringLiteral("^[A-Za-z_]\\w*$"));
    return identifier.match(text).hasMatch();
}

} // namespace

GdbDebugger::GdbDebugger(const Options& options, QObject* parent)
    : QObject(parent)
    , mOptions(options)
    , mDisassembler(mSymbols, 0)
{
    // A target whose gdb is gone comes to this process, which reaps it:
    // nothing is left behind.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

GdbDebugger::~GdbDebugger()
{
    terminate();
    closeChildEnds();
    for (int fd : mOutput) {
        if (fd >= 0)
            ::close(fd);
    }
}

void GdbDebugger::fail(int code, const QString& message)
{
    throw new Exception(code, message);
}

bool GdbDebugger::start(const QStringList& program, QString* error)
{
    mProgram = program;
    QString path = program.value(0);
    if (!path.contains(QLatin1Char('/'))) {
        const QString found = QStandardPaths::findExecutable(path);
        if (!found.isEmpty())
            path = found;
    }
    const QFileInfo exe(path);
    if (!exe.exists()) {
        *error = QStringLiteral("The program %1 does not exist").arg(program.value(0));
        return false;
    }
    if (!exe.isFile() || !exe.isReadable()) {
        *error = QStringLiteral("The program %1 can't be read").arg(path);
        return false;
    }
    if (!exe.isExecutable()) {
        *error = QStringLiteral("The program %1 is not executable").arg(path);
        return false;
    }
    mProgram[0] = exe.absoluteFilePath();
    if (!mOptions.preload.isEmpty() && isStaticallyLinked(mProgram[0])) {
        *error = QStringLiteral("%1 is linked statically: zor's sampler enters a program as a library loaded with "
                                "it, which only a dynamically linked program loads")
                     .arg(path);
        return false;
    }
    for (const QString& library : mOptions.preload) {
        if (!QFileInfo(library).isReadable()) {
            *error = QStringLiteral("The library %1 to preload into the program can't be read").arg(library);
            return false;
        }
    }

    // The program's own channels, apart from gdb's: pipes for its output
    // and a copy of the host's input, left open across exec for gdb to hand
    // down; this side of the pipes closes on exec.
    for (int i = 0; i < 2; ++i) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            *error = QStringLiteral("Can't make a pipe for the program: %1").arg(QString::fromLocal8Bit(strerror(errno)));
            return false;
        }
        mOutput[i] = fds[0];
        fcntl(mOutput[i], F_SETFL, fcntl(mOutput[i], F_GETFL) | O_NONBLOCK);
        mChildEnds[i] = fds[1];
        fcntl(mChildEnds[i], F_SETFD, FD_CLOEXEC);
        mOutputNotifiers[i] = new QSocketNotifier(mOutput[i], QSocketNotifier::Read, this);
        connect(mOutputNotifiers[i], &QSocketNotifier::activated, this, &GdbDebugger::readTargetOutput);
    }
    mChildEnds[2] = fcntl(0, F_DUPFD_CLOEXEC, 3);
    if (mChildEnds[2] < 0)
        mChildEnds[2] = ::open("/dev/null", O_RDONLY);

    if (canArmThroughSampler())
        return startWithArmingChannel(error);
    if (!startGdb(error))
        return false;
    try {
        QStringList words;
        for (const QString& argument : program.mid(1))
            words << argumentWord(argument);
        if (!words.isEmpty())
            commandOk(QStringLiteral("-exec-arguments ") + words.join(QLatin1Char(' ')));
        // gdb starts the program through a shell that runs the wrapper; the
        // wrapper gives the program its channels and, at its exec alone, the
        // preloaded libraries.
        QString wrapper = QStringLiteral("/bin/sh -c '");
        if (!mOptions.preload.isEmpty()) {
            QStringList preload = mOptions.preload;
            const QString inherited = QProcessEnvironment::systemEnvironment().value(QStringLiteral("LD_PRELOAD"));
            if (!inherited.isEmpty())
                preload << inherited;
            wrapper += QStringLiteral("LD_PRELOAD=\"%1\" ").arg(preload.join(QLatin1Char(':')));
        }
        wrapper += QStringLiteral("exec \"$0\" \"$@\" <&%1 >&%2 2>&%3 %1<&- %2>&- %3>&-'")
                       .arg(ChildChannelBase)
                       .arg(ChildChannelBase + 1)
                       .arg(ChildChannelBase + 2);
        commandOk(QStringLiteral("-interpreter-exec console ") + miQuote(QStringLiteral("set exec-wrapper ") + wrapper));
        Answer run = command(QStringLiteral("-exec-run --start"));
        if (run.result.className == QLatin1String("error")
            && run.result.results.str(QStringLiteral("msg")).contains(QLatin1String("\"main\" not defined")))
            run = runToStrippedMain();
        closeChildEnds();
        if (run.result.className == QLatin1String("error")) {
            *error = QStringLiteral("Can't start %1: %2").arg(mProgram[0], run.result.results.str(QStringLiteral("msg")));
            return false;
        }
        waitForStop(&run);
        if (mTargetGone) {
            *error = QStringLiteral("%1 ended before main: %2").arg(mProgram[0], run.events.trimmed());
            return false;
        }
        readThreadsAndPid();
        readOwnLibrarySymbols();
        // The frame above main, which gdb hides unless asked.
        commandOk(QStringLiteral("-gdb-set backtrace past-main on"));
        const Answer frames = commandOk(QStringLiteral("-stack-list-frames 1 1"));
        commandOk(QStringLiteral("-gdb-set backtrace past-main off"));
        const MiValue stack = frames.result.results[QStringLiteral("stack")];
        if (!stack.items.isEmpty())
            mBoundaryIp = stack.items.first().second.str(QStringLiteral("addr"));
        watchTarget();
        refreshSymbols();
        // While gdb arms the sampler this process mostly waits for it, and
        // the program doesn't run yet: the best time to read ahead.
        if (readsAhead()) {
            mSymbols.prepareInBackground(false);
            mDisassembler.loadInBackground();
        }
    } catch (Exception* failure) {
        *error = failure->fullMessage();
        delete failure;
        return false;
    }
    return true;
}

bool GdbDebugger::canArmThroughSampler() const
{
#if defined(__x86_64__)
    // The sampler stands in front of the C library's start routine, which
    // a program that starts itself never calls. A program that runs with
    // more privileges than its user's loads no preloaded library: gdb
    // finds it without its sampler at main and says so.
    const QByteArray path = QFile::encodeName(mProgram.value(0));
    struct stat file;
    return mOptions.armThroughSampler && !mOptions.preload.isEmpty()
        && QFileInfo(mOptions.preload.first()).fileName().startsWith(QLatin1String("libquorvex-sampler"))
        && ::stat(path.constData(), &file) == 0 && !(file.st_mode & (S_ISUID | S_ISGID))
        && getxattr(path.constData(), "security.capability", nullptr, 0) < 0
        && SymbolTable::importsFunction(mProgram.value(0), "__libc_start_main");
#else
    return false;
#endif
}

bool GdbDebugger::startWithArmingChannel(QString* error)
{
    const auto failure = [error](const QString& what) {
        *error = QStringLiteral("%1: %2").arg(what, QString::fromLocal8Bit(strerror(errno)));
        return false;
    };
    int channel[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0)
        return failure(QStringLiteral("Can't make a channel to the program"));
    // The number the program finds its end under: free here, so free in the
    // child too, where only 0, 1 and 2 are set anew.
    const int childEnd = fcntl(channel[1], F_DUPFD_CLOEXEC, 10);
    ::close(channel[1]);
    int execFailed[2], started[2];
    if (childEnd < 0 || pipe2(execFailed, O_CLOEXEC) != 0) {
        ::close(channel[0]);
        if (childEnd >= 0)
            ::close(childEnd);
        return failure(QStringLiteral("Can't make a channel to the program"));
    }
    if (pipe2(started, O_CLOEXEC) != 0) {
        for (int fd : {channel[0], childEnd, execFailed[0], execFailed[1]})
            ::close(fd);
        return failure(QStringLiteral("Can't make a channel to the program"));
    }

    // All the child needs, made before fork: after it, only calls that are
    // safe in a child of a process with threads.
    const QByteArray path = QFile::encodeName(mProgram[0]);
    QList<QByteArray> strings;
    for (const QString& argument : qAsConst(mProgram))
        strings << argument.toLocal8Bit();
    std::vector<char*> argv;
    for (QByteArray& argument : strings)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    QStringList preload = mOptions.preload;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QString inherited = environment.value(QStringLiteral("LD_PRELOAD"));
    if (!inherited.isEmpty())
        preload << inherited;
    environment.insert(QStringLiteral("LD_PRELOAD"), preload.join(QLatin1Char(':')));
    // The host's process id too: a gdb that the host starts later may
    // attach where only a process's ancestors may.
    environment.insert(QLatin1String(ArmingVariable), QStringLiteral("%1,%2").arg(childEnd).arg(getpid()));
    QList<QByteArray> variables;
    for (const QString& variable : environment.toStringList())
        variables << variable.toLocal8Bit();
    std::vector<char*> envp;
    for (QByteArray& variable : variables)
        envp.push_back(variable.data());
    envp.push_back(nullptr);
    const int channels[3] = {mChildEnds[2], mChildEnds[0], mChildEnds[1]};

    // The program's parent is a process of its own that only waits for it,
    // as gdb is under gdb: the host lowers its own priority and its
    // children's for the run, which must not touch the program's. The
    // keeper leaves the program's end unreaped, for the host to read how it
    // ended, and goes.
    const pid_t keeper = fork();
    if (keeper == 0) {
        const pid_t program = fork();
        if (program == 0) {
            // In a process group of its own, as under gdb: a ^C on the
            // terminal goes to the front-end, which stops the run. The host's
            // blocked and ignored signals aren't the program's; nor is the
            // address space laid out afresh on each run, which gdb doesn't do
            // either.
            setpgid(0, 0);
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            signal(SIGINT, SIG_DFL);
            personality(personality(0xffffffff) | ADDR_NO_RANDOMIZE);
            handDownChannels(channels, 0);
            fcntl(childEnd, F_SETFD, 0);
            execve(path.constData(), argv.data(), envp.data());
            const int why = errno;
            const ssize_t ignored = ::write(execFailed[1], &why, sizeof why);
            (void)ignored;
            _exit(127);
        }
        const ssize_t ignored = ::write(started[1], &program, sizeof program);
        (void)ignored;
        // Nothing of the host's stays open here.
        if (close_range(3, ~0U, 0) != 0) {
            for (int fd = 3; fd < 1024; ++fd)
                ::close(fd);
        }
        siginfo_t info;
        while (program > 0 && waitid(P_PID, id_t(program), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
        }
        _exit(0);
    }
    ::close(childEnd);
    ::close(execFailed[1]);
    ::close(started[1]);
    pid_t pid = -1;
    ssize_t n;
    while ((n = ::read(started[0], &pid, sizeof pid)) < 0 && errno == EINTR) {
    }
    ::close(started[0]);
    if (keeper < 0 || n != sizeof pid || pid <= 0) {
        ::close(channel[0]);
        ::close(execFailed[0]);
        if (keeper > 0)
            waitpid(keeper, nullptr, 0);
        return failure(QStringLiteral("Can't start %1").arg(mProgram[0]));
    }
    mKeeperPid = keeper;
    mTargetPid = pid;
    mChannel = channel[0];
    mArmedThroughSampler = true;
    closeChildEnds();
    int why = 0;
    while ((n = ::read(execFailed[0], &why, sizeof why)) < 0 && errno == EINTR) {
    }
    ::close(execFailed[0]);
    if (n == sizeof why) {
        terminate();
        closeChannel();
        errno = why;
        return failure(QStringLiteral("Can't start %1").arg(mProgram[0]));
    }
    mRuntimeCode = RuntimeCodeMap::ofProcess(pid, RuntimeCodeMap::processStart(pid));
    watchTarget();
    if (mOptions.whileGdbStarts) {
        mOptions.whileGdbStarts();
        mOptions.whileGdbStarts = nullptr;
    }
    try {
        QByteArray ready;
        if (!channelLine(&ready)) {
            *error = QStringLiteral("%1 ended before main: %2").arg(mProgram[0], endEvent().trimmed());
            return false;
        }
        if (!ready.startsWith("ready ")) {
            *error = QStringLiteral("The sampler in %1 said %2 at main").arg(mProgram[0], QString::fromUtf8(ready));
            return false;
        }
        mBoundaryIp = QString::fromLatin1(ready.mid(6));
    } catch (Exception* failed) {
        *error = failed->fullMessage();
        delete failed;
        return false;
    }
    mStopped = true;
    refreshSymbols();
    if (readsAhead()) {
        mSymbols.prepareInBackground(false);
        mDisassembler.loadInBackground();
    }
    return true;
}

bool GdbDebugger::channelLine(QByteArray* line)
{
    QDeadlineTimer deadline(mOptions.timeoutMs);
    for (;;) {
        const int newline = mChannelBuffer.indexOf('\n');
        if (newline >= 0) {
            *line = mChannelBuffer.left(newline);
            mChannelBuffer.remove(0, newline + 1);
            return true;
        }
        if (mChannel < 0)
            return false;
        // The program's output is read meanwhile: a program that fills its
        // pipe before main would wait for ever.
        pollfd wait[3] = {{mChannel, POLLIN, 0}, {mOutput[0], POLLIN, 0}, {mOutput[1], POLLIN, 0}};
        poll(wait, 3, int(std::min<qint64>(50, std::max<qint64>(0, deadline.remainingTime()))));
        readTargetOutput();
        if (wait[0].revents) {
            char buffer[4096];
            const ssize_t n = ::read(mChannel, buffer, sizeof buffer);
            if (n > 0) {
                mChannelBuffer.append(buffer, int(n));
                continue;
            }
            if (n == 0 || errno != EINTR) {
                // The program has ended, or is about to.
                closeChannel();
                targetEnds(2000);
                return false;
            }
        }
        if (deadline.hasExpired())
            fail(DebuggerFailed,
                 QStringLiteral("The program did not answer within %1 s at main").arg(mOptions.timeoutMs / 1000));
    }
}

bool GdbDebugger::channelAsk(const QByteArray& request, QByteArray* answer)
{
    if (mChannel < 0)
        return false;
    const QByteArray line = request + '\n';
    for (int done = 0; done < line.size();) {
        const ssize_t n = ::send(mChannel, line.constData() + done, size_t(line.size() - done), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            closeChannel();
            targetEnds(2000);
            return false;
        }
        done += int(n);
    }
    return channelLine(answer);
}

void GdbDebugger::closeChannel()
{
    if (mChannel >= 0)
        ::close(mChannel);
    mChannel = -1;
    mChannelBuffer.clear();
}

QString GdbDebugger::endEvent() const
{
    if (mExitStatus.startsWith(QLatin1String("exited")))
        return QStringLiteral("[Inferior 1 (process %1) %2]\n").arg(mTargetPid).arg(mExitStatus);
    if (mExitStatus.startsWith(QLatin1String("killed by signal ")))
        return QStringLiteral("Program terminated with signal %1.\n").arg(mExitStatus.mid(17));
    return QStringLiteral("The program has %1.\n").arg(mExitStatus.isEmpty() ? QStringLiteral("ended") : mExitStatus);
}

void GdbDebugger::attachGdbBeside()
{
    // The program waits on the channel, in the sampler's code; gdb's calls
    // from there are as good as from main.
    if (!mGdb) {
        QString error;
        if (!startGdb(&error))
            fail(DebuggerFailed, error);
    }
    mStopped = false;
    Answer attach = commandOk(QStringLiteral("-target-attach %1").arg(mTargetPid));
    mGdbBeside = true;
    if (!mStopped)
        waitForStop(&attach);
    readOwnLibrarySymbols();
}

GdbDebugger::Answer GdbDebugger::runToStrippedMain()
{
    // A program without symbols has no "main" to stop at, but the C
    // library's start routine is handed main's address as its first
    // argument: stop there, then at that address.
    Answer run = command(QStringLiteral("-break-insert -t -f __libc_start_main"));
    if (run.result.className == QLatin1String("error"))
        return run;
    run = command(QStringLiteral("-exec-run"));
    if (run.result.className == QLatin1String("error"))
        return run;
    waitForStop(&run);
    if (mTargetGone)
        return run;
    QString main;
    for (const char* firstArgument : {"$rdi", "$x0"}) {
        const Answer value = command(QStringLiteral("-data-evaluate-expression ") + QLatin1String(firstArgument));
        if (value.result.className == QLatin1String("done")) {
            main = value.result.results.str(QStringLiteral("value")).section(QLatin1Char(' '), 0, 0);
            break;
        }
    }
    bool ok = false;
    main.toULongLong(&ok, 0);
    if (!ok) {
        run.result.className = QStringLiteral("error");
        MiValue why;
        why.text = QStringLiteral("the program has no symbols, and its main was not found");
        run.result.results.items = {qMakePair(QStringLiteral("msg"), why)};
        return run;
    }
    commandOk(QStringLiteral("-break-insert -t *") + main);
    // The caller waits for this stop, at main.
    return command(QStringLiteral("-exec-continue"));
}

QString GdbDebugger::locate(const QString& name, const QStringList& paths)
{
    if (QFileInfo(name).isAbsolute())
        return QFileInfo(name).isExecutable() && !QFileInfo(name).isDir() ? name : QString();
    QString found = QStandardPaths::findExecutable(name, paths);
    if (found.isEmpty() && name == QLatin1String("gdb")) {
        found = QStandardPaths::findExecutable(QStringLiteral("cuda-gdb"), paths);
        if (found.isEmpty() && paths.isEmpty())
            found = QStandardPaths::findExecutable(QStringLiteral("cuda-gdb"), {QStringLiteral("/usr/local/cuda/bin")});
    }
    return found;
}

bool GdbDebugger::startGdb(QString* error)
{
    const QString gdb = locate(mOptions.gdb);
    if (gdb.isEmpty()) {
        *error = QStringLiteral("The debugger %1 was not found%2; scripts/install-deps.sh installs gdb, "
                                "and ZOR_GDB=PATH names another")
                     .arg(mOptions.gdb,
                          mOptions.gdb == QLatin1String("gdb") ? QStringLiteral(" (nor cuda-gdb)") : QString());
        return false;
    }
    auto* process = new GdbProcess(this);
    // Input, output, error, in the order that the child's numbers take.
    const int channels[3] = {mChildEnds[2], mChildEnds[0], mChildEnds[1]};
    process->setChannels(channels);
    mGdb = process;
    mGdb->setProcessChannelMode(QProcess::SeparateChannels);
    QStringList arguments{QStringLiteral("--interpreter=mi2"), QStringLiteral("-nx"), QStringLiteral("-q")};
    if (!mDataDirectory)
        mDataDirectory.reset(new QTemporaryDir(QDir::tempPath() + QStringLiteral("/zor-gdb-XXXXXX")));
    if (mDataDirectory->isValid())
        arguments << QStringLiteral("--data-directory=") + mDataDirectory->path();
    // Settings on the command line: gdb takes them before it reads its first
    // command, without a round trip each (a millisecond apiece here).
    // gdb only runs the program and calls into the sampler; positions come
    // from our own reader. Reading the system's separate debug files would
    // cost gdb hundreds of milliseconds per start, all before main.
    QStringList settings;
    for (const char* setting :
         {"confirm off", "pagination off", "width 0", "height 0", "print elements 0", "print repeats 0",
          "unwindonsignal on", "debuginfod enabled off", "breakpoint pending off", "auto-load off",
          "debug-file-directory"})
        settings << QStringLiteral("set ") + QLatin1String(setting);
    for (const QString& name : {gdbSignalName(samplerSignal()), QStringLiteral("SIGPROF")})
        settings << QStringLiteral("handle %1 nostop noprint pass").arg(name);
    settings << mDispositionCommands;
    // Nor the symbols of every library the program loads (a third of the
    // time to main for a small C program): only ours, whose functions gdb
    // calls. NVIDIA's gdb keeps its own, which it needs for the GPU.
    if (!QFileInfo(gdb).fileName().startsWith(QLatin1String("cuda-gdb")))
        settings << QStringLiteral("set auto-solib-add off");
    for (const QString& setting : qAsConst(settings))
        arguments << QStringLiteral("-iex") << setting;
    mGdb->start(gdb, arguments);
    if (!mGdb->waitForStarted(30000)) {
        *error = QStringLiteral("Can't start the debugger %1: %2").arg(gdb, mGdb->errorString());
        return false;
    }
    mGdbBuffer.clear();
    mBroken = false;
    if (mOptions.whileGdbStarts) {
        mOptions.whileGdbStarts();
        mOptions.whileGdbStarts = nullptr;
    }
    try {
        // Nor the program's own debug information (seconds for a large one).
        const Answer file = command(QStringLiteral("-interpreter-exec console ")
                                    + miQuote(QStringLiteral("file -readnever ") + argumentWord(mProgram.value(0))));
        // What gdb said at its start is its warning that its Python modules
        // are missing: not news when it ends later.
        mGdb->readAllStandardError();
        if (file.result.className == QLatin1String("error")) {
            *error = QStringLiteral("The debugger can't read %1: %2")
                         .arg(mProgram.value(0), file.result.results.str(QStringLiteral("msg")));
            return false;
        }
    } catch (Exception* failure) {
        *error = failure->fullMessage();
        delete failure;
        return false;
    }
    return true;
}

GdbDebugger::Answer GdbDebugger::command(const QString& text)
{
    if (!mGdb || mGdb->state() != QProcess::Running)
        fail(DebuggerFailed, QStringLiteral("The debugger is not running"));
    if (mBroken)
        fail(DebuggerFailed, QStringLiteral("The debugger stopped answering earlier"));
    const int token = mNextToken++;
    mGdb->write(QString::number(token).toLatin1() + text.toUtf8() + '\n');
    Answer answer;
    QDeadlineTimer deadline(mOptions.timeoutMs);
    for (;;) {
        int newline;
        while ((newline = mGdbBuffer.indexOf('\n')) >= 0) {
            const QByteArray line = mGdbBuffer.left(newline + 1);
            mGdbBuffer.remove(0, newline + 1);
            MiRecord record;
            if (!parseMiLine(line, &record))
                continue;
            if (record.type == '^' && record.token == token) {
                answer.result = record;
                if (record.className == QLatin1String("running"))
                    mStopped = false;
                return answer;
            }
            handleAsync(record, &answer);
        }
        readTargetOutput();
        if (deadline.hasExpired()) {
            mBroken = true;
            fail(DebuggerFailed, QStringLiteral("The debugger did not answer within %1 s to: %2")
                                     .arg(mOptions.timeoutMs / 1000)
                                     .arg(text));
        }
        if (mGdb->state() != QProcess::Running) {
            mGdb->waitForFinished(1000);
            fail(DebuggerFailed, QStringLiteral("The debugger ended unexpectedly: %1")
                                     .arg(QString::fromLocal8Bit(mGdb->readAllStandardError()).trimmed()));
        }
        readGdb(int(std::min<qint64>(50, std::max<qint64>(1, deadline.remainingTime()))));
    }
}

GdbDebugger::Answer GdbDebugger::commandOk(const QString& text)
{
    Answer answer = command(text);
    if (answer.result.className == QLatin1String("error"))
        fail(DebuggerFailed, QStringLiteral("%1: %2").arg(text, answer.result.results.str(QStringLiteral("msg"))));
    return answer;
}

void GdbDebugger::readGdb(int timeoutMs)
{
    mGdb->waitForReadyRead(timeoutMs);
    mGdbBuffer += mGdb->readAllStandardOutput();
    // gdb writes its records a character at a time (a detach writes about a
    // thousand). While the program runs, reading each as it comes would wake
    // the host for every one, taking the processor from the program: they
    // gather for a millisecond. While it stands stopped, as gdb arms the
    // sampler, the answer is read as it comes, without that millisecond per
    // command.
    if ((!mStopped || mDetaching) && !mGdbBuffer.isEmpty() && !mGdbBuffer.endsWith('\n')) {
        const timespec pause{0, 1000000};
        nanosleep(&pause, nullptr);
        mGdb->waitForReadyRead(0);
        mGdbBuffer += mGdb->readAllStandardOutput();
    }
}

void GdbDebugger::waitForStop(Answer* answer)
{
    QDeadlineTimer deadline(mOptions.timeoutMs);
    while (!mStopped && !mTargetGone) {
        int newline;
        while ((newline = mGdbBuffer.indexOf('\n')) >= 0) {
            const QByteArray line = mGdbBuffer.left(newline + 1);
            mGdbBuffer.remove(0, newline + 1);
            MiRecord record;
            if (parseMiLine(line, &record))
                handleAsync(record, answer);
        }
        if (mStopped || mTargetGone)
            break;
        readTargetOutput();
        if (deadline.hasExpired()) {
            mBroken = true;
            fail(DebuggerFailed, QStringLiteral("The program did not stop within %1 s").arg(mOptions.timeoutMs / 1000));
        }
        if (mGdb->state() != QProcess::Running)
            fail(DebuggerFailed, QStringLiteral("The debugger ended unexpectedly"));
        readGdb(50);
    }
}

void GdbDebugger::handleAsync(const MiRecord& record, Answer* answer)
{
    switch (record.type) {
    case '~':
        answer->console += record.stream;
        break;
    case '@':
        targetPrinted(record.stream);
        break;
    case '*':
        if (record.className == QLatin1String("running")) {
            mStopped = false;
        } else if (record.className == QLatin1String("stopped")) {
            mStopped = true;
            answer->events += stopEvent(record, mTargetPid);
            const QString reason = record.results.str(QStringLiteral("reason"));
            if (isExitReason(reason))
                noteTargetGone(stopEvent(record, mTargetPid).trimmed());
        }
        break;
    case '=':
        // A detach says thread-group-exited too, without an exit code.
        if (record.className == QLatin1String("thread-group-exited")
            && !record.results.str(QStringLiteral("exit-code")).isEmpty())
            noteTargetGone(QStringLiteral("exited with code %1").arg(record.results.str(QStringLiteral("exit-code"))));
        break;
    default:
        break;
    }
}

void GdbDebugger::readThreadsAndPid()
{
    const Answer groups = commandOk(QStringLiteral("-list-thread-groups"));
    for (const auto& group : groups.result.results[QStringLiteral("groups")].items) {
        const int pid = group.second.str(QStringLiteral("pid")).toInt();
        if (pid > 0) {
            mTargetPid = pid;
            mRuntimeCode = RuntimeCodeMap::ofProcess(pid, RuntimeCodeMap::processStart(pid));
            break;
        }
    }
    if (mTargetPid <= 0)
        fail(StartFailed, QStringLiteral("The debugger did not tell the program's process id"));
}

void GdbDebugger::watchTarget()
{
    delete mPidfdNotifier;
    mPidfdNotifier = nullptr;
    if (mPidfd >= 0)
        ::close(mPidfd);
    mPidfd = int(syscall(SYS_pidfd_open, mTargetPid, 0));
    if (mPidfd < 0)
        return;
    mPidfdNotifier = new QSocketNotifier(mPidfd, QSocketNotifier::Read, this);
    connect(mPidfdNotifier, &QSocketNotifier::activated, this, &GdbDebugger::pidfdReadable);
}

QString GdbDebugger::zombieStatus()
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(mTargetPid));
    if (!stat.open(QIODevice::ReadOnly))
        return QStringLiteral("ended");
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    if (fields.value(0) != "Z" && fields.value(0) != "X")
        return QString();
    // Fields 16 and 17, the children's user and system time in clock ticks:
    // what the program's children did, which the sampler doesn't see.
    bool user = false, system = false;
    const qint64 ticks = fields.value(13).toLongLong(&user) + fields.value(14).toLongLong(&system);
    const long perSecond = sysconf(_SC_CLK_TCK);
    if (user && system && perSecond > 0 && mChildrenCpuMs < 0)
        mChildrenCpuMs = ticks * 1000 / perSecond;
    // Fields 14 and 15, its own, all its threads' together, those that
    // ended long ago too: what the samples may have missed.
    const qint64 own = fields.value(11).toLongLong(&user) + fields.value(12).toLongLong(&system);
    if (user && system && perSecond > 0 && mProcessCpuMs < 0)
        mProcessCpuMs = own * 1000 / perSecond;
    // Field 52 of the whole line, the 50th after the name.
    bool ok = false;
    const int code = fields.value(49).trimmed().toInt(&ok);
    if (!ok)
        return QStringLiteral("ended");
    return WIFSIGNALED(code) ? QStringLiteral("killed by signal %1").arg(gdbSignalName(WTERMSIG(code)))
                             : QStringLiteral("exited with code %1").arg(WEXITSTATUS(code));
}

void GdbDebugger::pidfdReadable()
{
    mPidfdNotifier->setEnabled(false);
    const QString status = zombieStatus();
    noteTargetGone(status.isEmpty() ? QStringLiteral("ended") : status);
}

bool GdbDebugger::targetEnds(int waitMs)
{
    if (mTargetGone)
        return true;
    if (mPidfd >= 0) {
        pollfd wait = {mPidfd, POLLIN, 0};
        if (poll(&wait, 1, waitMs) > 0)
            pidfdReadable();
        return mTargetGone;
    }
    // Without a pidfd: gone, or a zombie that its parent hasn't reaped.
    QFile stat(QStringLiteral("/proc/%1/stat").arg(mTargetPid));
    if (::kill(mTargetPid, 0) != 0 || (stat.open(QIODevice::ReadOnly) && stat.readAll().contains(") Z ")))
        noteTargetGone(QStringLiteral("ended"));
    return mTargetGone;
}

void GdbDebugger::noteTargetGone(const QString& status)
{
    if (mTargetGone)
        return;
    mTargetGone = true;
    mExitStatus = status;
    readTargetOutput();
    emit targetExited(status);
}

void GdbDebugger::readTargetOutput()
{
    char buffer[65536];
    for (int i = 0; i < 2; ++i) {
        if (mOutput[i] < 0)
            continue;
        for (;;) {
            const ssize_t n = ::read(mOutput[i], buffer, sizeof buffer);
            if (n == 0) {
                // Every writer is gone.
                delete mOutputNotifiers[i];
                mOutputNotifiers[i] = nullptr;
                ::close(mOutput[i]);
                mOutput[i] = -1;
            }
            if (n <= 0)
                break;
            const int echo = mOptions.echoFds[i];
            for (ssize_t done = 0; echo >= 0 && done < n;) {
                const ssize_t w = ::write(echo, buffer + done, size_t(n - done));
                if (w < 0 && errno == EINTR)
                    continue;
                if (w <= 0)
                    break;
                done += w;
            }
            targetPrinted(QString::fromLocal8Bit(buffer, int(n)));
        }
    }
}

void GdbDebugger::closeChildEnds()
{
    for (int& fd : mChildEnds) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
}

void GdbDebugger::readOwnLibrarySymbols()
{
    if (mTargetGone || mOptions.preload.isEmpty())
        return;
    // A library gdb has read already, or none that matches, is no error.
    command(QStringLiteral("-interpreter-exec console ") + miQuote(QStringLiteral("sharedlibrary libquorvex-")));
}

void GdbDebugger::refreshSymbols()
{
    if (mTargetGone || mTargetPid <= 0)
        return;
    const QList<SharedLibrary> files = SymbolTable::mappedFiles(mTargetPid);
    if (!files.isEmpty() && files != mSymbols.libraries())
        mSymbols.setLibraries(files);
    mSymbolsStale = false;
}

void GdbDebugger::restart()
{
    if (onChannel() && !mTargetGone) {
        attachGdbBeside();
        return;
    }
    const bool alive = !mTargetGone;
    if (mGdb && mGdb->state() == QProcess::Running) {
        try {
            if (alive && !mDetached)
                command(QStringLiteral("-target-detach"));
        } catch (Exception* failure) {
            delete failure;
        }
        mGdb->write("-gdb-exit\n");
        if (!mGdb->waitForFinished(5000)) {
            mGdb->kill();
            mGdb->waitForFinished(5000);
        }
    }
    delete mGdb;
    mGdb = nullptr;
    mDetached = true;
    QString error;
    if (!startGdb(&error))
        fail(DebuggerFailed, error);
    if (alive) {
        Command reattach(QString::fromLatin1(CMD_REATTACH), QString::fromLatin1(XML_TARGET_DEBUGGER));
        delete handleReattach(reattach);
    }
}

void GdbDebugger::terminate()
{
    if (mTargetPid > 0 && !mTargetGone)
        ::kill(mTargetPid, SIGKILL);
    closeChannel();
    if (mGdb) {
        if (mGdb->state() != QProcess::NotRunning) {
            mGdb->kill();
            mGdb->waitForFinished(5000);
        }
        delete mGdb;
        mGdb = nullptr;
    }
    // Orphaned by its gdb or its keeper, the target is this process's child
    // now.
    if (mKeeperPid > 0) {
        while (waitpid(mKeeperPid, nullptr, 0) < 0 && errno == EINTR) {
        }
        mKeeperPid = 0;
    }
    if (mTargetPid > 0) {
        for (int i = 0; i < 500; ++i) {
            const pid_t reaped = waitpid(mTargetPid, nullptr, WNOHANG);
            if (reaped == mTargetPid || (reaped < 0 && errno == ECHILD && ::kill(mTargetPid, 0) != 0))
                break;
            QThread::msleep(10);
        }
        mTargetGone = true;
    }
    delete mPidfdNotifier;
    mPidfdNotifier = nullptr;
    if (mPidfd >= 0) {
        ::close(mPidfd);
        mPidfd = -1;
    }
}

Response* GdbDebugger::handleCommand(Command& command)
{
    const QString& name = command.name;
    if (name == QLatin1String(CMD_DETACH))
        return handleDetach(command);
    if (name == QLatin1String(CMD_REATTACH))
        return handleReattach(command);
    if (name == QLatin1String(CMD_GET_THREADS))
        return handleGetThreads(command, 0);
    if (name == QLatin1String(CMD_SET_THREAD)) {
        handleSetThread(command);
        return nullptr;
    }
    if (name == QLatin1String(CMD_SET_LANGUAGE)) {
        handleSetLanguage(command);
        return nullptr;
    }
    fail(UnknownCommand, QStringLiteral("The debugger has no command %1").arg(name));
    return nullptr;
}

StatusResponse GdbDebugger::currentStatus(int)
{
    if (mTargetGone)
        return StatusResponse(StatusResponse::TargetGone);
    return StatusResponse(mDetached ? StatusResponse::Detached : StatusResponse::TargetStopped);
}

ThreadsResponse* GdbDebugger::handleGetThreads(Command&, int)
{
    if (mTargetGone || mDetached)
        return new ThreadsResponse();
    if (onChannel()) {
        // The threads the program's constructors started, if any, after
        // the main one, numbered as gdb numbers them.
        const QDir tasks(QStringLiteral("/proc/%1/task").arg(mTargetPid));
        QList<int> tids;
        for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot))
            tids << task.toInt();
        std::sort(tids.begin(), tids.end(), [this](int a, int b) {
            return (a == mTargetPid) != (b == mTargetPid) ? a == mTargetPid : a < b;
        });
        QList<ThreadResponse> threads;
        for (int tid : qAsConst(tids)) {
            QFile comm(tasks.filePath(QStringLiteral("%1/comm").arg(tid)));
            const QString name =
                comm.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(comm.readAll()).trimmed() : QString();
            threads.append(ThreadResponse(tid, threads.size() + 1, tid, name));
        }
        return new ThreadsResponse(threads, tids.isEmpty() ? -1 : 0);
    }
    const Answer info = commandOk(QStringLiteral("-thread-info"));
    const QString current = info.result.results.str(QStringLiteral("current-thread-id"));
    static const QRegularExpression lwp(QStringLiteral("(?:LWP|process) (\\d+)"));
    QList<ThreadResponse> threads;
    int active = -1;
    for (const auto& item : info.result.results[QStringLiteral("threads")].items) {
        const MiValue& thread = item.second;
        const QString id = thread.str(QStringLiteral("id"));
        const QRegularExpressionMatch match = lwp.match(thread.str(QStringLiteral("target-id")));
        const int tid = match.hasMatch() ? match.captured(1).toInt() : 0;
        if (id == current)
            active = threads.size();
        threads.append(ThreadResponse(tid, id.toInt(), tid, thread.str(QStringLiteral("name"))));
    }
    return new ThreadsResponse(threads, active);
}

void GdbDebugger::handleSetThread(Command& command)
{
    const int thread = command.getValue(QStringLiteral("thread"), -1).toInt();
    if (onChannel())
        attachGdbBeside();
    commandOk(QStringLiteral("-thread-select %1").arg(thread));
}

Response* GdbDebugger::handleDetach(Command&)
{
    if (mTargetGone)
        return new StatusResponse(StatusResponse::TargetGone);
    if (!mDetached) {
        mDetaching = true;
        try {
            if (!onChannel())
                commandOk(QStringLiteral("-target-detach"));
        } catch (...) {
            mDetaching = false;
            throw;
        }
        mDetaching = false;
        mGdbBeside = false;
        // Main runs once the sampler's channel closes.
        if (mChannel >= 0) {
            ::send(mChannel, "go\n", 3, MSG_NOSIGNAL);
            closeChannel();
        }
        mDetached = true;
        mStopped = false;
        mSymbolsStale = true;
        // What the analysis at the run's end would open first.
        if (readsAhead())
            mSymbols.prepareInBackground(true);
    }
    return new StatusResponse(StatusResponse::Detached);
}

void GdbDebugger::lowerTargetPriority()
{
    // By the end of a run the host and gdb run at the lowest priority; a
    // program that spins (ranks that wait in MPI for one that died) would
    // starve gdb of the processor while it attaches. Each thread has a
    // priority of its own.
    const int lowest = getpriority(PRIO_PROCESS, 0);
    const QString tasks = QStringLiteral("/proc/%1/task").arg(mTargetPid);
    for (const QString& task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const id_t tid = task.toUInt();
        errno = 0;
        const int current = getpriority(PRIO_PROCESS, tid);
        if (tid > 0 && errno == 0 && current < lowest)
            setpriority(PRIO_PROCESS, tid, lowest);
    }
}

Response* GdbDebugger::handleReattach(Command&)
{
    if (!mDetached)
        return nullptr;
    // A program that ended before its end was noticed is a zombie still,
    // which tells how it ended, until gdb's attempt to attach reaps it.
    const QString ended = zombieStatus();
    if (!ended.isEmpty())
        noteTargetGone(ended);
    if (mTargetGone)
        fail(TargetGoneError, QStringLiteral("The program has ended (%1)").arg(mExitStatus));
    // Not for a program on its way out, which should end first.
    if (mLowerTargetFirst && mLowerTargetFirst())
        lowerTargetPriority();
    // A program armed without gdb meets it only now.
    if (!mGdb) {
        QString error;
        if (!startGdb(&error))
            fail(DebuggerFailed, error);
    }
    Answer attach = command(QStringLiteral("-target-attach %1").arg(mTargetPid));
    if (attach.result.className == QLatin1String("error")) {
        // A program on its way out can't be attached to: that is its end,
        // not a failure of the debugger.
        if (targetEnds(2000))
            fail(TargetGoneError, QStringLiteral("The program has ended (%1)").arg(mExitStatus));
        fail(DebuggerFailed,
             QStringLiteral("Can't attach to the program again: %1").arg(attach.result.results.str(QStringLiteral("msg"))));
    }
    mDetached = false;
    if (!mStopped)
        waitForStop(&attach);
    readOwnLibrarySymbols();
    refreshSymbols();
    return new StatusResponse(mTargetGone ? StatusResponse::TargetGone : StatusResponse::TargetStopped);
}

void GdbDebugger::setTargetVariable(const QString& name, const QString& value)
{
    if (mTargetGone)
        fail(TargetGoneError, QStringLiteral("The program has ended (%1)").arg(mExitStatus));
    bool integer = false;
    value.toInt(&integer);
    if (onChannel() && isIdentifier(name) && integer) {
        QByteArray answer;
        if (!channelAsk("set " + name.toLatin1() + ' ' + QByteArray::number(value.toInt()), &answer))
            fail(TargetGoneError, QStringLiteral("The program has ended (%1)").arg(mExitStatus));
        if (answer == "ok")
            return;
        if (answer == "nosym")
            fail(DebuggerFailed, QStringLiteral("No symbol \"%1\" in the program").arg(name));
    }
    if (onChannel())
        attachGdbBeside();
    commandOk(QStringLiteral("-data-evaluate-expression ") + miQuote(name + QLatin1Char('=') + value));
}

QString GdbDebugger::readTargetString(const QString& name, const QString& defaultValue, int)
{
    if (mTargetGone || mDetached)
        return defaultValue;
    if (onChannel() && isIdentifier(name)) {
        QByteArray answer;
        if (!channelAsk("str " + name.toLatin1(), &answer) || !answer.startsWith("ok"))
            return defaultValue;
        return QString::fromUtf8(QByteArray::fromHex(answer.mid(3)));
    }
    if (onChannel())
        attachGdbBeside();
    const Answer answer =
        command(QStringLiteral("-data-evaluate-expression ") + miQuote(QStringLiteral("(const char*)") + name));
    if (answer.result.className != QLatin1String("done"))
        return defaultValue;
    // 0x7ffff7fc1040 <name> "text"
    const QByteArray value = answer.result.results.str(QStringLiteral("value")).toUtf8();
    int quote = value.indexOf('"');
    QByteArray text;
    if (quote < 0 || !parseCString(value, &quote, &text))
        return defaultValue;
    return QString::fromUtf8(text);
}

QString GdbDebugger::evaluateExpression(const QString& expression)
{
    if (mTargetGone)
        fail(TargetGoneError, QStringLiteral("The program has ended (%1)").arg(mExitStatus));
    if (onChannel()) {
        const QByteArray request = callRequest(expression);
        QByteArray answer;
        if (!request.isEmpty()) {
            if (!channelAsk(request, &answer))
                return endEvent();
            if (answer.startsWith("ok "))
                return QString::fromLatin1(answer.mid(3));
            // A function that isn't there has no value at all, as below.
            if (answer == "nosym")
                return QString();
        }
        attachGdbBeside();
    }
    Answer answer = command(QStringLiteral("-data-evaluate-expression ") + miQuote(expression));
    // A function of a file without debug information (a stripped library,
    // as packages ship them, the sampler too) has no known return type, and
    // gdb won't call it without one: the sampler's entry points return int,
    // as C's undeclared functions did.
    if (answer.result.className != QLatin1String("done")
        && answer.result.results.str(QStringLiteral("msg")).contains(QLatin1String("has unknown return type")))
        answer = command(QStringLiteral("-data-evaluate-expression ") + miQuote(QStringLiteral("(int)") + expression));
    const QString printed = answer.console + answer.events;
    if (answer.result.className == QLatin1String("done"))
        return printed + answer.result.results.str(QStringLiteral("value"));
    const QString message = answer.result.results.str(QStringLiteral("msg"));
    // A function that isn't there has no value at all.
    if (message.startsWith(QLatin1String("No symbol")))
        return printed;
    return printed + message;
}

unsigned long long GdbDebugger::addressValue(const QString& expression)
{
    if (mTargetGone || mDetached)
        return 0;
    if (onChannel() && expression.startsWith(QLatin1Char('&')) && isIdentifier(expression.mid(1))) {
        QByteArray answer;
        if (!channelAsk("addr " + expression.mid(1).toLatin1(), &answer) || !answer.startsWith("ok "))
            return 0;
        return answer.mid(3).toULongLong();
    }
    if (onChannel())
        attachGdbBeside();
    const Answer answer = command(QStringLiteral("-data-evaluate-expression ")
                                  + miQuote(QStringLiteral("(unsigned long)(%1)").arg(expression)));
    if (answer.result.className != QLatin1String("done"))
        return 0;
    return answer.result.results.str(QStringLiteral("value")).toULongLong();
}

QString GdbDebugger::mainFunctionName()
{
    // A Fortran program's main program is MAIN__, called from a C main, in
    // the program's own file.
    unsigned long long address = 0;
    if (mSymbols.functionAddress(QStringLiteral("MAIN__"), &address, programPath()))
        return QStringLiteral("MAIN__");
    return QStringLiteral("main");
}

void GdbDebugger::setSignalDisposition(const QString& name, const QString& disposition)
{
    // Ignored: gdb neither stops nor speaks and the signal goes on to the
    // target, whose own handler deals with it. Default: gdb's own default.
    const QString handle = disposition == QLatin1String(DispositionStrings::IgnoreDisposition)
        ? QStringLiteral("handle %1 nostop noprint pass").arg(name)
        : QStringLiteral("handle %1 stop print pass").arg(name);
    mDispositionCommands.removeAll(QStringLiteral("handle %1 nostop noprint pass").arg(name));
    mDispositionCommands.removeAll(QStringLiteral("handle %1 stop print pass").arg(name));
    mDispositionCommands << handle;
    // Without gdb a signal goes to the program as it would anyway; a gdb
    // that comes later takes the dispositions with its settings.
    if (onChannel() || !mGdb)
        return;
    commandOk(QStringLiteral("-interpreter-exec console ") + miQuote(handle));
}

QList<SharedLibrary> GdbDebugger::sharedLibraries()
{
    if (mTargetGone)
        return mKeptLibraries.isEmpty() ? mSymbols.libraries() : mKeptLibraries;
    refreshSymbols();
    return mSymbols.libraries();
}

void GdbDebugger::keepSharedLibraries(QList<SharedLibrary>& libraries)
{
    mKeptLibraries = libraries;
    if (libraries != mSymbols.libraries())
        mSymbols.setLibraries(libraries);
    mSymbolsStale = false;
}

QString GdbDebugger::demangleName(const QString& name)
{
    return demangledName(name);
}

void GdbDebugger::prepareTarget()
{
    refreshSymbols();
}

PositionResponse* GdbDebugger::positionOfAddress(unsigned long long address, int,
                                                 QList<PositionResponse*>* inlinedCallers)
{
    if (mSymbolsStale)
        refreshSymbols();
    QList<SymbolPosition> callers;
    SymbolPosition where = mSymbols.position(mSymbols.canonicalAddress(address), &callers);
    if (!where.hasSymbol && !inMappedFile(address) && mRuntimeCode.name(address, &where.function))
        where.hasSymbol = true;
    if (inlinedCallers) {
        for (const SymbolPosition& caller : callers)
            inlinedCallers->append(new PositionResponse(caller.function, caller.file, caller.line, caller.hasSymbol));
    }
    return new PositionResponse(where.function, where.file, where.line, where.hasSymbol);
}

bool GdbDebugger::inMappedFile(unsigned long long address) const
{
    for (const SharedLibrary& file : mSymbols.libraries()) {
        if (file.isRangeKnown() && file.start() <= address && address < file.end())
            return true;
    }
    return false;
}

PositionResponse* GdbDebugger::positionOfFunction(const QString& name)
{
    // The program's own functions are asked for most: its file first.
    unsigned long long address = 0;
    if (!mSymbols.functionAddress(name, &address, programPath()) && !mSymbols.functionAddress(name, &address))
        return nullptr;
    const SymbolPosition where = mSymbols.position(address);
    return new PositionResponse(where.function, where.file, where.line, where.hasSymbol);
}

QMap<unsigned long long, Instruction> GdbDebugger::disassembleRange(unsigned long long start, long long length,
                                                                    unsigned long long* end)
{
    if (mSymbolsStale)
        refreshSymbols();
    // Code of a second mapping is read where its file's own mapping has it.
    const unsigned long long shift = start - mSymbols.canonicalAddress(start);
    if (!shift)
        return mDisassembler.disassemble(start, length, end);
    QMap<unsigned long long, Instruction> shifted;
    const QMap<unsigned long long, Instruction> instructions = mDisassembler.disassemble(start - shift, length, end);
    for (auto it = instructions.constBegin(); it != instructions.constEnd(); ++it)
        shifted.insert(it.key() + shift, it.value());
    if (end && *end)
        *end += shift;
    return shifted;
}

void GdbDebugger::handleSetLanguage(Command& command)
{
    const QString name = command.getValue(QStringLiteral("language")).toString();
    const LanguageTag tag = Language::internalStringToLanguage(name);
    if (Language::languageToInternalString(tag) != name)
        return;
    static const char* const gdbNames[] = {"auto", "c", "c++", "fortran", "asm", "minimal", "auto"};
    if (!mTargetGone && !mDetached && !onChannel())
        commandOk(QStringLiteral("-gdb-set language ") + QLatin1String(gdbNames[tag]));
    mLanguage = tag;
}
