// The real debugger on zor-example with the sampler preloaded, started under
// gdb and armed through the sampler: stopped at main, calls into the
// program, variables and strings, threads, positions and disassembly
// without gdb, detach and reattach, a restart of gdb, a program that dies
// while detached, and clear errors for what can't start.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>

#include "constants.h"
#include "debuggertypes.h"
#include "exception.h"
#include "gdbdebugger.h"
#include "miparser.h"
#include "platformnames.h"
#include "../support/gdbprobe.h"
#include "../support/spin.h"

namespace {

Command debuggerCommand(const char* name)
{
    return Command(QString::fromLatin1(name), QString::fromLatin1(XML_TARGET_DEBUGGER));
}

// Starts 30 s of zor-example: empty, or why it didn't start.
QString startExample(GdbDebugger& debugger)
{
    QString error;
    if (!debugger.start({ZOR_EXAMPLE, QStringLiteral("--seconds"), QStringLiteral("30")}, &error) && error.isEmpty())
        error = QStringLiteral("not started");
    return error;
}

// `sampler` preloaded, the program's output dropped.
GdbDebugger::Options exampleOptions(const QString& sampler, bool throughSampler)
{
    GdbDebugger::Options options;
    options.preload << sampler;
    options.echoFds[0] = options.echoFds[1] = -1;
    options.timeoutMs = 60000;
    options.armThroughSampler = throughSampler;
    return options;
}

TEST(MiParser, RecordsAndValues)
{
    const struct
    {
        const char* line;
        const char* expected;
    } cases[] = {
        {"12^done,value=\"700\"", "^12 done value=700"},
        {"^error,msg=\"No symbol \\\"x\\\" in current context.\"", "^-1 error msg=No symbol \"x\" in current context."},
        {"*stopped,reason=\"exited\",exit-code=\"01\"", "*-1 stopped reason=exited exit-code=01"},
        {"~\"a\\tb\\n\\303\\251\"", "~ a\tb\n\u00e9"},
        {"(gdb) ", "-"},
        {"5^done,threads=[{id=\"1\",target-id=\"Thread 0x7f (LWP 42)\"},{id=\"2\"}],current-thread-id=\"1\"",
         "^5 done threads=[id=1 target-id=Thread 0x7f (LWP 42);id=2] current-thread-id=1"},
        {"^done,stack=[frame={level=\"1\",addr=\"0x401000\"}]", "^-1 done stack=[frame:level=1 addr=0x401000]"},
        {"^done,value=\"unterminated", "-"},
    };
    for (const auto& c : cases) {
        MiRecord record;
        QString text = QStringLiteral("-");
        if (parseMiLine(c.line, &record)) {
            if (record.type == '~')
                text = QStringLiteral("~ ") + record.stream;
            else {
                text = QStringLiteral("%1%2 %3").arg(QLatin1Char(record.type)).arg(record.token).arg(record.className);
                for (const auto& item : record.results.items) {
                    text += QLatin1Char(' ') + item.first + QLatin1Char('=');
                    if (item.second.kind == MiValue::String) {
                        text += item.second.text;
                        continue;
                    }
                    QStringList entries;
                    for (const auto& entry : item.second.items) {
                        QStringList fields;
                        for (const auto& field : entry.second.items)
                            fields << field.first + QLatin1Char('=') + field.second.text;
                        entries << (entry.first.isEmpty() ? QString() : entry.first + QLatin1Char(':'))
                                + fields.join(QLatin1Char(' '));
                    }
                    text += QLatin1Char('[') + entries.join(QLatin1Char(';')) + QLatin1Char(']');
                }
            }
        }
        EXPECT_EQ(text.toStdString(), c.expected) << c.line;
    }
}

TEST(GdbDebugger, WhatCantStartSaysWhy)
{
    QTemporaryDir dir;
    const QString text = dir.filePath(QStringLiteral("notes.txt"));
    QFile file(text);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("not a program\n");
    file.close();
    const struct
    {
        QString gdb;
        QStringList program;
        QStringList preload;
        const char* reason;
    } cases[] = {
        {QStringLiteral("/nonexistent/gdb"), {ZOR_EXAMPLE}, {}, "was not found"},
        {QStringLiteral("gdb"), {QStringLiteral("/nonexistent/program")}, {}, "does not exist"},
        {QStringLiteral("gdb"), {text}, {}, "is not executable"},
        {QStringLiteral("gdb"), {ZOR_EXAMPLE}, {QStringLiteral("/nonexistent/libx.so")}, "can't be read"},
    };
    for (const auto& c : cases) {
        GdbDebugger::Options options;
        options.gdb = c.gdb;
        options.preload = c.preload;
        GdbDebugger debugger(options);
        QString error;
        EXPECT_FALSE(debugger.start(c.program, &error));
        EXPECT_TRUE(error.contains(QLatin1String(c.reason))) << error.toStdString();
    }

    // A static program loads no preloaded library: said before it runs.
    const QString compiler = QStandardPaths::findExecutable(QStringLiteral("cc"));
    ASSERT_FALSE(compiler.isEmpty()) << "a C compiler builds the static program";
    const QString source = dir.filePath(QStringLiteral("static.c")), program = dir.filePath(QStringLiteral("static"));
    QFile code(source);
    ASSERT_TRUE(code.open(QIODevice::WriteOnly));
    code.write("int main(void) { return 0; }\n");
    code.close();
    ASSERT_EQ(QProcess::execute(compiler, {QStringLiteral("-static"), QStringLiteral("-o"), program, source}), 0);
    GdbDebugger::Options options;
    options.preload << QStringLiteral(ZOR_SAMPLER_LIBRARY);
    GdbDebugger debugger(options);
    QString error;
    EXPECT_FALSE(debugger.start({program}, &error));
    EXPECT_TRUE(error.contains(QLatin1String("is linked statically"))) << error.toStdString();

    // A program that ends in a constructor never reaches main, with gdb or
    // without.
    if (!samplerPreloadProblem().isEmpty())
        return;
    code.setFileName(source);
    ASSERT_TRUE(code.open(QIODevice::WriteOnly));
    code.write("#include <unistd.h>\n__attribute__((constructor)) static void quit(void) { _exit(3); }\n"
               "int main(void) { return 0; }\n");
    code.close();
    ASSERT_EQ(QProcess::execute(compiler, {QStringLiteral("-o"), program, source}), 0);
    for (bool throughSampler : {false, true}) {
        options.armThroughSampler = throughSampler;
        options.echoFds[0] = options.echoFds[1] = -1;
        GdbDebugger early(options);
        EXPECT_FALSE(early.start({program}, &error));
        // gdb writes the code in octal.
        EXPECT_TRUE(error.contains(QRegularExpression(QStringLiteral("ended before main: .*exited with code 0?3\\]"))))
            << error.toStdString();
    }
}

TEST(GdbDebugger, FindsGdbOrTheGpuVendorsBuildOfIt)
{
    QTemporaryDir both, vendorOnly, none;
    for (const QString& path : {both.filePath(QStringLiteral("gdb")), both.filePath(QStringLiteral("cuda-gdb")),
                                vendorOnly.filePath(QStringLiteral("cuda-gdb"))}) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.setPermissions(file.permissions() | QFileDevice::ExeOwner);
    }
    const struct
    {
        QString name;
        QStringList paths;
        QString expected;
    } cases[] = {
        {QStringLiteral("gdb"), {none.path(), vendorOnly.path()}, vendorOnly.filePath(QStringLiteral("cuda-gdb"))},
        // gdb itself wherever it is on the path, before the vendor's.
        {QStringLiteral("gdb"), {vendorOnly.path(), both.path()}, both.filePath(QStringLiteral("gdb"))},
        {QStringLiteral("gdb-other"), {both.path(), vendorOnly.path()}, QString()},
        {vendorOnly.filePath(QStringLiteral("cuda-gdb")), {none.path()}, vendorOnly.filePath(QStringLiteral("cuda-gdb"))},
        {vendorOnly.path(), {}, QString()},
    };
    for (const auto& c : cases)
        EXPECT_EQ(GdbDebugger::locate(c.name, c.paths), c.expected) << c.name.toStdString();
}

// Both ways of starting: under gdb, and without it, the sampler armed over
// its channel, with gdb attached only for what the channel can't do.
TEST(GdbDebugger, DrivesARealProgram)
{
    const QString problem = gdbCallProblem(QStringLiteral(ZOR_EXAMPLE));
    if (!problem.isEmpty())
        GTEST_SKIP() << problem.toStdString();
    for (bool throughSampler : {false, true}) {
        SCOPED_TRACE(throughSampler ? "armed through the sampler" : "started under gdb");
        GdbDebugger debugger(exampleOptions(QStringLiteral(ZOR_SAMPLER_LIBRARY), throughSampler));
        ASSERT_EQ(startExample(debugger), QString());
        EXPECT_EQ(debugger.isArmedThroughSampler(), throughSampler);
        const int pid = debugger.targetPid();
        ASSERT_GT(pid, 0);
        EXPECT_EQ(debugger.currentStatus(0).getState(), int(StatusResponse::TargetStopped));

        // Stopped at main (the boundary, the sampler's entry and its version,
        // an address or a call that isn't there: every run end to end asks
        // them), with the sampler in the program and not in gdb.
        QList<int> processes{pid};
        if (!throughSampler)
            processes << debugger.gdbPid();
        for (int process : processes) {
            QFile environment(QStringLiteral("/proc/%1/environ").arg(process));
            ASSERT_TRUE(environment.open(QIODevice::ReadOnly));
            EXPECT_EQ(environment.readAll().contains("LD_PRELOAD=" ZOR_SAMPLER_LIBRARY), process == pid);
        }
        // Its output pipes only as 1 and 2: no copy of them, nor of its
        // input, beside.
        QMap<QString, int> held;
        for (const QFileInfo& fd : QDir(QStringLiteral("/proc/%1/fd").arg(pid)).entryInfoList(QDir::System))
            ++held[fd.symLinkTarget()];
        for (int channel : {1, 2})
            EXPECT_EQ(held.value(QFileInfo(QStringLiteral("/proc/%1/fd/%2").arg(pid).arg(channel)).symLinkTarget()), 1)
                << channel;

        std::unique_ptr<PositionResponse> boundary(
            debugger.positionOfAddress(debugger.mainFrameBoundaryIp().toULongLong(nullptr, 16), 0, nullptr));
        EXPECT_EQ(boundary->function, QStringLiteral("__libc_start_call_main"));
        EXPECT_NE(debugger.getAddressValue(QStringLiteral("&quorvex_init_sampler_now")), 0ULL);
        EXPECT_EQ(debugger.getAddressValue(QStringLiteral("&no_such_function")), 0ULL);
        EXPECT_EQ(debugger.evaluateExpression(QStringLiteral("quorvex_sampler_version()")), QStringLiteral("700"));
        EXPECT_EQ(debugger.evaluateExpression(QStringLiteral("no_such_function(1, \"a, b\")")), QString());
        EXPECT_EQ(debugger.readTargetString(QStringLiteral("quorvex_sampler_error"), QStringLiteral("x"), 1), QString());
        EXPECT_EQ(debugger.readTargetString(QStringLiteral("no_such_variable"), QStringLiteral("d"), 1),
                  QStringLiteral("d"));
        EXPECT_THROW(debugger.setTargetVariable(QStringLiteral("no_such_variable"), QStringLiteral("1")), Exception*);
        debugger.setTargetVariable(QStringLiteral("quorvex_sampling_finished"), QStringLiteral("0"));
        debugger.setSignalDisposition(QStringLiteral("SIGSEGV"),
                                      QString::fromLatin1(DispositionStrings::IgnoreDisposition));
        debugger.setSignalDisposition(QStringLiteral("SIGSEGV"),
                                      QString::fromLatin1(DispositionStrings::DefaultDisposition));
        Command getThreads = debuggerCommand(CMD_GET_THREADS);
        std::unique_ptr<ThreadsResponse> threads(debugger.handleGetThreads(getThreads, 0));
        ASSERT_EQ(threads->getNumThreads(), 1);
        EXPECT_EQ(threads->getActiveThread().uniqueId(), pid);
        // All of that without gdb, where the sampler took it.
        EXPECT_EQ(debugger.gdbPid() == 0, throughSampler);

        // What the channel doesn't take, gdb does, attached while the program
        // waits in the sampler.
        debugger.setTargetVariable(QStringLiteral("quorvex_sampler_error[0]"), QStringLiteral("'Z'"));
        EXPECT_NE(debugger.gdbPid(), 0);
        EXPECT_EQ(debugger.readTargetString(QStringLiteral("quorvex_sampler_error"), QString(), 1), QStringLiteral("Z"));
        EXPECT_EQ(debugger.evaluateExpression(QStringLiteral("quorvex_sampler_version() + 1")), QStringLiteral("701"));
        threads.reset(debugger.handleGetThreads(getThreads, 0));
        ASSERT_EQ(threads->getNumThreads(), 1);
        EXPECT_EQ(threads->getActiveThread().uniqueId(), pid);

        // Positions and code come from the files, gdb isn't asked (names,
        // files and lines of runs: the end-to-end tests).
        const unsigned long long alpha = debugger.getAddressValue(QStringLiteral("&spin_alpha"));
        QList<PositionResponse*> inlined;
        std::unique_ptr<PositionResponse> position(debugger.positionOfAddress(alpha, 0, &inlined));
        EXPECT_EQ(position->function, QStringLiteral("spin_alpha"));
        unsigned long long end = 0;
        const QMap<unsigned long long, Instruction> code = debugger.disassembleRange(alpha + 1, 0, &end);
        ASSERT_FALSE(code.isEmpty());
        EXPECT_EQ(code.firstKey(), alpha);
        EXPECT_GT(end, alpha);
        EXPECT_EQ(debugger.demangleName(QStringLiteral("_ZN3foo3barEi")), QStringLiteral("foo::bar(int)"));
        bool libcSeen = false;
        for (const SharedLibrary& library : debugger.sharedLibraries())
            libcSeen = libcSeen || library.path().contains(QLatin1String("libc.so"));
        EXPECT_TRUE(libcSeen);

        // Detached, the program runs and starts its worker; attached again,
        // it stands still with both threads, the main one known by the same
        // id.
        Command detach = debuggerCommand(CMD_DETACH);
        delete debugger.handleCommand(detach);
        EXPECT_EQ(debugger.currentStatus(0).getState(), int(StatusResponse::Detached));
        spinUntil([] { return false; }, 300);
        Command reattach = debuggerCommand(CMD_REATTACH);
        delete debugger.handleCommand(reattach);
        EXPECT_EQ(debugger.currentStatus(0).getState(), int(StatusResponse::TargetStopped));
        threads.reset(debugger.handleGetThreads(getThreads, 0));
        ASSERT_EQ(threads->getNumThreads(), 2);
        EXPECT_EQ(threads->getThread(0).uniqueId(), pid);
        SetThreadCommand second(threads->getThread(1).debuggerId());
        debugger.handleSetThread(second);
        threads.reset(debugger.handleGetThreads(getThreads, 0));
        EXPECT_EQ(threads->getActiveThread().uniqueId(), threads->getThread(1).uniqueId());
        EXPECT_EQ(debugger.evaluateExpression(QStringLiteral("quorvex_sampler_version()")), QStringLiteral("700"));

        // A fresh gdb takes the program over as it stands.
        const int firstGdb = debugger.gdbPid();
        debugger.restart();
        EXPECT_NE(debugger.gdbPid(), firstGdb);
        EXPECT_TRUE(processGone(firstGdb));
        EXPECT_EQ(debugger.currentStatus(0).getState(), int(StatusResponse::TargetStopped));
        EXPECT_EQ(debugger.evaluateExpression(QStringLiteral("quorvex_sampler_version()")), QStringLiteral("700"));

        // A program that dies while detached is noticed without asking.
        delete debugger.handleCommand(detach);
        QString exitStatus;
        QObject::connect(&debugger, &GdbDebugger::targetExited, [&](const QString& status) { exitStatus = status; });
        ::kill(pid, SIGKILL);
        EXPECT_TRUE(spinUntil([&] { return !exitStatus.isEmpty(); }, 10000));
        EXPECT_EQ(exitStatus, QStringLiteral("killed by signal SIGKILL"));
        EXPECT_EQ(debugger.currentStatus(0).getState(), int(StatusResponse::TargetGone));
        try {
            delete debugger.handleReattach(reattach);
            ADD_FAILURE() << "reattached to a program that is gone";
        } catch (Exception* failure) {
            EXPECT_EQ(failure->code(), int(GdbDebugger::TargetGoneError));
            delete failure;
        }
        // Positions still come from the files kept.
        QList<SharedLibrary> kept = debugger.sharedLibraries();
        debugger.keepSharedLibraries(kept);
        position.reset(debugger.positionOfAddress(alpha, 0, &inlined));
        EXPECT_EQ(position->function, QStringLiteral("spin_alpha"));

        const int gdb = debugger.gdbPid();
        debugger.terminate();
        EXPECT_TRUE(processGone(gdb));
        EXPECT_TRUE(processGone(pid));
    }
}

// A sampler without debug information, as a package ships it: its entry
// points are still called and answer.
TEST(GdbDebugger, CallsIntoAStrippedSampler)
{
    const QString problem = gdbCallProblem(QStringLiteral(ZOR_EXAMPLE));
    if (!problem.isEmpty())
        GTEST_SKIP() << problem.toStdString();
    const QString strip = QStandardPaths::findExecutable(QStringLiteral("strip"));
    ASSERT_FALSE(strip.isEmpty()) << "binutils' strip is needed to make a stripped sampler";
    QTemporaryDir dir;
    const QString stripped = dir.filePath(QStringLiteral("libquorvex-sampler.so"));
    ASSERT_EQ(QProcess::execute(strip, {QStringLiteral("-o"), stripped, QStringLiteral(ZOR_SAMPLER_LIBRARY)}), 0);
    for (bool throughSampler : {false, true}) {
        GdbDebugger debugger(exampleOptions(stripped, throughSampler));
        ASSERT_EQ(startExample(debugger), QString());
        EXPECT_EQ(debugger.isArmedThroughSampler(), throughSampler);
        EXPECT_NE(debugger.getAddressValue(QStringLiteral("&quorvex_init_sampler_now")), 0ULL);
        EXPECT_EQ(debugger.evaluateExpression(QStringLiteral("quorvex_sampler_version()")), QStringLiteral("700"));
        EXPECT_EQ(debugger.evaluateExpression(QStringLiteral("quorvex_set_GPUProfiler_configuration(0,0)")),
                  QStringLiteral("0"));
    }
}

} // namespace
