// The fixed table of dfu-util invocations and the blocking runner that executes one of them.
#pragma once

#include <functional>

#include <QList>
#include <QMap>
#include <QString>

#include "dfu/progress.h"

namespace DFU {

enum CmdID : int {
    version = 0,
    list = 1,
    upload_OTP = 2,
    upload_FW_info = 3,
    upload_FW = 4,
    download_FW = 5,
    setup_prepared_config = 6,
    // The write without the leave: the unit stays in its bootloader to be read back first.
    download_FW_staying = 7,
};

struct Command
{
    QString program = QStringLiteral("dfu-util");
    QList<QString> args;

    // Directory holding the tool; empty means the program is used as it stands.
    static QString path;
    // The serial number every run but the version test selects its unit by (dfu-util's "-S"),
    // for callers that choose among several units; empty, as the window has it, leaves every
    // command line as the table gives it. Set it only while no run is under way.
    static QString serial;
    // The same for the unit's USB path (dfu-util's "-p", e.g. "1-2.4"): where units report one
    // serial, the path alone tells them apart.
    static QString usb_path;

    operator QString() const;
};

struct CommandResult
{
    int exit_code = 0; // 0 success, -1 crashed
    QString output;    // standard output, UTF-8
};

// Mutable on purpose: the simulator rewrites entries at start-up. Look-ups insert on miss.
extern QMap<CmdID, Command> commands;

// The table's name of a command ("download_FW"), for records and logs.
QString command_name(CmdID id);

// Told of every finished run, on the thread that ran it, for a caller that keeps a record of its
// runs; an empty observer stops it.
using RunObserver = std::function<void(CmdID id, int exit_code)>;
void observe_runs(RunObserver observer);

// What run_command passes to the tool: the unit selection (serial, path), the table's arguments,
// extra_args.
QList<QString> arguments(CmdID id, const QList<QString>& extra_args);

CommandResult run_command(CmdID id, const QList<QString>& extra_args);
// The same, handing each progress record the tool prints to on_progress while it runs, on the
// calling thread.
CommandResult run_command(CmdID id, const QList<QString>& extra_args,
                          const ProgressHandler& on_progress);

} // namespace DFU
