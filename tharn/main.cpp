// zor-host: runs beside one process of the profiled program, with a
// debugger attached to it, and serves the front-end's commands through the
// profiler plug-in.
//
//   zor-host [--connect ADDRESS] [--plugin PATH] [--log] -- PROGRAM [ARGS...]
//
// ADDRESS is "local:PATH" or "tcp:HOST:PORT"; without --connect it comes
// from the FRONTEND switch (ZOR_FRONTEND). The host connects, presents the
// run's token where the FRONTEND_TOKEN switch gives one (the front-end hears
// nobody who doesn't), starts the program under gdb with the sampler
// preloaded, stopped at main, sends a
// hello (with an "error" instead when it can't) and serves commands until
// the front-end closes the connection; then it ends the program if it still
// runs, and its gdb, and exits. When the program ends, a targetExit message
// says how. SIGINT is ignored: the front-end stops a run for the user;
// SIGTERM and SIGHUP end the host as a closed connection does, except that
// a first SIGTERM while a run is under way only stops sampling.
#include <QCoreApplication>
#include <QStringList>
#include <QSysInfo>
#include <csignal>
#include <cstdio>
#include <memory>

#include "command.h"
#include "constants.h"
#include "envswitch.h"
#include "fdsocket.h"
#include "hostenvironment.h"
#include "message.h"
#include "messagestream.h"
#include "pluginentry.h"
#include "quorvexplugins.h"
#include "gdbdebugger.h"
#include "platformnames.h"
#include "quorvexglobals.h"
#include "shutdownsignals.h"
#include "tharn.h"

namespace {

int usage(const char* why)
{
    fprintf(stderr, "zor-host: %s\nusage: zor-host [--connect local:PATH|tcp:HOST:PORT] [--plugin PATH] [--log] -- "
                    "PROGRAM [ARGS...]\n",
            why);
    return 2;
}

QIODevice* connectTo(const FrontendAddress& address, QObject* parent, QString* error)
{
    const int timeoutMs = 30000;
    FdSocket* socket = new FdSocket(parent);
    if (address.kind == FrontendAddress::Local ? socket->connectToLocal(address.path, timeoutMs)
                                               : socket->connectToTcp(address.host, quint16(address.port), timeoutMs))
        return socket;
    *error = socket->errorString();
    delete socket;
    return nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    QString addressText;
    QString pluginPath;
    bool log = false;
    QStringList program;
    while (!args.isEmpty()) {
        const QString arg = args.takeFirst();
        if (arg == QLatin1String("--connect") && !args.isEmpty())
            addressText = args.takeFirst();
        else if (arg == QLatin1String("--plugin") && !args.isEmpty())
            pluginPath = args.takeFirst();
        else if (arg == QLatin1String("--log"))
            log = true;
        else if (arg == QLatin1String("--")) {
            program = args;
            break;
        } else
            return usage(qPrintable(QStringLiteral("unknown argument %1").arg(arg)));
    }
    if (program.isEmpty())
        return usage("no program to run");
    if (addressText.isEmpty())
        addressText = EnvSwitch("FRONTEND").text();
    const FrontendAddress address = FrontendAddress::parse(addressText);
    if (address.kind == FrontendAddress::Invalid)
        return usage(addressText.isEmpty() ? "no front-end address (--connect or ZOR_FRONTEND)"
                                           : "the front-end address is neither local:PATH nor tcp:HOST:PORT");
    if (pluginPath.isEmpty())
        pluginPath = defaultProfilerPluginPath();

    QString error;
    QIODevice* socket = connectTo(address, &app, &error);
    if (!socket) {
        fprintf(stderr, "zor-host: can't connect to the front-end at %s: %s\n", qPrintable(address.toString()),
                qPrintable(error));
        return 1;
    }
    // The token opens the connection and is for this host alone: the
    // program doesn't inherit it.
    const QByteArray token = EnvSwitch("FRONTEND_TOKEN").text().toLatin1();
    if (!token.isEmpty())
        socket->write(token + '\n');
    for (const char* name : { "KLB_FRONTEND_TOKEN", "ZOR_FRONTEND_TOKEN", "QUORVEX_FRONTEND_TOKEN" })
        qunsetenv(name);
    ++g_cacheSerial;
    ShutdownSignals shutdown;
    MessageStream stream(socket, nullptr);
    const QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const TharnIdentity identity = identityFromEnvironment(environment, program.first());
    const QString launcher = launcherName(environment);
    Tharn tharn(stream, identity);
    tharn.setLogToStandardError(log);
    tharn.setReportingSuppressed(EnvSwitch("SUPPRESS_REPORTS").isOn());

    QVariantMap hello{
        {QString::fromLatin1(HelloKeys::Rank), identity.rank},
        {QString::fromLatin1(HelloKeys::RankCount), identity.rankCount},
        {QString::fromLatin1(HelloKeys::Hostname), QSysInfo::machineHostName()},
        {QString::fromLatin1(HelloKeys::HostPid), int(app.applicationPid())},
        {QString::fromLatin1(HelloKeys::Program), program.first()},
    };
    // The front-end tells the user what went wrong; the host only when it
    // can't.
    auto fail = [&](const QString& why) {
        hello.insert(QString::fromLatin1(HelloKeys::Error), why);
        if (!stream.send(Message::forValues(Message::Hello, hello)) || !stream.flush())
            fprintf(stderr, "zor-host: %s\n", qPrintable(why));
        return 1;
    };

    // A rank of an MPI program gets the MPI wrapper too, behind the sampler,
    // whose hooks it calls.
    const bool mpi = identity.rankCount > 1 || !launcher.isEmpty();
    GdbDebugger::Options options;
    options.gdb = qEnvironmentVariable("ZOR_GDB", options.gdb);
    // ZOR_ARM_WITH_GDB=1 starts every program under gdb, as a program the
    // sampler can't arm itself is.
    options.armThroughSampler = !EnvSwitch("ARM_WITH_GDB").isOn();
    options.preload << QuorvexGlobals::instance().installPath() + QStringLiteral("/libquorvex-sampler.so");
    // An OpenSHMEM program (the front-end says so) gets the wrapper that
    // counts its SHMEM calls as well as its MPI ones.
    if (mpi)
        options.preload << QuorvexGlobals::instance().installPath()
                + (EnvSwitch("SHMEM").isOn() ? QStringLiteral("/libquorvex-shmemwrapper.so")
                                             : QStringLiteral("/libquorvex-mpiwrapper.so"));
    // The plug-in loads while gdb starts.
    QuorvexTharnPlugin* plugin = nullptr;
    QString pluginError;
    options.whileGdbStarts = [&]() { plugin = loadTharnPlugin(pluginPath, &pluginError); };
    GdbDebugger debugger(options);
    debugger.startupName = mpi ? launcher : NoMPIStartup::getName();
    if (!debugger.start(program, &error))
        return fail(error);
    hello.insert(QString::fromLatin1(HelloKeys::TargetPid), debugger.targetPid());
    hello.insert(QString::fromLatin1(HelloKeys::DebuggerPid), debugger.gdbPid());
    tharn.setDebugger(&debugger);
    debugger.setLowerTargetPriorityWhen([&tharn] { return tharn.isStopAsked(); });
    tharn.setTargetGoneCode(GdbDebugger::TargetGoneError);
    tharn.setTargetPid(debugger.targetPid());
    tharn.setDebuggerPid(debugger.gdbPid());
    tharn.setDebuggerRestarter([&] {
        debugger.restart();
        tharn.setDebuggerPid(debugger.gdbPid());
    });

    if (!plugin)
        return fail(pluginError);
    try {
        Command init(QStringLiteral("init"), QString::fromLatin1(XML_TARGET_PROFILER));
        plugin->init(init, tharn);
        tharn.addHandler(plugin->getMessageHandler());
    } catch (Exception* failure) {
        const QString why = failure->fullMessage();
        delete failure;
        return fail(why);
    }

    // A target that ends while it runs free of the debugger ends the run,
    // so that what was sampled still comes back.
    QObject::connect(&debugger, &GdbDebugger::targetExited, &tharn, [&](const QString& status) {
        tharn.logDebug(QStringLiteral("the program %1").arg(status));
        QVariantMap values = {{QStringLiteral("status"), status}};
        if (debugger.childrenCpuMs() >= 0)
            values.insert(QStringLiteral("childrenCpuMs"), debugger.childrenCpuMs());
        if (debugger.processCpuMs() >= 0)
            values.insert(QStringLiteral("processCpuMs"), debugger.processCpuMs());
        stream.send(Message::forValues(Message::TargetExit, values));
        stream.flush();
        if (debugger.isDetached() && tharn.isTargetMonitoring())
            tharn.stopRun();
    });

    stream.send(Message::forValues(Message::Hello, hello));
    stream.flush();
    int exitCode = 0;
    QObject::connect(socket, SIGNAL(disconnected()), &app, SLOT(quit()));
    QObject::connect(&stream, &MessageStream::failed, &app, [&](const QString& reason) {
        fprintf(stderr, "zor-host: %s\n", qPrintable(reason));
        exitCode = 1;
        app.quit();
    });
    // mpirun asks every rank's host to end when a rank aborts, and kills
    // them a while later: with a run under way, the first request stops
    // sampling, and the host goes on until the front-end, which has
    // collected what was sampled, closes the connection.
    bool askedToEnd = false;
    QObject::connect(&shutdown, &ShutdownSignals::received, &app, [&](int signal) {
        if (signal == SIGTERM && tharn.isRunUnderway() && !askedToEnd) {
            askedToEnd = true;
            tharn.logDebug(QStringLiteral("asked to end: stopping sampling for the front-end"));
            if (debugger.isDetached() && tharn.isTargetMonitoring())
                tharn.stopRun();
            return;
        }
        app.quit();
    });
    app.exec();
    // Whatever is left of the program and its debugger goes with the host.
    debugger.terminate();
    return exitCode;
}
