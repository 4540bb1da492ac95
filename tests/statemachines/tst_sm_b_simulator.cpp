// SM_B driving a running SM_A against the simulated dfu-util in fast mode: a whole upgrade.
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include "device/fwinfo.h"
#include "simulator/simulator.h"
#include "statemachines/sm_a.h"
#include "statemachines/sm_b.h"

class tst_SM_B_Simulator final : public QObject
{
    Q_OBJECT

    QTemporaryDir state;
    QTemporaryDir work;

    static QString carried_image() { return simulator::dfu_util_path("images/firmware.bin"); }

private slots:
    void initTestCase()
    {
        if (!QFileInfo(simulator::dfu_util_path("dfu-util_simulator.sh")).isExecutable() ||
            !QFileInfo::exists(carried_image()))
            QSKIP("the build has not made the simulator script and its images");
        QVERIFY(state.isValid());
        QVERIFY(work.isValid());
        qputenv("LUMAXIS_SIMULATOR_STATE", state.path().toLocal8Bit());
        qputenv("LUMAXIS_SIMULATOR_ABSENT_MS", "300");
        simulator::setup_for_simulated_dfu_util(simulator::fast_progress);
    }

    void whole_upgrade_needs_only_the_click()
    {
        QCOMPARE(simulator::sim_setup_prepared_config(QStringLiteral("default")), 0);
        const Device::FW_Info carried = Device::make_FW_Info(carried_image());
        QVERIFY(carried.valid);

        SM_A worker(work.filePath("firmware.dfu"), carried_image(),
                    work.filePath("uploaded_FW.bin"));
        worker.no_device_poll_ms = 20;
        worker.connected_poll_ms = 20;
        sm_A = &worker;
        SM_B machine(&worker, carried.product.type, carried.revision);

        QStringList states;
        for (QState* s : machine.findChildren<QState*>(Qt::FindDirectChildrenOnly))
            connect(s, &QState::entered, this, [&states, s] { states << s->objectName().left(2); });
        QStringList emitted;
        connect(&machine, &SM_B::sig_DoDownload, this, [&] { emitted << "DoDownload"; });
        connect(&machine, &SM_B::sig_UploadingVerifying, this, [&] { emitted << "Verifying"; });
        connect(&machine, &SM_B::sig_FwMatches, this, [&] { emitted << "FwMatches"; });
        connect(&machine, &SM_B::sig_FwDiffers, this, [&] { emitted << "FwDiffers"; });
        // As start-up does: the worker runs once the machine has entered B1.
        connect(&machine, &QStateMachine::started, &worker, [&worker] { worker.start(); });
        // The install click, the only user action.
        connect(&machine, &SM_B::sig_DifferingRevision, &machine, &SM_B::do_download,
                Qt::QueuedConnection);

        machine.start();
        QTRY_COMPARE_WITH_TIMEOUT(states.size(), 6, 60000);
        worker.do_stop();
        QVERIFY(worker.wait(30000));
        sm_A = nullptr;

        QCOMPARE(states, (QStringList{"B1", "B2", "B3", "B1", "B4", "B6"}));
        QCOMPARE(emitted, (QStringList{"DoDownload", "Verifying", "FwMatches"}));
    }
};

QTEST_GUILESS_MAIN(tst_SM_B_Simulator)
#include "tst_sm_b_simulator.moc"
