#include "simulator/toolsetup.h"

#include <QtGlobal>
#if defined(Q_OS_UNIX)
#include <sys/statvfs.h>
#endif

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStringList>

#include "dfu/commands.h"
#include "dfu/deviceinfo.h"
#include "dfu/dfuutil.h"
#include "simulator/simulator.h"
#include "support/support_misc.h"

namespace Tool {

namespace {

StartProblem copy_out(const std::vector<Files::ID>& files)
{
    StartProblem problem;
    if (!Files::extract_resources(files, true, &problem.folder, &problem.reason))
        problem.kind = StartProblem::FilesNotPrepared;
    if (!simulator::use)
        DFU::Command::path = Files::external_dir.path();
    support_misc::mark_file_executable(DFU::dfu_util::full_path());
    return problem;
}

// Runs the self-test; whether the tool started, which the banner it printed shows.
bool self_test_started()
{
    QString printed;
    DFU::dfu_util::execution_test(&printed);
    return !printed.isEmpty();
}

// Why the copied tool cannot start where it lies; empty when it can. A file system mounted
// noexec is named as such: exec's own "Permission denied" does not say where to look.
QString start_failure()
{
#if defined(Q_OS_UNIX)
    struct statvfs fs;
    if (::statvfs(QFile::encodeName(Files::external_dir.path()).constData(), &fs) == 0 &&
        (fs.f_flag & ST_NOEXEC) != 0)
        return QStringLiteral("mounted noexec");
#endif
    QProcess probe;
    probe.start(DFU::dfu_util::full_path(), {QStringLiteral("-V")});
    if (!probe.waitForStarted())
        return probe.errorString();
    probe.waitForFinished();
    return QString();
}

} // namespace

QString StartProblem::layout_id() const
{
    return kind == ToolBlocked ? QStringLiteral("status_toolBlocked")
                               : QStringLiteral("status_startFailed");
}

QString StartProblem::message() const
{
    const QString text =
        kind == ToolBlocked
            ? QStringLiteral("The tool may not run from %1 (%2). Set TMPDIR to a folder where "
                             "programs may run, then start again.")
            : QStringLiteral("Cannot prepare the tool's files in %1: %2");
    return text.arg(folder, reason);
}

StartProblem set_up(const std::vector<Files::ID>& files)
{
    if (simulator::use)
        simulator::setup_for_simulated_dfu_util(simulator::normal_progress);
    StartProblem problem = copy_out(files);
    const bool started = self_test_started();
    if (started || simulator::use || problem.kind != StartProblem::None)
        return problem;
    const QString blocked = start_failure();
    if (blocked.isEmpty())
        return problem;
    // Hardened desktops mount /tmp noexec; the user's own folder usually lets programs run.
    qInfo().noquote() << QStringLiteral("dfu-util cannot run from %1 (%2); copying it to %3")
                                .arg(Files::external_dir.path(), blocked, Files::private_base());
    QString reason;
    if (Files::move_to_private_folder(&reason)) {
        problem = copy_out(files);
        reason = problem.kind != StartProblem::None ? problem.reason
                 : self_test_started()              ? QString()
                                                    : start_failure();
        if (reason.isEmpty())
            return problem;
    }
    qInfo().noquote() << QStringLiteral("dfu-util cannot run from %1 either (%2)")
                             .arg(Files::private_base(), reason);
    // TMPDIR is what the user can change, so the temporary folder is the one named.
    problem.kind = StartProblem::ToolBlocked;
    problem.folder = Files::temporary_base();
    problem.reason = blocked;
    return problem;
}

bool lacks_room()
{
    const int needed = DFU::whole_blocks(
        DFU::size_of_binary_file(Files::working_path(Files::desired_FW_fileName_bin)));
    qint64 room = Files::free_bytes();
    if (needed <= 0 || room < 0)
        return false;
    for (const QString& name : {Files::uploaded_FW_fileName_bin,
                                Files::uploaded_FW_info_fileName_bin,
                                Files::uploaded_OTP_fileName_bin})
        room += QFileInfo(Files::working_path(name)).size();
    return room < needed;
}

} // namespace Tool
