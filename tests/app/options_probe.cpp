// Parses the command line in its own process and prints the log and the two flags.
#include <cstdio>

#include <QCoreApplication>

#include "app/options.h"
#include "simulator/simulator.h"

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& message) {
        std::printf("log: %s\n", qPrintable(message));
    });
    parse_arguments(&app);
    std::printf("simulator::use=%d\nuse_log_window=%d\n", simulator::use, use_log_window);
}
