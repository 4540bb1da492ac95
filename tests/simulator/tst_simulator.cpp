// Rewriting the command table for the simulator, its directory, and the scenario set-up call.
#include <QtTest>

#include "dfu/commands.h"
#include "dfu/scan.h"
#include "simulator/simulator.h"

namespace {

QStringList captured_lines;

void capture(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type == QtInfoMsg)
        captured_lines << text;
}

QString script()
{
    return simulator::dfu_util_path(QStringLiteral("dfu-util_simulator.sh"));
}

} // namespace

class TestSimulator final : public QObject
{
    Q_OBJECT

    QMap<DFU::CmdID, DFU::Command> original_commands;
    QTemporaryDir state;

private slots:
    void initTestCase()
    {
        QVERIFY(state.isValid());
        qputenv("LUMAXIS_SIMULATOR_STATE", state.path().toLocal8Bit());
        qputenv("LUMAXIS_SIMULATOR_FAST", "1");
        original_commands = DFU::commands;
    }

    // Rewriting twice would prefix twice: every test starts from the real tool's table.
    void cleanup() { DFU::commands = original_commands; }

    void rewrite_data()
    {
        QTest::addColumn<int>("id");
        QTest::addColumn<QStringList>("args");
        QTest::newRow("version") << int(DFU::version)
                                 << QStringList{"--dfu-util-command", "version", "-V"};
        QTest::newRow("list") << int(DFU::list)
                              << QStringList{"--dfu-util-command", "list", "-d", "0483", "-l"};
        QTest::newRow("upload_OTP")
            << int(DFU::upload_OTP)
            << QStringList{"--dfu-util-command", "upload_OTP", "-d", "0483", "-a", "2", "-s",
                           "0x1FFF7800:512",     "-U"};
        QTest::newRow("upload_FW_info")
            << int(DFU::upload_FW_info)
            << QStringList{"--dfu-util-command", "upload_FW", "-d", "0483", "-a", "0", "-s",
                           "0x08000000:2048",    "-U"};
        QTest::newRow("upload_FW")
            << int(DFU::upload_FW)
            << QStringList{"--dfu-util-command", "upload_FW", "-d", "0483", "-a", "0"};
        QTest::newRow("download_FW")
            << int(DFU::download_FW)
            << QStringList{"--dfu-util-command", "download_FW", "-d", "0483", "-a", "0", "-s",
                           "0x08000000:leave",   "-D"};
        QTest::newRow("setup_prepared_config")
            << int(DFU::setup_prepared_config)
            << QStringList{"--dfu-util-command", "setup_prepared_config"};
    }

    void rewrite()
    {
        QFETCH(int, id);
        QFETCH(QStringList, args);
        simulator::setup_for_simulated_dfu_util(simulator::normal_progress);
        const DFU::Command& entry = DFU::commands[DFU::CmdID(id)];
        QCOMPARE(entry.program, script());
        QCOMPARE(entry.args, args);
    }

    void fast_progress_stands_third_in_every_entry()
    {
        simulator::setup_for_simulated_dfu_util(simulator::fast_progress);
        for (auto it = DFU::commands.cbegin(); it != DFU::commands.cend(); ++it) {
            QStringList expected = original_commands.value(it.key()).args;
            expected.prepend(QStringLiteral("--fast-progress"));
            QCOMPARE(it.value().args.mid(0, 1), QStringList{"--dfu-util-command"});
            QCOMPARE(it.value().args.mid(2), expected);
        }
        QCOMPARE(DFU::commands.size(), 7);
    }

    void the_build_puts_an_executable_script_in_the_directory()
    {
        QVERIFY(simulator::dfu_util_path(QString()).endsWith(QLatin1Char('/')));
        QVERIFY(QFileInfo(script()).isAbsolute());
        QVERIFY2(QFileInfo(script()).isExecutable(), qPrintable(script()));
    }

    void the_environment_overrides_the_directory()
    {
        const QString built_in = simulator::dfu_util_path(QString());
        qputenv("LUMAXIS_SIMULATOR_DIR", "/opt/other sim");
        const QString overridden = simulator::dfu_util_path(QStringLiteral("x.sh"));
        qunsetenv("LUMAXIS_SIMULATOR_DIR");
        QCOMPARE(overridden, QStringLiteral("/opt/other sim/x.sh"));
        QCOMPARE(simulator::dfu_util_path(QString()), built_in);
    }

    // The program's own scan, run through the rewritten table, sees what the scenario holds.
    void prepared_config_data()
    {
        QTest::addColumn<QString>("config");
        QTest::addColumn<int>("exit_code");
        QTest::addColumn<int>("scan_status");
        QTest::addColumn<int>("units");
        QTest::newRow("a unit") << "default" << 0 << 0 << 1;
        QTest::newRow("no unit") << "no_unit" << 0 << 1 << 0;
        QTest::newRow("two units") << "two_units" << 0 << 1 << 2;
        QTest::newRow("unknown name keeps the unit") << "no such scenario" << 64 << 0 << 1;
    }

    void prepared_config()
    {
        QFETCH(QString, config);
        QFETCH(int, exit_code);
        QFETCH(int, scan_status);
        QFETCH(int, units);
        simulator::setup_for_simulated_dfu_util(simulator::fast_progress);
        QCOMPARE(simulator::sim_setup_prepared_config(QStringLiteral("default")), 0);

        captured_lines.clear();
        const QtMessageHandler previous = qInstallMessageHandler(capture);
        const int code = simulator::sim_setup_prepared_config(config);
        qInstallMessageHandler(previous);

        QCOMPARE(code, exit_code);
        if (exit_code != 0) {
            QVERIFY(captured_lines.contains(
                QStringLiteral("Failed to setup simulation config  \"%1\" with code %2")
                    .arg(config)
                    .arg(exit_code)));
        }
        const DFU::ScanResult scan = DFU::make_scan();
        QCOMPARE(scan.status, scan_status);
        QCOMPARE(int(scan.devices.size()), units);
    }
};

QTEST_GUILESS_MAIN(TestSimulator)
#include "tst_simulator.moc"
