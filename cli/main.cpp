// Entry point of the command-line companion: start-up as the window's (the tool bundle copied
// out, or the simulator), one command on a thread of its own, signals on the event loop.
#include <cstdio>
#include <unistd.h>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QThread>

#include "cli/companion.h"
#include "cli/invocation.h"
#include "dfu/deviceinfo.h"
#include "simulator/simulator.h"
#include "simulator/toolsetup.h"
#include "support/files.h"

namespace {

void print(std::FILE* stream, const QString& text)
{
    const QByteArray bytes = text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), stream);
    std::fflush(stream);
}

// The tool bundle and the image, or the simulator, as the window sets them up; false when the tool
// cannot be set up.
bool set_up(bool use_simulator, QString* problem)
{
    simulator::use = use_simulator;
    const Tool::StartProblem start =
        Tool::set_up({Files::desired_FW_bin, Files::dfu_util, Files::libusb});
    if (start.kind != Tool::StartProblem::None) {
        *problem = start.message();
        return false;
    }
    if (!DFU::desired_FW_Info().valid) {
        *problem = QStringLiteral("The carried firmware image has no valid information block.");
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    // First of all, so that every thread inherits the blocked set.
    Cli::block_termination_signals();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("lumaxis-upgrade-cli"));
    QCoreApplication::setApplicationVersion(QStringLiteral(LUMAXIS_VERSION));

    Cli::Invocation invocation;
    QString out, err;
    const int parsed =
        Cli::parse_invocation(QCoreApplication::arguments(), &invocation, &out, &err);
    if (parsed >= 0) {
        print(stdout, out);
        print(stderr, err);
        return parsed;
    }
    // The driver's log lines are for --verbose; warnings (a short read-out) always show.
    if (!invocation.verbose)
        QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.info=false"));

    QString problem;
    if (!set_up(invocation.simulator, &problem)) {
        print(stderr, problem + QLatin1Char('\n'));
        return Cli::StartFailed;
    }
    Cli::Options& options = invocation.options;
    options.check_access = !invocation.simulator;
    options.pin_unit = !invocation.simulator;

    Cli::Console console(::isatty(STDERR_FILENO) == 1);
    Cli::Companion companion(options, &console);
    Cli::on_termination_signals(&app, [&](int number) {
        companion.request_stop();
        console.say(companion.busy()
                        ? QStringLiteral("Signal %1: the running transfer goes on to its end and "
                                         "is verified; keep the USB cable connected. Stopping "
                                         "after this unit.")
                              .arg(number)
                        : QStringLiteral("Signal %1: stopping.").arg(number));
    });

    Cli::Exit result = Cli::Done;
    QThread* job = QThread::create([&] {
        const QString& command = invocation.command;
        result = command == QLatin1String("list")      ? companion.list()
                 : command == QLatin1String("info")    ? companion.info()
                 : command == QLatin1String("upgrade") ? companion.upgrade()
                                                       : companion.verify();
    });
    QObject::connect(job, &QThread::finished, &app, &QCoreApplication::quit);
    job->start();
    app.exec();
    job->wait();
    delete job;
    return result;
}
