// Runs the extraction in its own process, so that the temporary directory is made from this
// process's TMPDIR at static initialisation; prints the log lines and the results.
#include <cstdio>

#include <QCoreApplication>

#include "support/files.h"

static void print_log_line(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    static const char* const levels[] = {"debug", "warning", "critical", "fatal", "info"};
    std::printf("%s: %s\n", levels[type], qPrintable(message));
}

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(print_log_line);
    const std::vector<Files::ID> ids{Files::desired_FW_dfu, Files::desired_FW_bin, Files::dfu_util};
    const bool strict = Files::extract_resources(ids, true);
    const bool lenient = Files::extract_resources(ids, false);
    std::printf("strict=%s\nlenient=%s\n", strict ? "true" : "false", lenient ? "true" : "false");
    return 0;
}
