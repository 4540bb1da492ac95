// Rewriting the command table for the simulator, its directory, and the scenario set-up call.
#include <QtTest>

#include "dfu/commands.h"
#include "dfu/scan.h"
#include "simulator/simulator.h"

namespace {

QStringList info_lines;

void capture(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type == QtInfoMsg)
        info_lines << text;
}

QString script()
{
    return simulator::dfu_util_path(QStringLiteral("dfu-util_simulator.sh"));
}

} // namespace

class TestSimulator final : public QObject
{
    Q_OBJECT

    QMap<DFU::CmdID, DFU::Command> real_tool;
    QTemporaryDir state;

private slots:
    void initTestCase()
    {
        QVERIFY(state.isValid());
        qputenv("LUMAXIS_SIMULATOR_STATE", state.path().toLocal8Bit());
        real_tool = DFU::commands;
    }

    // Rewriting twice would prefix twice: every test starts from the real tool's table.
    void cleanup() { DFU::commands = real_tool; }

    void rewrite_data()
    {
        QTest::addColumn<int>("setup");
        QTest::addColumn<QStringList>("extra");
        QTest::newRow("normal progress") << int(simulator::normal_progress) << QStringList{};
        QTest::newRow("fast progress")
            << int(simulator::fast_progress) << QStringList{"--fast-progress"};
    }

    void rewrite()
    {
        QFETCH(int, setup);
        QFETCH(QStringList, extra);
        const QStringList words{"version",   "list",        "upload_OTP",           "upload_FW",
                                "upload_FW", "download_FW", "setup_prepared_config"};
        simulator::setup_for_simulated_dfu_util(simulator::Setup(setup));

        QCOMPARE(DFU::commands.size(), 7);
        for (int id = DFU::version; id <= DFU::setup_prepared_config; ++id) {
            const DFU::Command& entry = DFU::commands[DFU::CmdID(id)];
            QCOMPARE(entry.program, script());
            const QStringList head{QStringLiteral("--dfu-util-command"), words[id]};
            QCOMPARE(entry.args, head + extra + real_tool[DFU::CmdID(id)].args);
        }
        if (extra.isEmpty()) {
            QCOMPARE(DFU::commands[DFU::list].args,
                     (QStringList{"--dfu-util-command", "list", "-d", "0483", "-l"}));
        }
    }

    void directory()
    {
        QVERIFY(simulator::dfu_util_path(QString()).endsWith(QLatin1Char('/')));
        QVERIFY2(QFileInfo(script()).isExecutable(), qPrintable(script()));

        const QString built_in = simulator::dfu_util_path(QString());
        qputenv("LUMAXIS_SIMULATOR_DIR", "/opt/other sim");
        const QString overridden = simulator::dfu_util_path(QStringLiteral("x.sh"));
        qunsetenv("LUMAXIS_SIMULATOR_DIR");
        QCOMPARE(overridden, QStringLiteral("/opt/other sim/x.sh"));
        QCOMPARE(simulator::dfu_util_path(QString()), built_in);
    }

    // The program's own scan, through the rewritten table, sees what the scenario holds.
    void prepared_config_data()
    {
        QTest::addColumn<QString>("config");
        QTest::addColumn<int>("exit_code");
        QTest::addColumn<int>("units");
        QTest::newRow("no unit") << "no_unit" << 0 << 0;
        QTest::newRow("two units") << "two_units" << 0 << 2;
        QTest::newRow("unknown name keeps the unit") << "no such scenario" << 64 << 1;
    }

    void prepared_config()
    {
        QFETCH(QString, config);
        QFETCH(int, exit_code);
        QFETCH(int, units);
        simulator::setup_for_simulated_dfu_util(simulator::fast_progress);
        QCOMPARE(simulator::sim_setup_prepared_config(QStringLiteral("default")), 0);

        info_lines.clear();
        const QtMessageHandler previous = qInstallMessageHandler(capture);
        const int code = simulator::sim_setup_prepared_config(config);
        qInstallMessageHandler(previous);

        QCOMPARE(code, exit_code);
        const QString failure =
            QStringLiteral("Failed to setup simulation config  \"%1\" with code %2")
                .arg(config)
                .arg(exit_code);
        QCOMPARE(info_lines.contains(failure), exit_code != 0);
        QCOMPARE(int(DFU::make_scan().devices.size()), units);
    }
};

QTEST_GUILESS_MAIN(TestSimulator)
#include "tst_simulator.moc"
