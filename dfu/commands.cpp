#include "dfu/commands.h"

#include <QtGlobal>
#if defined(Q_OS_UNIX)
#include <csignal>
#include <pthread.h>
#include <unistd.h>
#endif

#include <utility>

#include <QDebug>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QProcess>

#include "dfu/runstop.h"

namespace DFU {

namespace {

// The scan runs `list` twice a second; its start line is logged only when this category's debug
// level is switched on (QT_LOGGING_RULES="lumaxis.dfu.list.debug=true").
Q_LOGGING_CATEGORY(list_start_switch, "lumaxis.dfu.list", QtInfoMsg)

constexpr int first_wait_ms = 30000;

Command entry(QList<QString> args)
{
    Command command;
    command.args = std::move(args);
    return command;
}

} // namespace

QString Command::path;
QString Command::serial;
QString Command::usb_path;

// Transfers name the bootloader's DFU-mode ids: "-d 0483" alone sets only dfu-util's run-time
// filter, so any other DFU-mode device on the bus would match too and the transfer would refuse to
// pick one ("More than one DFU capable USB device found"). The listing keeps the plain vendor:
// its parser looks for the unit's own lines anyway.
const QString unit_in_dfu_mode = QStringLiteral(",0483:df11");

QMap<CmdID, Command> commands = {
    {version, entry({QStringLiteral("-V")})},
    {list, entry({QStringLiteral("-d"), QStringLiteral("0483"), QStringLiteral("-l")})},
    {upload_OTP, entry({QStringLiteral("-d"), unit_in_dfu_mode, QStringLiteral("-a"),
                        QStringLiteral("2"), QStringLiteral("-s"),
                        QStringLiteral("0x1FFF7800:512"), QStringLiteral("-U")})},
    {upload_FW_info, entry({QStringLiteral("-d"), unit_in_dfu_mode, QStringLiteral("-a"),
                            QStringLiteral("0"), QStringLiteral("-s"),
                            QStringLiteral("0x08000000:2048"), QStringLiteral("-U")})},
    {upload_FW,
     entry({QStringLiteral("-d"), unit_in_dfu_mode, QStringLiteral("-a"), QStringLiteral("0")})},
    {download_FW, entry({QStringLiteral("-d"), unit_in_dfu_mode, QStringLiteral("-a"),
                         QStringLiteral("0"), QStringLiteral("-s"),
                         QStringLiteral("0x08000000:leave"), QStringLiteral("-D")})},
    {setup_prepared_config, entry({})},
};

Command::operator QString() const
{
    return program + QLatin1Char('(') + args.join(QLatin1Char(',')) + QLatin1Char(')');
}

QList<QString> arguments(CmdID id, const QList<QString>& extra_args)
{
    // In front: the table's last option may be one whose value the extra arguments give ("-U").
    QList<QString> args;
    if (id != version) {
        if (!Command::serial.isEmpty())
            args << QStringLiteral("-S") << Command::serial;
        if (!Command::usb_path.isEmpty())
            args << QStringLiteral("-p") << Command::usb_path;
    }
    return args + commands[id].args + extra_args; // inserts the default entry for an unknown id
}

CommandResult run_command(CmdID id, const QList<QString>& extra_args)
{
    return run_command(id, extra_args, {});
}

CommandResult run_command(CmdID id, const QList<QString>& extra_args,
                          const ProgressHandler& on_progress)
{
    QProcess process;

    const QList<QString> args = arguments(id, extra_args);
    const Command& command = commands[id];
    const QString program = Command::path.isEmpty()
                                ? command.program
                                : Command::path + QLatin1Char('/') + command.program;

    if (id != list)
        qInfo() << "Start " << program << args;
    else if (list_start_switch().isDebugEnabled())
        qDebug() << "Start " << program << args;

#if defined(Q_OS_UNIX)
    // A process group of its own: Ctrl+C in the terminal goes to the program's group, and the
    // tool, which dies of it, must finish a write whatever the program is asked to do. The
    // signals stay blocked from before the fork until the child has left the group, so that one
    // sent in between waits rather than reaching it there.
    sigset_t terminating, before;
    sigemptyset(&terminating);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&terminating, number);
    pthread_sigmask(SIG_BLOCK, &terminating, &before);
    process.setChildProcessModifier([&terminating] {
        ::setpgid(0, 0);
        pthread_sigmask(SIG_UNBLOCK, &terminating, nullptr);
    });
#endif
    // No shell: every argument reaches the tool exactly as given.
    process.start(program, args, QIODevice::ReadWrite);
#if defined(Q_OS_UNIX)
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
#endif

    // The output is read as it comes, so that progress records reach the caller while the tool
    // runs; the run itself is waited for as a whole, first for 30 s, then without limit.
    QByteArray output;
    ProgressReader progress;
    QElapsedTimer clock;
    clock.start();
    bool past_first_wait = false;
    const auto take = [&] {
        const QByteArray chunk = process.readAllStandardOutput();
        output += chunk;
        if (on_progress && !chunk.isEmpty())
            for (const ToolProgress& record : progress.feed(chunk))
                on_progress(record);
    };
    // A run that a requested stop may end is waited for in short steps, so that it is ended on
    // time; every other run waits as long as it takes.
    const RunStop* stop = can_be_ended(id) ? followed_stop() : nullptr;
    const auto step = [stop](qint64 ms) { return stop && (ms < 0 || ms > 100) ? 100 : int(ms); };
    // A tool that cannot be started lands in the time-out branch at once, as a wait would.
    bool started = process.waitForStarted();
    while (!past_first_wait || process.state() != QProcess::NotRunning) {
        if (stop && stop->expired() && process.state() != QProcess::NotRunning) {
            qInfo() << "Ending" << program << args << "- still running after the stop";
            process.kill();
            process.waitForFinished(-1);
            break;
        }
        const qint64 left = first_wait_ms - clock.elapsed();
        if (!past_first_wait && (left <= 0 || !started)) {
            take();
            qInfo() << "waitForFinished(): Process did not finish in time, exit status:"
                    << process.exitStatus() << "and output:" << QString::fromUtf8(output);
            // A slow transfer must never be cut off half-way, so it is not killed.
            qInfo() << "will wait again, forever";
            // What the time-out line showed is not part of the result.
            output.clear();
            past_first_wait = true;
            continue;
        }
        if (process.state() == QProcess::NotRunning)
            break;
        if (process.waitForReadyRead(step(past_first_wait ? -1 : left))) {
            take();
            continue;
        }
        // Not ready before the first limit: the next turn logs it. Otherwise the tool closed its
        // output and runs on: wait for its end, within the first limit while it stands.
        const qint64 still = first_wait_ms - clock.elapsed();
        if (process.state() != QProcess::NotRunning && (past_first_wait || still > 0))
            process.waitForFinished(step(past_first_wait ? -1 : still));
    }
    take();

    CommandResult result;
    result.output = QString::fromUtf8(output);
    if (process.exitStatus() == QProcess::CrashExit)
        result.exit_code = -1;
    else if (process.error() == QProcess::FailedToStart)
        // Counts as a clean run without output, so the caller fails on the missing content; the
        // code Qt reports here belongs to its failed exec, not to the tool.
        result.exit_code = 0;
    else
        result.exit_code = process.exitCode();
    if (result.exit_code != 0) {
        qInfo() << "Exit with" << result.exit_code << "from" << program << args
                << "returned:" << result.output;
    }
    return result;
}

} // namespace DFU
