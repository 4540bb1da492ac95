#include "simulator/simulator.h"

#include <utility>

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QList>
#include <QStringList>

#include "dfu/commands.h"

namespace simulator {

#ifdef LUMAXIS_SIMULATOR_DEFAULT
bool use = true;
#else
bool use = false;
#endif

namespace {

// The first of the folders the program may sit beside that holds the script: an installed
// prefix's data folder (bin/../share/...), the build tree's (app/../simulator), or, for a test
// program, the build tree's from one folder deeper. Found once, on first use.
QString simulator_beside_program()
{
    static const QString found = [] {
        const QDir program(QCoreApplication::applicationDirPath());
        const QStringList candidates{QStringLiteral(LUMAXIS_SIMULATOR_FROM_INSTALLED),
                                     QStringLiteral(LUMAXIS_SIMULATOR_FROM_APP),
                                     QStringLiteral(LUMAXIS_SIMULATOR_FROM_TEST)};
        for (const QString& candidate : candidates) {
            const QString folder = QDir::cleanPath(program.filePath(candidate));
            if (QFileInfo::exists(folder + QStringLiteral("/dfu-util_simulator.sh")))
                return folder;
        }
        qWarning() << "No simulator beside the program in" << program.path();
        return QDir::cleanPath(program.filePath(candidates.first()));
    }();
    return found;
}

QString simulator_directory()
{
    const QString from_environment = qEnvironmentVariable("LUMAXIS_SIMULATOR_DIR");
    return from_environment.isEmpty() ? simulator_beside_program() : from_environment;
}

void rewrite_entry(DFU::CmdID id, const QString& word, bool fast)
{
    DFU::Command& entry = DFU::commands[id];
    entry.program = dfu_util_path(QStringLiteral("dfu-util_simulator.sh"));
    QList<QString> args{QStringLiteral("--dfu-util-command"), word};
    if (fast) {
        args << QStringLiteral("--fast-progress");
    }
    args << entry.args;
    entry.args = std::move(args);
}

} // namespace

void setup_for_simulated_dfu_util(Setup setup)
{
    const bool fast = (setup & fast_progress) != 0;
    const QString upload_FW = QStringLiteral("upload_FW");
    rewrite_entry(DFU::list, QStringLiteral("list"), fast);
    rewrite_entry(DFU::version, QStringLiteral("version"), fast);
    rewrite_entry(DFU::upload_OTP, QStringLiteral("upload_OTP"), fast);
    // One word for both uploads: the script tells them apart by the length after "-s".
    rewrite_entry(DFU::upload_FW_info, upload_FW, fast);
    rewrite_entry(DFU::upload_FW, upload_FW, fast);
    rewrite_entry(DFU::download_FW, QStringLiteral("download_FW"), fast);
    rewrite_entry(DFU::download_FW_staying, QStringLiteral("download_FW"), fast);
    rewrite_entry(DFU::setup_prepared_config, QStringLiteral("setup_prepared_config"), fast);
}

QString dfu_util_path(QString name)
{
    return simulator_directory() + QLatin1Char('/') + name;
}

int sim_setup_prepared_config(QString config)
{
    const DFU::CommandResult result = DFU::run_command(DFU::setup_prepared_config, {config});
    if (result.exit_code != 0) {
        qInfo() << "Failed to setup simulation config " << config << "with code"
                << result.exit_code;
    }
    return result.exit_code;
}

} // namespace simulator
