#include "dfu/commands.h"

#include <QtGlobal>
#if defined(Q_OS_UNIX)
#include <pthread.h>
#include <unistd.h>
#endif

#include <utility>

#include <QDeadlineTimer>
#include <QDebug>
#include <QLoggingCategory>
#include <QProcess>

#include "dfu/runstop.h"
#include "support/terminatingsignals.h"

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
    {download_FW_staying, entry({QStringLiteral("-d"), unit_in_dfu_mode, QStringLiteral("-a"),
                                 QStringLiteral("0"), QStringLiteral("-s"),
                                 QStringLiteral("0x08000000"), QStringLiteral("-D")})},
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

namespace {

RunObserver run_observer;

// Starts the tool, without a shell, so every argument reaches it exactly as given. On Unix in a
// process group of its own: Ctrl+C in the terminal goes to the program's group, and the tool, which
// dies of it, must finish a write whatever the program is asked to do. The terminating signals
// stay blocked from before the fork until the child has left the group and unblocked them, so that
// one sent in between waits rather than reaching it there. Whether it started is waited for.
bool start_in_own_group(QProcess& process, const QString& program, const QList<QString>& args)
{
#if defined(Q_OS_UNIX)
    const sigset_t terminating = support::terminating_signal_set();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &terminating, &before);
    process.setChildProcessModifier([&terminating] {
        ::setpgid(0, 0);
        pthread_sigmask(SIG_UNBLOCK, &terminating, nullptr);
    });
#endif
    process.start(program, args, QIODevice::ReadWrite);
#if defined(Q_OS_UNIX)
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
#endif
    return process.waitForStarted();
}

// A running tool's standard output, read as it comes, so that progress records reach the caller
// while the tool runs.
class Output
{
public:
    explicit Output(const ProgressHandler& on_progress) : on_progress(on_progress) {}

    void take(QProcess& process)
    {
        const QByteArray chunk = process.readAllStandardOutput();
        text += chunk;
        if (on_progress && !chunk.isEmpty())
            for (const ToolProgress& record : reader.feed(chunk))
                on_progress(record);
    }

    QByteArray text;

private:
    const ProgressHandler& on_progress;
    ProgressReader reader;
};

// The first wait is over: say so, and go on without limit. A slow transfer must never be cut off
// half-way, so the tool is not killed; what the time-out line showed is not part of the result.
void log_first_wait_over(const QProcess& process, Output& output)
{
    qInfo() << "waitForFinished(): Process did not finish in time, exit status:"
            << process.exitStatus() << "and output:" << QString::fromUtf8(output.text);
    qInfo() << "will wait again, forever";
    output.text.clear();
}

// A run that a requested stop may end, still running after its grace time, is ended here.
bool ended_by_stop(QProcess& process, const RunStop* stop, const QString& program,
                   const QList<QString>& args)
{
    if (!stop || !stop->expired() || process.state() == QProcess::NotRunning)
        return false;
    qInfo() << "Ending" << program << args << "- still running after the stop";
    process.kill();
    process.waitForFinished(-1);
    return true;
}

// Waits until the deadline for output or, once the tool has closed its output and runs on, for
// its end. A run that a stop may end waits in short steps, so that it is ended on time.
void wait_step(QProcess& process, Output& output, const QDeadlineTimer& until, const RunStop* stop)
{
    const auto step = [&] {
        const qint64 ms = until.remainingTime(); // -1 without limit
        return stop && (ms < 0 || ms > 100) ? 100 : int(ms);
    };
    if (process.waitForReadyRead(step()))
        output.take(process);
    else if (process.state() != QProcess::NotRunning && !until.hasExpired())
        process.waitForFinished(step());
}

// A run that a requested stop may end (stop not null) is ended when it outlives it.
void wait_for_end(QProcess& process, bool started, Output& output, const RunStop* stop,
                  const QString& program, const QList<QString>& args)
{
    QDeadlineTimer first_wait(started ? first_wait_ms : 0);
    while (!first_wait.hasExpired() && process.state() != QProcess::NotRunning) {
        if (ended_by_stop(process, stop, program, args))
            return;
        wait_step(process, output, first_wait, stop);
    }
    if (!started || process.state() != QProcess::NotRunning) {
        output.take(process);
        log_first_wait_over(process, output);
        while (process.state() != QProcess::NotRunning) {
            if (ended_by_stop(process, stop, program, args))
                return;
            wait_step(process, output, QDeadlineTimer(QDeadlineTimer::Forever), stop);
        }
    }
    output.take(process);
}

CommandResult result_of(const QProcess& process, const QByteArray& output)
{
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
    return result;
}

} // namespace

QString command_name(CmdID id)
{
    switch (id) {
    case version:
        return QStringLiteral("version");
    case list:
        return QStringLiteral("list");
    case upload_OTP:
        return QStringLiteral("upload_OTP");
    case upload_FW_info:
        return QStringLiteral("upload_FW_info");
    case upload_FW:
        return QStringLiteral("upload_FW");
    case download_FW:
        return QStringLiteral("download_FW");
    case setup_prepared_config:
        return QStringLiteral("setup_prepared_config");
    case download_FW_staying:
        break;
    }
    return QStringLiteral("download_FW_staying");
}

void observe_runs(RunObserver observer)
{
    run_observer = std::move(observer);
}

CommandResult run_command(CmdID id, const QList<QString>& extra_args,
                          const ProgressHandler& on_progress)
{
    const QList<QString> args = arguments(id, extra_args);
    const Command& command = commands[id];
    const QString program = Command::path.isEmpty()
                                ? command.program
                                : Command::path + QLatin1Char('/') + command.program;
    if (id != list)
        qInfo() << "Start " << program << args;
    else if (list_start_switch().isDebugEnabled())
        qDebug() << "Start " << program << args;

    QProcess process;
    const bool started = start_in_own_group(process, program, args);
    Output output(on_progress);
    wait_for_end(process, started, output, can_be_ended(id) ? followed_stop() : nullptr, program,
                 args);

    const CommandResult result = result_of(process, output.text);
    if (result.exit_code != 0) {
        qInfo() << "Exit with" << result.exit_code << "from" << program << args
                << "returned:" << result.output;
    }
    if (run_observer)
        run_observer(id, result.exit_code);
    return result;
}

} // namespace DFU
