#include "dfu/commands.h"

#include <utility>

#include <QDebug>
#include <QLoggingCategory>
#include <QProcess>

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

CommandResult run_command(CmdID id, const QList<QString>& extra_args)
{
    QProcess process;

    const Command& command = commands[id]; // inserts the default entry for an unknown id
    const QString program = Command::path.isEmpty()
                                ? command.program
                                : Command::path + QLatin1Char('/') + command.program;
    const QList<QString> args = command.args + extra_args;

    if (id != list)
        qInfo() << "Start " << program << args;
    else if (list_start_switch().isDebugEnabled())
        qDebug() << "Start " << program << args;

    // No shell: every argument reaches the tool exactly as given.
    process.start(program, args, QIODevice::ReadWrite);

    // A tool that cannot be started lands here too: both waits return at once.
    if (!process.waitForFinished(first_wait_ms)) {
        const QString so_far = QString::fromUtf8(process.readAllStandardOutput());
        qInfo() << "waitForFinished(): Process did not finish in time, exit status:"
                << process.exitStatus() << "and output:" << so_far;
        // A slow transfer must never be cut off half-way, so it is not killed.
        qInfo() << "will wait again, forever";
        process.waitForFinished(-1);
    }

    CommandResult result;
    result.output = QString::fromUtf8(process.readAllStandardOutput());
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
