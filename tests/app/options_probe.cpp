// Runs the command-line parsing in its own process and prints the log and the two flags.
#include <cstdio>

#include <QCoreApplication>

#include "app/options.h"
#include "simulator/simulator.h"

static void print_log_line(QtMsgType, const QMessageLogContext&, const QString& message)
{
    std::printf("log: %s\n", qPrintable(message));
}

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(print_log_line);
    parse_arguments(&app);
    std::printf("simulator::use=%s\nuse_log_window=%s\n", simulator::use ? "true" : "false",
                use_log_window ? "true" : "false");
    return 0;
}
