#include "app/options.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDebug>

#include "simulator/simulator.h"

bool use_log_window = false;

void parse_arguments(QCoreApplication* app)
{
    const QString use_simulator = QStringLiteral("use-simulator");
    const QString no_use_simulator = QStringLiteral("no-use-simulator");
    const QString log_window = QStringLiteral("use-log-window");

    QCommandLineParser parser;
    parser.addOptions({
        QCommandLineOption({QStringLiteral("s"), use_simulator},
                           QStringLiteral("Use simulated device interaction."), QString(),
                           QString()),
        QCommandLineOption({QStringLiteral("S"), no_use_simulator},
                           QStringLiteral("Disable use of simulated device interaction."),
                           QString(), QString()),
        QCommandLineOption({QStringLiteral("l"), log_window},
                           QStringLiteral("Enable use of log window (open it with Ctrl-l)"),
                           QString(), QString()),
    });
    // Unknown options, -h and --help included, end the process with status 1 here.
    parser.process(*app);

    qDebug().nospace() << "Initial value of 'simulator::use'=" << simulator::use
                       << ", isSet('-s')=" << parser.isSet(use_simulator)
                       << ", isSet('-S')=" << parser.isSet(no_use_simulator);

    if (parser.isSet(use_simulator))
        simulator::use = true;
    // Second on purpose: given both, the disabling option wins whatever their order.
    if (parser.isSet(no_use_simulator))
        simulator::use = false;
    if (parser.isSet(log_window))
        use_log_window = true;
}
