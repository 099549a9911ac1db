#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <array>
#include <csignal>
#include <unistd.h>

#include "foldedstacks.h"
#include "hostconnection.h"
#include "profile.h"
#include "resultbuilder.h"
#include "../support/gdbprobe.h"
#include "zorrun.h"

namespace {

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString browser()
{
    for (const char* name : { "chromium-headless-shell", "chromium" }) {
        const QString path = QStandardPaths::findExecutable(QLatin1String(name));
        if (!path.isEmpty())
            return path;
    }
    return QString();
}

// Loads an HTML report in a headless browser: the page must draw without a
// console message, and show `functions` in its call tree and flame graph
// and a timeline row per thread class. A screenshot is kept in the build
// tree, named `shot`.
void checkInBrowser(const QString& html, const QStringList& functions, const QString& shot)
{
    const QString chromium = browser();
    if (chromium.isEmpty())
        GTEST_SKIP() << "no chromium-headless-shell or chromium (scripts/install-deps.sh installs it)";
    const QStringList common = { QStringLiteral("--no-sandbox"), QStringLiteral("--disable-gpu"),
                                 QStringLiteral("--hide-scrollbars"), QStringLiteral("--enable-logging=stderr"),
                                 QStringLiteral("--v=0") };
    const QString url = QStringLiteral("file://") + QFileInfo(html).absoluteFilePath();
    QProcess dump;
    dump.start(chromium, common + QStringList{ QStringLiteral("--dump-dom"), url });
    ASSERT_TRUE(dump.waitForFinished(120000));
    const QString dom = QString::fromUtf8(dump.readAllStandardOutput());
    const QString log = QString::fromLocal8Bit(dump.readAllStandardError());
    EXPECT_TRUE(dom.contains(QLatin1String("data-zor-status=\"ready\""))) << qPrintable(dom.left(2000));
    EXPECT_FALSE(log.contains(QLatin1String("CONSOLE"))) << qPrintable(log);
    for (const QString& function : functions) {
        EXPECT_TRUE(dom.contains(QStringLiteral("class=\"row\" data-function=\"%1\"").arg(function)))
            << "call tree lacks " << qPrintable(function);
        EXPECT_TRUE(dom.contains(QStringLiteral("<title>%1 (").arg(function))) << "flame graph lacks " << qPrintable(function);
    }
    EXPECT_TRUE(dom.contains(QLatin1String("data-row=\"main thread\""))) << "no timeline";

    QDir().mkpath(QStringLiteral(ZOR_ARTEFACTS));
    const QString png = QDir(QStringLiteral(ZOR_ARTEFACTS)).filePath(shot);
    QFile::remove(png);
    QProcess screenshot;
    screenshot.start(chromium, common + QStringList{ QStringLiteral("--window-size=1280,1800"),
                                                     QStringLiteral("--screenshot=") + png, url });
    ASSERT_TRUE(screenshot.waitForFinished(120000));
    EXPECT_GT(QFileInfo(png).size(), 10000) << qPrintable(png);
}

// The lines of the top functions in a summary.
QStringList topFunctions(const QString& summary)
{
    const QStringList lines = summary.split(QLatin1Char('\n'));
    QStringList top;
    for (int i = lines.indexOf(QRegExp(QStringLiteral("^Top functions.*"))) + 2; i > 1 && i < lines.size(); ++i) {
        if (lines.at(i).isEmpty())
            break;
        top.append(lines.at(i));
    }
    return top;
}

// Shares, in percent, of the leaf functions of folded stacks among `functions`.
QMap<QString, double> shares(const QByteArray& folded, const QStringList& functions)
{
    QMap<QString, double> time;
    double total = 0;
    for (const auto& line : foldedLines(folded)) {
        if (functions.contains(line.first.last())) {
            time[line.first.last()] += line.second;
            total += line.second;
        }
    }
    for (double& t : time)
        t = total > 0 ? 100 * t / total : 0;
    return time;
}

} // namespace

// zor-host needs a debugger that may trace and call functions in a program
// (gdb 13 can't on CPUs with AMX state), and a build that can preload the sampler.
#define SKIP_WITHOUT_RUNS()                                                         \
    if (const QString why = gdbCallProblem(QStringLiteral(ZOR_EXAMPLE)); !why.isEmpty()) \
    GTEST_SKIP() << qPrintable(why)

// zor-example under zor profile: the shares of its hot functions come out as
// the program means them, the saved result gives the same summary again, the
// HTML report draws, and the program keeps its own output and exit status.
TEST(ZorProfile, ExampleSharesComeOutAsTheProgramMeansThem)
{
    SKIP_WITHOUT_RUNS();
    QTemporaryDir dir;
    QTemporaryDir temporary;
    const QProcessEnvironment env = withTmpdir(temporary.path());
    const QString folded = dir.filePath(QStringLiteral("example.folded"));
    const QString html = dir.filePath(QStringLiteral("example.html"));
    // A fixed amount of work, so that a busy machine makes the run longer but
    // not the samples fewer; every millisecond, some 2,500 samples per thread
    // keep the shares within a point or two.
    const Outcome run = zor({ "profile", "--interval", "1", "--samples", "5000", "--folded", folded, "--html", html,
                              "--", ZOR_EXAMPLE, "--work", "4000" },
                            env, 240000, dir.path());
    ASSERT_EQ(run.status, 0) << qPrintable(run.err);
    // A program that ends as it should is no news.
    for (const char* notice : { "has ended", "attach" })
        EXPECT_FALSE(run.err.contains(QLatin1String(notice))) << qPrintable(run.err);
    EXPECT_TRUE(run.out.startsWith(QLatin1String("zor-example: 4000 rounds of work in ")))
        << "the program's own output: " << qPrintable(run.out);
    const QStringList saved = QDir(dir.path()).entryList({ "zor-example-*.zor" });
    ASSERT_EQ(saved.size(), 1) << qPrintable(run.err);

    const QMap<QString, double> main = shares(readAll(folded), { "spin_alpha", "spin_beta", "spin_gamma" });
    const QMap<QString, double> worker = shares(readAll(folded), { "spin_delta", "spin_epsilon" });
    const QMap<QString, double> intended{ { "spin_alpha", 50 }, { "spin_beta", 30 }, { "spin_gamma", 20 },
                                          { "spin_delta", 75 }, { "spin_epsilon", 25 } };
    for (auto it = intended.constBegin(); it != intended.constEnd(); ++it) {
        const double share = main.contains(it.key()) ? main.value(it.key()) : worker.value(it.key());
        EXPECT_NEAR(share, it.value(), 5.0) << qPrintable(it.key()) << "\n" << readAll(folded).constData();
    }
    // main calls spin_alpha through the loop that shares the work out.
    for (const QByteArray& stack : readAll(folded).split('\n'))
        EXPECT_TRUE(!stack.contains(";spin_alpha ") || QString::fromUtf8(stack).contains(QRegularExpression(QStringLiteral(";main;(run_plan;)?spin_alpha ")))) << stack.constData();
    // The worker named itself, and is shown so.
    EXPECT_TRUE(run.err.contains(QRegularExpression(QStringLiteral("\n  worker \\(1\\) +\\|")))) << qPrintable(run.err);
    // The hot functions are one-liners in the 40s to 60s of the example's source.
    for (const QString& line : topFunctions(run.err).filter(QStringLiteral(" spin_")))
        EXPECT_TRUE(line.contains(QRegularExpression(QStringLiteral("hotspots\\.c:[4-6][0-9]$")))) << qPrintable(line);

    // The result, saved under the program's name in the working directory,
    // shows the same top functions again.
    const Outcome report = zor({ "report", dir.filePath(saved.first()) });
    ASSERT_EQ(report.status, 0) << qPrintable(report.err);
    EXPECT_FALSE(topFunctions(run.err).isEmpty()) << qPrintable(run.err);
    EXPECT_EQ(topFunctions(report.out), topFunctions(run.err));
    // The ended program's own CPU time comes with it: about what was
    // sampled, with the sampler's share (more on a busy machine) and the
    // run to main beside.
    Result result;
    QString error;
    ASSERT_TRUE(ResultFile::read(dir.filePath(saved.first()), &result, &error)) << qPrintable(error);
    const double sampledMs = double(Profile(result).cpuNs()) / 1e6;
    EXPECT_GT(double(result.run.processCpuMs), 0.95 * sampledMs);
    EXPECT_LT(double(result.run.processCpuMs), 1.5 * sampledMs);
    EXPECT_EQ(leftovers(temporary.path()), QStringList());
    checkInBrowser(html, { "spin_alpha", "spin_beta", "spin_gamma", "spin_delta", "spin_epsilon" },
                   QStringLiteral("zor-profile.png"));

    // The program's failure is zor's, and -o names the result, which the
    // command that shows it again quotes. The program is a script's
    // interpreter here, which gets its argument and the script before the
    // script's own.
    const QString script = dir.filePath(QStringLiteral("bogus-script"));
    QFile scriptFile(script);
    ASSERT_TRUE(scriptFile.open(QIODevice::WriteOnly));
    scriptFile.write("#!" + QByteArray(ZOR_EXAMPLE) + " --work\n");
    scriptFile.setPermissions(scriptFile.permissions() | QFile::ExeOwner);
    scriptFile.close();
    const QString named = dir.filePath(QStringLiteral("named result.zor"));
    const Outcome failing = zor({ "profile", "-o", named, "--", script, "--bogus" }, env, 120000, dir.path());
    EXPECT_EQ(failing.status, 2) << qPrintable(failing.err);
    EXPECT_TRUE(failing.err.contains(QLatin1String("zor-example: unknown argument --bogus\nusage: zor-example")))
        << qPrintable(failing.err);
    EXPECT_TRUE(failing.err.contains(QStringLiteral("(zor report '%1' shows it again)").arg(named))) << qPrintable(failing.err);
    EXPECT_TRUE(QFile::exists(named));
}

// Ctrl-C stops sampling and still gives the result; a second one aborts and
// leaves nothing behind.
TEST(ZorProfile, CtrlCStopsSamplingAndASecondAborts)
{
    SKIP_WITHOUT_RUNS();
    QTemporaryDir dir;
    QTemporaryDir temporary;
    const QProcessEnvironment env = withTmpdir(temporary.path());
    for (int interrupts : { 1, 2 }) {
        const QString result = dir.filePath(QStringLiteral("stopped%1.zor").arg(interrupts));
        QProcess process;
        process.setProcessEnvironment(env);
        process.setWorkingDirectory(dir.path());
        process.start(QStringLiteral(ZOR_PROGRAM),
                      { "profile", "--quiet", "-o", result, "--", ZOR_EXAMPLE, "--seconds", "60" });
        ASSERT_TRUE(process.waitForStarted());
        // Long enough for the program to run under the sampler.
        const bool endedEarly = process.waitForFinished(8000);
        ASSERT_FALSE(endedEarly) << "zor ended before Ctrl-C: " << process.readAllStandardError().constData();
        ::kill(process.processId(), SIGINT);
        QString err;
        if (interrupts == 2) {
            // Signals don't queue: the second goes once the first was taken.
            process.setReadChannel(QProcess::StandardError);
            while (!err.contains(QLatin1String("stopping")) && process.waitForReadyRead(30000))
                err += QString::fromLocal8Bit(process.readAllStandardError());
            ::kill(process.processId(), SIGINT);
        }
        ASSERT_TRUE(process.waitForFinished(120000)) << "zor didn't end after Ctrl-C";
        err += QString::fromLocal8Bit(process.readAllStandardError());
        EXPECT_EQ(process.exitCode(), 130) << qPrintable(err);
        EXPECT_TRUE(err.contains(QLatin1String("zor: stopping sampling; Ctrl-C again aborts"))) << qPrintable(err);
        if (interrupts == 1) {
            Result read;
            QString error;
            EXPECT_TRUE(ResultFile::read(result, &read, &error)) << qPrintable(error);
            EXPECT_TRUE(read.run.interrupted);
            EXPECT_GT(read.ranks.value(0).samples.size(), 0);
        } else {
            EXPECT_TRUE(err.contains(QLatin1String("zor: aborted"))) << qPrintable(err);
            EXPECT_FALSE(QFile::exists(result));
        }
        EXPECT_EQ(leftovers(temporary.path()), QStringList());
    }
}

// An installed zor finds its host, plug-in and sampler relative to itself.
TEST(ZorProfile, RunsFromAnInstalledPrefix)
{
    SKIP_WITHOUT_RUNS();
    QTemporaryDir prefix;
    QProcess install;
    install.setProcessChannelMode(QProcess::MergedChannels);
    install.start(QStringLiteral("cmake"), { "--install", ZOR_BUILD_DIR, "--prefix", prefix.path() });
    ASSERT_TRUE(install.waitForFinished(120000));
    ASSERT_EQ(install.exitCode(), 0) << install.readAll().constData();
    const QString zorInstalled = QDir(prefix.path()).filePath(QStringLiteral("bin/zor"));
    QTemporaryDir dir;
    const QString result = dir.filePath(QStringLiteral("r.zor"));
    const Outcome run = zor({ "profile", "--quiet", "-o", result, "--", ZOR_EXAMPLE, "--seconds", "1" },
                            QProcessEnvironment::systemEnvironment(), 120000, dir.path(), zorInstalled);
    ASSERT_EQ(run.status, 0) << qPrintable(run.err);
    const Outcome report = zor({ "report", result, "--top", "3" }, QProcessEnvironment::systemEnvironment(), 60000,
                               dir.path(), zorInstalled);
    EXPECT_EQ(report.status, 0) << qPrintable(report.err);
    EXPECT_TRUE(report.out.contains(QLatin1String("spin_"))) << qPrintable(report.out);

    // A program without symbols, as distributions ship them, has no main to
    // stop at by name; it is profiled all the same.
    const QString stripped = dir.filePath(QStringLiteral("stripped-example"));
    ASSERT_EQ(QProcess::execute(QStringLiteral("strip"), { "-o", stripped, ZOR_EXAMPLE }), 0);
    const QString folded = dir.filePath(QStringLiteral("stripped.folded"));
    const Outcome bare = zor({ "profile", "--quiet", "--folded", folded, "--", stripped, "--seconds", "1" },
                             QProcessEnvironment::systemEnvironment(), 120000, dir.path(), zorInstalled);
    ASSERT_EQ(bare.status, 0) << qPrintable(bare.err);
    QFile stacks(folded);
    ASSERT_TRUE(stacks.open(QIODevice::ReadOnly));
    EXPECT_TRUE(stacks.readAll().contains("stripped-example")) << qPrintable(folded);
}

TEST(ZorReport, ShowsASavedResultAndWritesItsReportsAgain)
{
    QTemporaryDir dir;
    const Result result = exampleResult(2);
    QString error;
    const QString saved = dir.filePath(QStringLiteral("run.zor"));
    ASSERT_TRUE(ResultFile::write(saved, result, &error)) << qPrintable(error);
    const QString html = dir.filePath(QStringLiteral("run.html"));
    const QString folded = dir.filePath(QStringLiteral("run.folded"));
    const Outcome run = zor({ "report", saved, "--html", html, "--folded", folded, "--top", "3" });
    ASSERT_EQ(run.status, 0) << qPrintable(run.err);
    EXPECT_TRUE(run.err.isEmpty()) << qPrintable(run.err);
    const QStringList top = topFunctions(run.out);
    ASSERT_EQ(top.size(), 3) << qPrintable(run.out);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(top[i].contains(QLatin1String(std::array<const char*, 3>{ "spin_delta", "spin_alpha", "spin_beta" }[i])))
            << qPrintable(run.out);
    EXPECT_TRUE(run.out.endsWith(QStringLiteral("HTML report: %1\n").arg(html)));
    EXPECT_EQ(readAll(folded), foldedStacks(Profile(result)));
    checkInBrowser(html, { "spin_alpha", "spin_beta", "spin_gamma", "spin_delta", "spin_epsilon" },
                   QStringLiteral("zor-report.png"));
}

TEST(ZorCommand, BadInputGetsOneClearLineAndLeavesNothingBehind)
{
    QTemporaryDir files;
    QTemporaryDir temporary; // the TMPDIR of every run: it must stay empty
    // Each reason a result file can't be read: ResultFile's test; here, that
    // one reaches the user as one line.
    const QString notExecutable = files.filePath(QStringLiteral("script"));
    QFile(notExecutable).open(QIODevice::WriteOnly);
    const QString wrapper = files.filePath(QStringLiteral("wrapper"));
    QFile script(wrapper);
    script.open(QIODevice::WriteOnly);
    script.write("#! /bin/sh\nexec true \"$@\"\n");
    script.setPermissions(script.permissions() | QFile::ExeOwner);
    script.close();
    const QString libtoolWrapper = files.filePath(QStringLiteral("uninstalled"));
    QFile libtoolScript(libtoolWrapper);
    libtoolScript.open(QIODevice::WriteOnly);
    libtoolScript.write("#! /bin/bash\n\n# uninstalled - temporary wrapper script for .libs/uninstalled\n"
                        "# Generated by libtool (GNU libtool) 2.4.7\n");
    libtoolScript.setPermissions(libtoolScript.permissions() | QFile::ExeOwner);
    libtoolScript.close();
    const QString nested = files.filePath(QStringLiteral("nested"));
    QFile nestedScript(nested);
    nestedScript.open(QIODevice::WriteOnly);
    nestedScript.write("#!" + QFile::encodeName(wrapper) + " -x\n");
    nestedScript.setPermissions(nestedScript.permissions() | QFile::ExeOwner);
    nestedScript.close();
    QFile foreign(files.filePath(QStringLiteral("notes.zor")));
    foreign.open(QIODevice::WriteOnly);
    foreign.write("these are my notes\n");
    foreign.close();
    const QString html = files.filePath(QStringLiteral("out.html"));

    const struct
    {
        QStringList args;
        const char* message; // a regular expression for the one line
    } cases[] = {
        { { "profile", "--", "/no/such/dir/program" }, "^zor: no such program: /no/such/dir/program$" },
        { { "profile", "--", "no-such-program-zor-test" }, "^zor: no such program: no-such-program-zor-test \\(not found in PATH\\)$" },
        { { "profile", "--", notExecutable }, "^zor: .*/script is not executable$" },
        { { "profile", "--", files.path() }, "is not executable$" },
        { { "profile", "--", wrapper }, "^zor: .*/wrapper is a script \\(#!/bin/sh\\): a shell script's work is done by the programs that it runs" },
        { { "profile", "--", libtoolWrapper }, "^zor: .*/uninstalled is a script \\(#!/bin/bash\\): libtool's wrapper of \\.libs/uninstalled: run zor through libtool, which sets up the build's libraries for it: libtool --mode=execute zor profile -- .*/uninstalled$" },
        { { "profile", "--", nested }, "^zor: .*/nested is a script \\(#!.*/wrapper -x\\): its interpreter is a script too" },
        { { "profile", "--frobnicate", "--", "true" }, "^zor: unknown option --frobnicate \\(see zor --help\\)$" },
        { { "profile", "--interval", "soon", "--", "true" }, "^zor: --interval takes a positive number, not soon$" },
        { { "profile", "--samples" }, "^zor: --samples needs a value$" },
        { { "profile", "--ranks", "0", "--", "true" }, "^zor: --ranks needs -n$" },
        { { "profile", "-n", "2", "--ranks", "1-x", "--", "true" }, "^zor: --ranks takes ranks and ranges of ranks such as 0-3,7, not 1-x$" },
        { { "profile", "--shmem", "--", "true" }, "^zor: --shmem needs -n$" },
        { { "profile" }, "^zor: no program to profile" },
        { { "report", foreign.fileName(), "--html", html }, "^zor: .*/notes.zor is not a zor result file$" },
        { { "report", files.filePath("none.zor"), "--html", html }, "^zor: cannot read .*/none.zor: " },
        { { "report", foreign.fileName(), "--bogus" }, "^zor: unknown option --bogus" },
        { { "report" }, "^zor: zor report needs a result file" },
        { { "frobnicate" }, "^zor: unknown command frobnicate" },
    };
    for (const auto& c : cases) {
        const Outcome run = zor(c.args, withTmpdir(temporary.path()));
        const QString what = c.args.join(QLatin1Char(' '));
        EXPECT_GT(run.status, 0) << qPrintable(what);
        EXPECT_TRUE(run.out.isEmpty()) << qPrintable(what) << ": " << qPrintable(run.out);
        EXPECT_EQ(run.err.count(QLatin1Char('\n')), 1) << qPrintable(what) << ": " << qPrintable(run.err);
        EXPECT_TRUE(run.err.trimmed().contains(QRegularExpression(QLatin1String(c.message))))
            << qPrintable(what) << ": " << qPrintable(run.err);
        EXPECT_TRUE(QDir(temporary.path()).isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden)) << qPrintable(what);
        EXPECT_FALSE(QFile::exists(html)) << qPrintable(what);
    }
}

// The host tells how the program ended in words only.
TEST(ZorProfile, TheProgramsEndIsReadInEveryFormTheHostTellsIt)
{
    const struct
    {
        QVariantMap values;
        int exitCode;
        int signal;
    } cases[] = {
        { { { "status", "exited with code 7" } }, 7, 0 },
        // The debugger writes exit codes in octal.
        { { { "status", "[Inferior 1 (process 12) exited with code 012]" } }, 10, 0 },
        { { { "status", "[Inferior 1 (process 12) exited normally]" } }, 0, 0 },
        { { { "status", "killed by signal SIGSEGV" } }, 0, 11 },
        { { { "status", "Program terminated with signal SIGINT, Interrupt." } }, 0, 2 },
        { { { "status", "ended" } }, 0, 0 },
    };
    for (const auto& c : cases) {
        int exitCode = -1, signal = -1;
        readExitStatus(c.values, &exitCode, &signal);
        EXPECT_EQ(exitCode, c.exitCode) << qPrintable(c.values.first().toString());
        EXPECT_EQ(signal, c.signal) << qPrintable(c.values.first().toString());
    }
}
