// The command line, parsed in a child process because unknown options end the process.
#include <QProcess>
#include <QTest>

namespace {

#ifdef LUMAXIS_SIMULATOR_DEFAULT
constexpr bool simulator_default = true;
#else
constexpr bool simulator_default = false;
#endif

QString word(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

// What the probe prints after a successful parse.
QString expected_output(bool set_s, bool set_S, bool simulator, bool log_window)
{
    return QStringLiteral("log: Initial value of 'simulator::use'=%1, isSet('-s')=%2, "
                          "isSet('-S')=%3\nsimulator::use=%4\nuse_log_window=%5\n")
        .arg(word(simulator_default), word(set_s), word(set_S), word(simulator), word(log_window));
}

} // namespace

class tst_Options final : public QObject
{
    Q_OBJECT

private slots:
    void parses_flags_data();
    void parses_flags();
    void unknown_option_ends_process_data();
    void unknown_option_ends_process();
};

void tst_Options::parses_flags_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("output");

    const bool d = simulator_default;
    QTest::newRow("none") << QStringList{} << expected_output(false, false, d, false);
    QTest::newRow("-s") << QStringList{"-s"} << expected_output(true, false, true, false);
    QTest::newRow("--use-simulator")
        << QStringList{"--use-simulator"} << expected_output(true, false, true, false);
    QTest::newRow("-S") << QStringList{"-S"} << expected_output(false, true, false, false);
    QTest::newRow("--no-use-simulator")
        << QStringList{"--no-use-simulator"} << expected_output(false, true, false, false);
    QTest::newRow("-s -S") << QStringList{"-s", "-S"} << expected_output(true, true, false, false);
    QTest::newRow("-S -s") << QStringList{"-S", "-s"} << expected_output(true, true, false, false);
    QTest::newRow("-l") << QStringList{"-l"} << expected_output(false, false, d, true);
    QTest::newRow("--use-log-window")
        << QStringList{"--use-log-window"} << expected_output(false, false, d, true);
    QTest::newRow("-sl") << QStringList{"-sl"} << expected_output(true, false, true, true);
    QTest::newRow("-Ssl") << QStringList{"-Ssl"} << expected_output(true, true, false, true);
    QTest::newRow("-s -s") << QStringList{"-s", "-s"} << expected_output(true, false, true, false);
    QTest::newRow("positional ignored")
        << QStringList{"firmware.bin"} << expected_output(false, false, d, false);
    QTest::newRow("positional between flags")
        << QStringList{"-l", "firmware.bin", "-s"} << expected_output(true, false, true, true);
}

void tst_Options::parses_flags()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, output);

    QProcess probe;
    probe.start(QStringLiteral(OPTIONS_PROBE), arguments);
    QVERIFY(probe.waitForFinished());
    QCOMPARE(probe.exitStatus(), QProcess::NormalExit);
    QCOMPARE(probe.exitCode(), 0);
    QCOMPARE(QString::fromUtf8(probe.readAllStandardOutput()), output);
}

void tst_Options::unknown_option_ends_process_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("error");

    QTest::newRow("--help") << QStringList{"--help"} << "Unknown option 'help'.";
    QTest::newRow("-h") << QStringList{"-h"} << "Unknown option 'h'.";
    QTest::newRow("-v") << QStringList{"-v"} << "Unknown option 'v'.";
    QTest::newRow("--version") << QStringList{"--version"} << "Unknown option 'version'.";
    QTest::newRow("-L (case matters)") << QStringList{"-L"} << "Unknown option 'L'.";
    QTest::newRow("after a known one") << QStringList{"-s", "-x"} << "Unknown option 'x'.";
    QTest::newRow("value given to a flag")
        << QStringList{"--use-simulator=yes"} << "Unexpected value after '--use-simulator'.";
}

void tst_Options::unknown_option_ends_process()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, error);

    QProcess probe;
    probe.start(QStringLiteral(OPTIONS_PROBE), arguments);
    QVERIFY(probe.waitForFinished());
    QCOMPARE(probe.exitStatus(), QProcess::NormalExit);
    QCOMPARE(probe.exitCode(), 1);
    // Ended inside the parser: nothing logged, no flags printed.
    QCOMPARE(probe.readAllStandardOutput(), QByteArray());
    QCOMPARE(QString::fromUtf8(probe.readAllStandardError()),
             QStringLiteral("options_probe: %1\n").arg(error));
}

QTEST_GUILESS_MAIN(tst_Options)
#include "tst_options.moc"
