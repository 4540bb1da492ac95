// SM_A on its own thread against the simulated dfu-util in fast mode: the order of its signals.
#include <atomic>
#include <memory>

#include <QtTest>

#include "dfu/commands.h"
#include "simulator/simulator.h"
#include "statemachines/sm_a.h"
#include "support/files.h"

namespace {

const QStringList no_unit_cycle{"A0", "A1", "NoDevConn", "A2", "scanning"};
const QStringList idle_check{"A2", "scanning", "A4"};
const QStringList new_unit_read{"readingInfo", "NoDevConn", "DevConn", "A4"};

QString working_file(const QString& name)
{
    return Files::external_dir.path() + QLatin1Char('/') + name;
}

QString script()
{
    return simulator::dfu_util_path(QStringLiteral("dfu-util_simulator.sh"));
}

// head, then cycle repeated, cut to the length actually recorded.
QStringList head_then_cycles(const QStringList& head, const QStringList& cycle, qsizetype length)
{
    QStringList expected = head;
    while (expected.size() < length)
        expected += cycle;
    return expected.mid(0, length);
}

QMutex log_mutex;
QStringList log_lines; // the worker's debug lines, written on its thread

void capture_log(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    QMutexLocker lock(&log_mutex);
    if (type == QtDebugMsg)
        log_lines << text;
}

QStringList log_since(qsizetype start)
{
    QMutexLocker lock(&log_mutex);
    return log_lines.mid(start);
}

} // namespace

// Records every signal by its short name ("A4", "DevConn"), queued into this thread as the GUI
// gets them; "finished" comes last, so once it is here every earlier signal is too.
class Recorder final : public QObject
{
    Q_OBJECT

public:
    explicit Recorder(SM_A* worker)
    {
        const QMetaMethod slot = staticMetaObject.method(staticMetaObject.indexOfSlot("record()"));
        const QMetaObject& sm = SM_A::staticMetaObject;
        for (int i = sm.methodOffset(); i < sm.methodCount(); ++i) {
            if (sm.method(i).methodType() == QMetaMethod::Signal)
                connect(worker, sm.method(i), this, slot);
        }
        connect(worker, &QThread::finished, this, &Recorder::record);
        connect(worker, &SM_A::sig_DeviceError, this, [this](const QString& m) { errors << m; });
    }

    qsizetype count(const char* name) const { return names.count(QLatin1String(name)); }

    QStringList names;
    QStringList errors;

private slots:
    void record()
    {
        QString name =
            QString::fromLatin1(sender()->metaObject()->method(senderSignalIndex()).name());
        names << name.remove(QStringLiteral("sig_")).remove(QStringLiteral("_entered"));
    }
};

class TestSM_A final : public QObject
{
    Q_OBJECT

    QTemporaryDir state;
    QMap<DFU::CmdID, DFU::Command> simulated;
    QtMessageHandler previous_handler = nullptr;

    static std::unique_ptr<SM_A> make_worker(const char* scenario)
    {
        if (simulator::sim_setup_prepared_config(QString::fromLatin1(scenario)) != 0)
            return nullptr;
        auto worker = std::make_unique<SM_A>(working_file(Files::desired_FW_fileName_dfu),
                                             working_file(Files::desired_FW_fileName_bin),
                                             working_file(Files::uploaded_FW_fileName_bin));
        worker->no_device_poll_ms = 5;
        worker->connected_poll_ms = 5;
        return worker;
    }

    // Ends the loop and waits until its last queued signal has arrived.
    static void stop(SM_A& worker, Recorder& recorder)
    {
        worker.do_stop();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count("finished"), 1, 10000);
        recorder.names.removeLast();
        QCOMPARE(recorder.count("A3"), 0);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(state.isValid());
        qputenv("LUMAXIS_SIMULATOR_STATE", state.path().toLocal8Bit());
        qunsetenv("LUMAXIS_SIMULATOR_ABSENT_MS");
        simulator::setup_for_simulated_dfu_util(simulator::fast_progress);
        simulated = DFU::commands;
        // The program carries the image that the simulator's scenarios upgrade to.
        QVERIFY(QFile::copy(simulator::dfu_util_path(QStringLiteral("images/firmware.bin")),
                            working_file(Files::desired_FW_fileName_bin)));
        previous_handler = qInstallMessageHandler(capture_log);
    }

    void cleanupTestCase() { qInstallMessageHandler(previous_handler); }

    void cleanup() { DFU::commands = simulated; }

    void without_a_usable_unit_every_cycle_only_scans_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::newRow("no unit") << "no_unit";
        QTest::newRow("two units") << "two_units";
        QTest::newRow("unit on three lines") << "three_lines";
    }

    void without_a_usable_unit_every_cycle_only_scans()
    {
        QFETCH(QString, scenario);
        auto worker = make_worker(qPrintable(scenario));
        QVERIFY(worker);
        Recorder recorder(worker.get());
        worker->start();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count("A0") >= 4, 10000);
        stop(*worker, recorder);

        QCOMPARE(recorder.names, head_then_cycles({}, no_unit_cycle, recorder.names.size()));
        QVERIFY(!worker->device_info.valid);
    }

    // With an hour's pause before every cycle but the first, the unit is still found at once.
    void a_unit_that_stays_is_read_once()
    {
        auto worker = make_worker("default");
        QVERIFY(worker);
        worker->no_device_poll_ms = 3600 * 1000;
        Recorder recorder(worker.get());
        worker->start();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count("A4") >= 5, 10000);
        stop(*worker, recorder);

        QCOMPARE(recorder.names, head_then_cycles(no_unit_cycle + new_unit_read, idle_check,
                                                  recorder.names.size()));
        QCOMPARE(worker->current_serial, QStringLiteral("3473375A3334"));
        QCOMPARE(worker->device_info.type, Device::Kestrel);
        QCOMPARE(worker->device_info.FW_revision, QStringLiteral("2.2.0"));
    }

    void a_download_is_followed_by_a_fresh_read_when_the_unit_is_back()
    {
        auto worker = make_worker("default");
        QVERIFY(worker);
        Recorder recorder(worker.get());
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count("DevConn"), 1, 10000);
        worker->set_command(SM_A::Download);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count("DevConn"), 2, 20000);
        stop(*worker, recorder);

        const QStringList log = recorder.names;
        const qsizetype download = log.indexOf(QStringLiteral("A5"));
        QCOMPARE(log.mid(download - 1, 4),
                 (QStringList{"A4", "A5", "FwDownloading", "FwDownloaded"}));
        // The unit restarts: cycles without a unit, then it is read afresh.
        const qsizetype reread = log.indexOf(QStringLiteral("readingInfo"), download);
        const QStringList absent = log.mid(download + 3, reread - download - 3);
        QCOMPARE(absent, head_then_cycles({}, no_unit_cycle, absent.size()));
        QVERIFY(absent.size() >= 2 * no_unit_cycle.size());
        QCOMPARE(log.mid(reread, new_unit_read.size()), new_unit_read);
        QCOMPARE(worker->device_info.FW_revision, QStringLiteral("2.3.0"));
        QCOMPARE(recorder.count("A5"), 1);
    }

    void verification_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<QString>("log_line");
        QTest::newRow("matches") << "same_revision"
                                 << "FwUploadedMatches"
                                 << "Uploaded FW matches";
        QTest::newRow("differs") << "readback_differs"
                                 << "FwUploadedDiffers"
                                 << "Uploaded FW does not match";
    }

    void verification()
    {
        QFETCH(QString, scenario);
        QFETCH(QString, outcome);
        QFETCH(QString, log_line);
        auto worker = make_worker(qPrintable(scenario));
        QVERIFY(worker);
        Recorder recorder(worker.get());
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count("DevConn"), 1, 10000);
        const qsizetype log_start = log_since(0).size();
        worker->set_command(SM_A::UploadVerify);
        QTRY_VERIFY_WITH_TIMEOUT(recorder.names.size() > recorder.names.indexOf(outcome) + 3 &&
                                     recorder.names.contains(outcome),
                                 10000);
        stop(*worker, recorder);

        const qsizetype verify = recorder.names.indexOf(QStringLiteral("A6"));
        QCOMPARE(recorder.names.mid(verify - 1, 7),
                 (QStringList{"A4", "A6", "FwUploading", outcome, "A2", "scanning", "A4"}));
        QCOMPARE(recorder.count("FwUploadedDiffers") + recorder.count("FwUploadedMatches"), 1);
        QCOMPARE(recorder.count("DevConn"), 1);
        QVERIFY(log_since(log_start).contains(log_line));
    }

    // Counted scans show the faulty unit is polled, not read again, until it goes away.
    void a_failed_read_out_is_reported_once_until_the_unit_goes()
    {
        QTemporaryDir dir;
        const QString counter = dir.filePath(QStringLiteral("scans"));
        QFile wrapper(dir.filePath(QStringLiteral("counting_list.sh")));
        QVERIFY(wrapper.open(QIODevice::WriteOnly));
        wrapper.write(QStringLiteral("#!/bin/sh\necho >>'%1'\nexec '%2' \"$@\"\n")
                          .arg(counter, script())
                          .toUtf8());
        wrapper.close();
        wrapper.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        DFU::commands[DFU::list].program = wrapper.fileName();
        const auto scans = [&counter] { return QFileInfo(counter).size(); };
        const auto control = [](const char* word) {
            return QProcess::execute(script(), {"--dfu-util-command", QString::fromLatin1(word)});
        };

        auto worker = make_worker("otp_upload_fails");
        QVERIFY(worker);
        Recorder recorder(worker.get());
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count("A7"), 1, 10000);
        const qint64 scans_in_A7 = scans();
        QTRY_VERIFY_WITH_TIMEOUT(scans() >= scans_in_A7 + 3, 10000);
        QCOMPARE(control("unplug"), 0);
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count("A0") >= 3, 10000);
        QCOMPARE(control("plug"), 0);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count("A7"), 2, 10000);
        stop(*worker, recorder);

        const QStringList failed_read{"readingInfo", "NoDevConn", "DeviceError", "A7", "scanning"};
        const QStringList log = recorder.names;
        QCOMPARE(log.mid(0, 10), no_unit_cycle + failed_read);
        const qsizetype second = log.indexOf(QStringLiteral("readingInfo"), 6);
        QCOMPARE(log.mid(10, second - 10), head_then_cycles({}, no_unit_cycle, second - 10));
        QCOMPARE(log.mid(second, 5), failed_read);
        QCOMPARE(recorder.errors.size(), 2);
        QVERIFY(recorder.errors.first().contains(QStringLiteral("Opening DFU capable USB device")));
    }

    void only_the_last_of_two_commands_runs()
    {
        auto worker = make_worker("same_revision");
        QVERIFY(worker);
        Recorder recorder(worker.get());
        worker->set_command(SM_A::Download);
        worker->set_command(SM_A::UploadVerify);
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count("FwUploadedMatches"), 1, 10000);
        stop(*worker, recorder);

        QCOMPARE(recorder.count("A5"), 0);
        QCOMPARE(worker->get_command(), SM_A::None);
    }

    void stop_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<int>("pending");
        QTest::addColumn<QString>("last_position");
        QTest::newRow("idle, no unit") << "no_unit" << int(SM_A::None) << "A1";
        QTest::newRow("idle, unit connected") << "default" << int(SM_A::None) << "A4";
        QTest::newRow("download pending, no unit") << "no_unit" << int(SM_A::Download) << "A1";
    }

    // The loop ends at its next stop check, in A1 or A4, and leaves a pending command alone.
    void stop()
    {
        QFETCH(QString, scenario);
        QFETCH(int, pending);
        QFETCH(QString, last_position);
        auto worker = make_worker(qPrintable(scenario));
        QVERIFY(worker);
        Recorder recorder(worker.get());
        worker->set_command(SM_A::Command(pending));
        worker->start();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count("A2") >= 3, 10000);
        QVERIFY(!worker->is_stopping());
        stop(*worker, recorder);

        QVERIFY(worker->is_stopping());
        QCOMPARE(recorder.names.last(), last_position);
        QCOMPARE(recorder.count("A5"), 0);
        QCOMPARE(int(worker->get_command()), pending);
    }

    // Destroying a running worker stops it and waits for the loop; it is never cut off.
    void destruction_waits_for_the_loop()
    {
        auto worker = make_worker("default");
        QVERIFY(worker);
        std::atomic<bool> loop_returned{false};
        connect(
            worker.get(), &QThread::finished, worker.get(), [&] { loop_returned = true; },
            Qt::DirectConnection);
        {
            Recorder recorder(worker.get());
            worker->start();
            QTRY_COMPARE_WITH_TIMEOUT(recorder.count("DevConn"), 1, 10000);
        }
        const qsizetype log_start = log_since(0).size();
        worker.reset();
        QVERIFY(loop_returned);
        QVERIFY(log_since(log_start).contains(QStringLiteral("SM_A: Waiting in dtor")));
    }

    // A quiet signal is logged once after a loud one, so an idle worker does not flood the log.
    void debug_output_skips_repeated_quiet_signals()
    {
        auto worker = make_worker("default");
        QVERIFY(worker);
        const qsizetype log_start = log_since(0).size();
        worker->enable_debug_output();
        Recorder recorder(worker.get());
        worker->start();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count("A4") >= 5, 10000);
        worker->set_command(SM_A::Download);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count("DevConn"), 2, 20000);
        QTRY_VERIFY(recorder.names.mid(recorder.names.lastIndexOf("DevConn")).count("A4") >= 5);
        stop(*worker, recorder);

        const QStringList lines = log_since(log_start);
        QCOMPARE(
            lines.first(),
            QStringLiteral("SM_A: Adding connections to show debug output (state transitions)"));
        QStringList logged;
        for (const QString& line : lines) {
            if (line.startsWith(QStringLiteral("\"SM_A: /sig_")) && line.endsWith('"'))
                logged << line.mid(12).chopped(1);
        }
        const QStringList read{"readingInfo", "NoDevConn", "DevConn", "scanning"};
        const QStringList download{"FwDownloading", "FwDownloaded", "NoDevConn"};
        QCOMPARE(logged, QStringList{"NoDevConn"} + read + download + read);
    }
};

QTEST_GUILESS_MAIN(TestSM_A)
#include "tst_sm_a.moc"
