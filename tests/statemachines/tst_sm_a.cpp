// SM_A on its own thread, alone and driving SM_B, against the simulated dfu-util in fast mode.
#include <atomic>
#include <memory>

#include <QtTest>

#include "common/logcapture.h"
#include "simulator/simulator.h"
#include "statemachines/sm_a.h"
#include "statemachines/sm_b.h"
#include "support/files.h"

namespace {

std::unique_ptr<SM_A> make_worker(const QString& scenario)
{
    if (simulator::sim_setup_prepared_config(scenario) != 0)
        return nullptr;
    auto worker = std::make_unique<SM_A>(Files::working_path(Files::desired_FW_fileName_dfu),
                                         Files::working_path(Files::desired_FW_fileName_bin),
                                         Files::working_path(Files::uploaded_FW_fileName_bin));
    worker->set_poll_pauses(5, 5);
    return worker;
}

// Counts a worker signal on the worker's thread, as it is emitted.
struct Count
{
    std::atomic<int> n{0};
    Count(SM_A* worker, void (SM_A::*signal)())
    {
        QObject::connect(
            worker, signal, worker, [this] { ++n; }, Qt::DirectConnection);
    }
};

} // namespace

class TestSM_A final : public QObject
{
    Q_OBJECT

    QTemporaryDir state;

private slots:
    void initTestCase()
    {
        QVERIFY(state.isValid());
        qputenv("LUMAXIS_SIMULATOR_STATE", state.path().toLocal8Bit());
        qputenv("LUMAXIS_SIMULATOR_ABSENT_MS", "300");
        simulator::setup_for_simulated_dfu_util(simulator::fast_progress);
        // The program carries the image that the simulator's scenarios upgrade to.
        QVERIFY(QFile::copy(simulator::dfu_util_path(QStringLiteral("images/firmware.bin")),
                            Files::working_path(Files::desired_FW_fileName_bin)));
    }

    // An idle worker logs its quiet signals once, not every cycle.
    void without_a_usable_unit_every_cycle_only_scans_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::newRow("no unit") << "no_unit";
        QTest::newRow("two units") << "two_units";
    }

    void without_a_usable_unit_every_cycle_only_scans()
    {
        QFETCH(QString, scenario);
        auto worker = make_worker(scenario);
        QVERIFY(worker);
        LogCapture log;
        worker->enable_debug_output();
        Count cycles(worker.get(), &SM_A::sig_A0_entered);
        Count reads(worker.get(), &SM_A::sig_readingInfo);
        worker->start();
        QTRY_VERIFY_WITH_TIMEOUT(cycles.n >= 4, 10000);
        worker->do_stop();
        QVERIFY(worker->wait(10000));
        QCOMPARE(reads.n, 0);
        // At most one NoDevConn: the quiet flag outlives a worker, as there is one per program.
        QCOMPARE(log.lines().first(),
                 "debug: SM_A: Adding connections to show debug output (state transitions)");
        QCOMPARE(log.lines().mid(1), log.lines().mid(1, 1));
    }

    // The worker's log and SM_B's states, the install clicked as soon as it is offered.
    void with_SM_B_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QStringList>("states");
        QTest::addColumn<QStringList>("log");
        const QStringList read{"readingInfo", "NoDevConn", "DevConn"};
        QTest::newRow("upgrade, then the unit is read afresh and verified")
            << "default" << QStringList{"B1", "B2", "B3", "B1", "B4", "B6"}
            << read + QStringList{"FwDownloading", "FwDownloaded", "NoDevConn"} + read +
                   QStringList{"FwUploading", "Uploaded FW matches", "FwUploadedMatches"};
        QTest::newRow("read-back differs")
            << "readback_differs" << QStringList{"B1", "B4", "B7"}
            << read + QStringList{"FwUploading", "Uploaded FW does not match", "FwUploadedDiffers"};
        QTest::newRow("other product") << "other_product" << QStringList{"B1", "B8"} << read;
        // Read again before it is given up: a unit still enumerating refuses the first opens.
        QTest::newRow("read-out fails")
            << "otp_upload_fails" << QStringList{"B1"}
            << QStringList{"readingInfo", "NoDevConn", "readingInfo", "NoDevConn", "readingInfo",
                           "NoDevConn", "DeviceError"};
    }

    void with_SM_B()
    {
        QFETCH(QString, scenario);
        QFETCH(QStringList, states);
        QFETCH(QStringList, log);
        auto worker = make_worker(scenario);
        QVERIFY(worker);
        sm_A = worker.get();
        LogCapture capture;
        worker->enable_debug_output();
        connect(
            worker.get(), &SM_A::sig_DeviceError, worker.get(), [] { qDebug("DeviceError"); },
            Qt::DirectConnection);
        SM_B machine(worker.get(), Device::Kestrel, QStringLiteral("2.3.0"));
        QStringList entered;
        for (QState* s : machine.findChildren<QState*>(Qt::FindDirectChildrenOnly))
            connect(s, &QState::entered, this,
                    [&entered, s] { entered << s->objectName().left(2); });
        // As start-up does: the worker runs once the machine has entered B1.
        connect(&machine, &QStateMachine::started, worker.get(), [&worker] { worker->start(); });
        connect(&machine, &SM_B::sig_DifferingRevision, &machine, &SM_B::do_download,
                Qt::QueuedConnection);
        const auto logged = [&capture] {
            QStringList names;
            for (QString line : capture.lines())
                if (line.startsWith(QStringLiteral("debug: ")) &&
                    line.remove(0, 7).remove('"') != "SM_A: /sig_scanning" &&
                    !line.startsWith(QStringLiteral("SM_A: Adding")))
                    names << line.remove(QStringLiteral("SM_A: /sig_"));
            return names.mid(names.indexOf(QStringLiteral("readingInfo")));
        };

        machine.start();
        QTRY_VERIFY_WITH_TIMEOUT(entered.size() >= states.size() && logged().size() >= log.size(),
                                 60000);
        worker->do_stop();
        QVERIFY(worker->wait(30000));
        sm_A = nullptr;
        QCOMPARE(entered, states);
        QCOMPARE(logged().mid(0, log.size()), log);
    }

    // The faulty unit is read a few times, then polled, not read again, until it goes away.
    void a_failed_read_out_is_reported_once_until_the_unit_goes()
    {
        const auto control = [](const char* word) {
            return QProcess::execute(simulator::dfu_util_path("dfu-util_simulator.sh"),
                                     {"--dfu-util-command", QString::fromLatin1(word)});
        };
        auto worker = make_worker(QStringLiteral("otp_upload_fails"));
        QVERIFY(worker);
        Count failed(worker.get(), &SM_A::sig_A7_entered);
        Count cycles(worker.get(), &SM_A::sig_A0_entered);
        Count reads(worker.get(), &SM_A::sig_readingInfo);
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(failed.n, 1, 10000);
        QTest::qWait(200); // many polls while it stays
        QCOMPARE(reads.n, 3); // read three times before it counts as failed
        const int cycles_before = cycles.n; // the reads again began new cycles too
        QCOMPARE(control("unplug"), 0);
        QTRY_VERIFY_WITH_TIMEOUT(cycles.n >= cycles_before + 3, 10000);
        QCOMPARE(control("plug"), 0);
        QTRY_COMPARE_WITH_TIMEOUT(failed.n, 2, 10000);
        worker->do_stop();
        QVERIFY(worker->wait(10000));
        QCOMPARE(reads.n, 6);
    }
};

QTEST_GUILESS_MAIN(TestSM_A)
#include "tst_sm_a.moc"
