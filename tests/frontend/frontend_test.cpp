#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include "foldedstacks.h"
#include "profile.h"
#include "resultbuilder.h"

namespace {

struct Outcome
{
    int status = -1;
    QString out;
    QString err;
};

Outcome zor(const QStringList& args, const QProcessEnvironment& env = QProcessEnvironment::systemEnvironment(),
        int timeoutMs = 60000)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(ZOR_PROGRAM), args);
    Outcome run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        run.err = QStringLiteral("timed out");
        return run;
    }
    run.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromLocal8Bit(process.readAllStandardOutput());
    run.err = QString::fromLocal8Bit(process.readAllStandardError());
    return run;
}

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

} // namespace

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
    const QStringList lines = run.out.split(QLatin1Char('\n'));
    const int top = lines.indexOf(QRegExp(QStringLiteral("^Top functions.*")));
    ASSERT_GE(top, 0) << qPrintable(run.out);
    for (int i = 0; i < 3; ++i) {
        const char* expected[] = { "spin_delta", "spin_alpha", "spin_beta" };
        EXPECT_TRUE(lines.value(top + 2 + i).contains(QLatin1String(expected[i]))) << qPrintable(run.out);
    }
    EXPECT_TRUE(lines.value(top + 5).isEmpty()) << "--top 3 shows three";
    EXPECT_TRUE(run.out.endsWith(QStringLiteral("HTML report: %1\n").arg(html)));
    EXPECT_EQ(readAll(folded), foldedStacks(Profile(result)));
    checkInBrowser(html, { "spin_alpha", "spin_beta", "spin_gamma", "spin_delta", "spin_epsilon" },
                   QStringLiteral("zor-report.png"));
}

TEST(ZorCommand, BadInputGetsOneClearLineAndLeavesNothingBehind)
{
    QTemporaryDir files;
    QTemporaryDir temporary; // the TMPDIR of every run: it must stay empty
    const QString notExecutable = files.filePath(QStringLiteral("script"));
    QFile(notExecutable).open(QIODevice::WriteOnly);
    QFile foreign(files.filePath(QStringLiteral("notes.zor")));
    foreign.open(QIODevice::WriteOnly);
    foreign.write("these are my notes\n");
    foreign.close();
    const QByteArray good = ResultFile::encode(exampleResult(1));
    QFile truncated(files.filePath(QStringLiteral("cut.zor")));
    truncated.open(QIODevice::WriteOnly);
    truncated.write(good.left(good.size() / 2));
    truncated.close();
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
        { { "profile", "--frobnicate", "--", "true" }, "^zor: unknown option --frobnicate \\(see zor --help\\)$" },
        { { "profile", "--interval", "soon", "--", "true" }, "^zor: --interval takes a positive number, not soon$" },
        { { "profile", "--samples" }, "^zor: --samples needs a value$" },
        { { "profile" }, "^zor: no program to profile" },
        { { "report", files.filePath("cut.zor"), "--html", html }, "^zor: .*/cut.zor is truncated: [0-9]+ of its [0-9]+ bytes are there$" },
        { { "report", foreign.fileName(), "--html", html }, "^zor: .*/notes.zor is not a zor result file$" },
        { { "report", files.filePath("none.zor"), "--html", html }, "^zor: cannot read .*/none.zor: " },
        { { "report", foreign.fileName(), "--bogus" }, "^zor: unknown option --bogus" },
        { { "report" }, "^zor: zor report needs a result file" },
        { { "frobnicate" }, "^zor: unknown command frobnicate" },
    };
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TMPDIR"), temporary.path());
    for (const auto& c : cases) {
        const Outcome run = zor(c.args, env);
        const QString what = c.args.join(QLatin1Char(' '));
        EXPECT_GT(run.status, 0) << qPrintable(what);
        EXPECT_TRUE(run.out.isEmpty()) << qPrintable(what) << ": " << qPrintable(run.out);
        EXPECT_EQ(run.err.count(QLatin1Char('\n')), 1) << qPrintable(what) << ": " << qPrintable(run.err);
        EXPECT_TRUE(run.err.trimmed().contains(QRegularExpression(QLatin1String(c.message))))
            << qPrintable(what) << ": " << qPrintable(run.err);
        EXPECT_TRUE(QDir(temporary.path()).isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden))
            << qPrintable(what) << " left files in TMPDIR";
        EXPECT_FALSE(QFile::exists(html)) << qPrintable(what);
    }
}
