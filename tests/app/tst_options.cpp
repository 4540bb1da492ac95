// The command line, parsed in a child process because unknown options end the process.
#include <QProcess>
#include <QTest>

#ifdef LUMAXIS_SIMULATOR_DEFAULT
constexpr bool simulator_default = true;
#else
constexpr bool simulator_default = false;
#endif

class tst_Options final : public QObject
{
    Q_OBJECT

private slots:
    // set: whether -s and -S were seen, then simulator::use ('d': the build's default) and the
    // log-window flag; empty when the parser ends the process with the error.
    void parse_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("set");
        QTest::addColumn<QString>("error");
        const auto row = [](const char* name, const char* args, const char* set,
                            const char* error) {
            QTest::newRow(name) << QString(args).split(' ', Qt::SkipEmptyParts) << set << error;
        };
        row("none", "", "00d0", "");
        row("long forms", "--use-simulator --use-log-window", "1011", "");
        row("--no-use-simulator", "--no-use-simulator", "0100", "");
        row("given both, disabling wins whatever the order", "-S -s", "1100", "");
        row("-sl, positional ignored", "-sl firmware.bin", "1011", "");
        row("--help", "--help", "", "Unknown option 'help'.");
        row("-L: case matters", "-s -L", "", "Unknown option 'L'.");
        row("value given to a flag", "--use-simulator=yes", "",
            "Unexpected value after '--use-simulator'.");
    }

    void parse()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, set);
        QFETCH(QString, error);
        QProcess probe;
        probe.start(QStringLiteral(OPTIONS_PROBE), arguments);
        QVERIFY(probe.waitForFinished(30000));
        QCOMPARE(probe.exitStatus(), QProcess::NormalExit);
        QCOMPARE(probe.exitCode(), error.isEmpty() ? 0 : 1);
        const auto word = [](bool value) { return value ? "true" : "false"; };
        const QString out =
            QStringLiteral("log: Initial value of 'simulator::use'=%1, isSet('-s')=%2, "
                           "isSet('-S')=%3\nsimulator::use=%4\nuse_log_window=%5\n")
                .arg(word(simulator_default), word(set.startsWith('1')), word(set.mid(1, 1) == "1"))
                .arg(set.mid(2, 1).replace('d', QString::number(simulator_default)), set.mid(3));
        QCOMPARE(QString::fromUtf8(probe.readAllStandardOutput()), set.isEmpty() ? QString() : out);
        QCOMPARE(QString::fromUtf8(probe.readAllStandardError()),
                 error.isEmpty() ? QString() : QStringLiteral("options_probe: %1\n").arg(error));
    }
};

QTEST_GUILESS_MAIN(tst_Options)
#include "tst_options.moc"
