// The whole program in simulator mode, one run per scenario: start-up, flow, keys, shutdown.
#include <QDebug>
#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include "common/programrun.h"
#include "device/fwinfo.h"
#include "simulator/simulator.h"
#include "support/support_misc.h"

class tst_E2E final : public QObject
{
    Q_OBJECT

private slots:
    // The test prepares each scenario's state folder through the program's own simulator set-up.
    void initTestCase() { simulator::setup_for_simulated_dfu_util(simulator::fast_progress); }
    void scenario_data();
    void scenario();
};

void tst_E2E::scenario_data()
{
    // Steps, split at "|": a text the output must show next, "!text" that it must not show
    // within 2 s, or ">command" for the window (programrun.h). Every run ends by closing it.
    QTest::addColumn<QString>("config");
    QTest::addColumn<QString>("steps");

    QTest::newRow("default: whole upgrade")
        << "default"
        << "entered B1|entered B2|>click|/sig_DoDownload|entered B3|progress_erasing|"
           "progress_writing|progress_restarting|entered B1|progress_verifying|entered B4|"
           "/sig_FwMatches|entered B6|>state|bar=\"Done. Disconnect USB cable.\"";
    QTest::newRow("same revision") << "same_revision" << "entered B1|entered B4|entered B6";
    QTest::newRow("read-back differs")
        << "readback_differs"
        << "entered B4|/sig_UpgradePossible|/sig_FwDiffers|>state|install=1 bar=hidden";
    QTest::newRow("other product") << "other_product" << "entered B8|>state|install=0";
    // B9 announces itself by its signals only.
    QTest::newRow("blank OTP")
        << "blank_otp"
        << "/sig_DeviceConnected|/sig_UpgradeImpossible|/sig_DifferingRevision|>state|install=0";
    QTest::newRow("no unit") << "no_unit"
                             << "entered B1|!Device connected|>state|install=0 bar=hidden|Type-C";
    // An idle worker stops at once; the window stays and says so. (A busy one: see the virtual
    // unit's table.)
    QTest::newRow("Escape while an install is offered")
        << "default"
        << "entered B2|>key Escape|Msg-handler reset|Trying to stop sm_A|!Oops|>state|"
           "visible=1 install=1 bar=hidden|Stopped: the unit is no longer watched";
}

void tst_E2E::scenario()
{
    QFETCH(QString, config);
    QFETCH(QString, steps);

    QTemporaryDir state;
    qputenv("LUMAXIS_SIMULATOR_STATE", state.path().toLocal8Bit());
    QCOMPARE(simulator::sim_setup_prepared_config(config), 0);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LUMAXIS_SIMULATOR_FAST"), QStringLiteral("1"));
    environment.insert(QStringLiteral("LUMAXIS_SIMULATOR_ABSENT_MS"), QStringLiteral("300"));

    QString desired;
    QDebug(&desired).noquote() << "Desired (embedded)"
                               << Device::make_FW_Info(simulator::dfu_util_path(
                                      QStringLiteral("images/firmware.bin")));
    const QStringList start_up{
        "Will use simulator (i.e. option 'use_simulator).",
        QStringLiteral("Compiled for platform (OS): %1 with 'DEBUG' not defined")
            .arg(QDebug::toString(support_misc::compiled_for_platform())),
        "Extracted  \"firmware.dfu\"",
        "Extracted  \"dfu-util\"",
        "Result of execution test: status was ok and output: \"as expected\"",
        desired};

    programrun::ProgramRun program;
    QVERIFY(program.start({"-s", "-l"}, environment));
    for (const QString& step : start_up + steps.split(QLatin1Char('|'))) {
        const QString failure = program.step(step, 30000, 2000, 1500);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }

    QVERIFY(program.send(QStringLiteral("close")) >= 0);
    QElapsedTimer closing;
    closing.start();
    QVERIFY(program.waitFor(QStringLiteral("app.exec() returns:  0")));
    QVERIFY(program.waitFor(QStringLiteral("Waiting 2 s before deleting objects")));
    QCOMPARE(program.finish(), 0);
    // GUI_cleanup's 2 s pause, which an idle worker does not outlast.
    QVERIFY2(closing.elapsed() >= 1900 && closing.elapsed() < 4000,
             qPrintable(QString::number(closing.elapsed())));
    QCOMPARE(program.output().contains(QStringLiteral("Trying to stop sm_A")),
             steps.contains(QStringLiteral(">key Escape|")));
    const QString folder = program.extracted_folder();
    QVERIFY(!folder.isEmpty());
    QVERIFY2(!QDir(folder).exists(), qPrintable(folder));
}

PROGRAMRUN_TEST_MAIN(tst_E2E)
#include "tst_e2e.moc"
