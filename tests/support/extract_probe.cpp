// Runs the extraction in its own process, so that the temporary directory is made from this
// process's TMPDIR at static initialisation; prints the log lines and the results.
#include <cstdio>

#include <QCoreApplication>

#include "support/files.h"

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& message) {
        std::printf("%s\n", qPrintable(message));
    });
    const std::vector<Files::ID> ids{Files::desired_FW_dfu, Files::dfu_util};
    const bool strict = Files::extract_resources(ids, true);
    const bool lenient = Files::extract_resources(ids, false);
    std::printf("strict=%d\nlenient=%d\n", strict, lenient);
}
