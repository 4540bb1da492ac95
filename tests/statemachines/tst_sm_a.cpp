// SM_A on its own thread against the simulated dfu-util in fast mode: the order of its signals.
#include <atomic>
#include <memory>

#include <QtTest>

#include "dfu/commands.h"
#include "simulator/simulator.h"
#include "statemachines/sm_a.h"
#include "support/files.h"

namespace {

const QString unit_serial = QStringLiteral("3473375A3334");

// One cycle without a usable unit, and one idle check of a unit that stays.
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

int simulator_control(const QStringList& words)
{
    return QProcess::execute(script(), QStringList{QStringLiteral("--dfu-util-command")} + words);
}

// The expected log: head, then cycle repeated, cut to the length actually recorded.
QStringList head_then_cycles(const QStringList& head, const QStringList& cycle, qsizetype length)
{
    QStringList expected = head;
    while (expected.size() < length)
        expected += cycle;
    return expected.mid(0, length);
}

// Records every signal by its short name, received queued in this thread as the GUI gets them.
class Recorder final
{
public:
    explicit Recorder(SM_A* worker)
    {
        add(worker, &SM_A::sig_NoDevConn, "NoDevConn");
        add(worker, &SM_A::sig_DevConn, "DevConn");
        add(worker, &SM_A::sig_scanning, "scanning");
        add(worker, &SM_A::sig_readingInfo, "readingInfo");
        QObject::connect(worker, &SM_A::sig_DeviceError, &context, [this](const QString& text) {
            names << QStringLiteral("DeviceError");
            errors << text;
        });
        add(worker, &SM_A::sig_FwDownloading, "FwDownloading");
        add(worker, &SM_A::sig_FwDownloaded, "FwDownloaded");
        add(worker, &SM_A::sig_FwUploading, "FwUploading");
        add(worker, &SM_A::sig_FwUploadedDiffers, "FwUploadedDiffers");
        add(worker, &SM_A::sig_FwUploadedMatches, "FwUploadedMatches");
        add(worker, &SM_A::sig_A0_entered, "A0");
        add(worker, &SM_A::sig_A1_entered, "A1");
        add(worker, &SM_A::sig_A2_entered, "A2");
        add(worker, &SM_A::sig_A3_entered, "A3");
        add(worker, &SM_A::sig_A4_entered, "A4");
        add(worker, &SM_A::sig_A5_entered, "A5");
        add(worker, &SM_A::sig_A6_entered, "A6");
        add(worker, &SM_A::sig_A7_entered, "A7");
        // Queued like the rest, so once it is recorded every earlier signal has been too.
        add(worker, &QThread::finished, "finished");
    }

    QStringList names;
    QStringList errors;

    qsizetype count(const QString& name) const { return names.count(name); }

private:
    template <typename Signal> void add(SM_A* worker, Signal signal, const char* name)
    {
        QObject::connect(worker, signal, &context,
                         [this, name = QString::fromLatin1(name)] { names << name; });
    }

    QObject context;
};

// Debug lines of the worker, written on its thread.
QMutex log_mutex;
QStringList log_lines;

void capture_log(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type == QtDebugMsg &&
        (text.contains(QStringLiteral("SM_A")) || text.startsWith(QStringLiteral("Uploaded FW")))) {
        QMutexLocker lock(&log_mutex);
        log_lines << text;
    }
}

QStringList captured_log()
{
    QMutexLocker lock(&log_mutex);
    return log_lines;
}

} // namespace

class TestSM_A final : public QObject
{
    Q_OBJECT

    QTemporaryDir state;
    QMap<DFU::CmdID, DFU::Command> simulated_commands;
    QtMessageHandler previous_handler = nullptr;

    std::unique_ptr<SM_A> make_worker()
    {
        auto worker = std::make_unique<SM_A>(working_file(Files::desired_FW_fileName_dfu),
                                             working_file(Files::desired_FW_fileName_bin),
                                             working_file(Files::uploaded_FW_fileName_bin));
        worker->no_device_poll_ms = 5;
        worker->connected_poll_ms = 5;
        return worker;
    }

    static bool use_scenario(const QString& name)
    {
        return simulator::sim_setup_prepared_config(name) == 0;
    }

    // Ends the loop and waits until its last queued signal has arrived here.
    static void stop(SM_A& worker, Recorder& recorder)
    {
        worker.do_stop();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("finished")), 1, 10000);
        recorder.names.removeLast();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(state.isValid());
        qputenv("LUMAXIS_SIMULATOR_STATE", state.path().toLocal8Bit());
        qputenv("LUMAXIS_SIMULATOR_FAST", "1");
        qunsetenv("LUMAXIS_SIMULATOR_ABSENT_MS");
        simulator::setup_for_simulated_dfu_util(simulator::fast_progress);
        simulated_commands = DFU::commands;

        // The image the program carries is the one the simulator's scenarios upgrade to.
        const QString desired = working_file(Files::desired_FW_fileName_bin);
        QFile::remove(desired);
        QVERIFY(
            QFile::copy(simulator::dfu_util_path(QStringLiteral("images/firmware.bin")), desired));
        previous_handler = qInstallMessageHandler(capture_log);
    }

    void cleanupTestCase() { qInstallMessageHandler(previous_handler); }

    void cleanup() { DFU::commands = simulated_commands; }

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
        QVERIFY(use_scenario(scenario));
        auto worker = make_worker();
        Recorder recorder(worker.get());
        worker->start();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(QStringLiteral("A0")) >= 4, 10000);
        stop(*worker, recorder);

        const QStringList log = recorder.names;
        QCOMPARE(log, head_then_cycles({}, no_unit_cycle, log.size()));
        QVERIFY(!worker->device_info.valid);
    }

    // The first scan comes without the pause that precedes every later cycle.
    void a_unit_that_stays_is_read_once()
    {
        QVERIFY(use_scenario(QStringLiteral("default")));
        auto worker = make_worker();
        worker->no_device_poll_ms = 3600 * 1000;
        Recorder recorder(worker.get());
        worker->start();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(QStringLiteral("A4")) >= 5, 10000);
        stop(*worker, recorder);

        const QStringList head = no_unit_cycle + new_unit_read;
        QCOMPARE(recorder.names, head_then_cycles(head, idle_check, recorder.names.size()));
        QCOMPARE(worker->current_serial, unit_serial);
        QVERIFY(worker->device_info.valid);
        QCOMPARE(worker->device_info.type, Device::Kestrel);
        QCOMPARE(worker->device_info.FW_revision, QStringLiteral("2.2.0"));
    }

    void a_download_is_followed_by_a_fresh_read_when_the_unit_is_back()
    {
        QVERIFY(use_scenario(QStringLiteral("default")));
        auto worker = make_worker();
        Recorder recorder(worker.get());
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("DevConn")), 1, 10000);
        worker->set_command(SM_A::Download);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("DevConn")), 2, 20000);
        stop(*worker, recorder);

        const QStringList log = recorder.names;
        const qsizetype download = log.indexOf(QStringLiteral("A5"));
        QVERIFY(download > 0);
        QCOMPARE(log.mid(download - 1, 4),
                 (QStringList{"A4", "A5", "FwDownloading", "FwDownloaded"}));
        // The unit restarts: at least two cycles find nothing before it is read again.
        const qsizetype reread = log.indexOf(QStringLiteral("readingInfo"), download);
        const QStringList absent = log.mid(download + 3, reread - download - 3);
        QCOMPARE(absent, head_then_cycles({}, no_unit_cycle, absent.size()));
        QVERIFY2(absent.size() >= 2 * no_unit_cycle.size(), qPrintable(absent.join(' ')));
        QCOMPARE(log.mid(reread, new_unit_read.size()), new_unit_read);
        QCOMPARE(worker->device_info.FW_revision, QStringLiteral("2.3.0"));
        QCOMPARE(recorder.count(QStringLiteral("A5")), 1);
        QCOMPARE(worker->get_command(), SM_A::None);
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
        QTest::newRow("another revision") << "default"
                                          << "FwUploadedDiffers"
                                          << "Uploaded FW does not match";
    }

    // A verification reads the flash back and returns to idle checks of the same unit.
    void verification()
    {
        QFETCH(QString, scenario);
        QFETCH(QString, outcome);
        QFETCH(QString, log_line);
        QVERIFY(use_scenario(scenario));
        auto worker = make_worker();
        Recorder recorder(worker.get());
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("DevConn")), 1, 10000);
        const qsizetype lines_before = captured_log().size();
        worker->set_command(SM_A::UploadVerify);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(outcome), 1, 10000);
        QTRY_VERIFY(recorder.names.size() > recorder.names.lastIndexOf(outcome) + 3);
        stop(*worker, recorder);

        const QStringList log = recorder.names;
        const qsizetype verify = log.indexOf(QStringLiteral("A6"));
        QCOMPARE(log.mid(verify - 1, 7),
                 (QStringList{"A4", "A6", "FwUploading", outcome, "A2", "scanning", "A4"}));
        QCOMPARE(recorder.count(QStringLiteral("FwUploadedDiffers")) +
                     recorder.count(QStringLiteral("FwUploadedMatches")),
                 1);
        QCOMPARE(recorder.count(QStringLiteral("DevConn")), 1);
        QVERIFY(captured_log().mid(lines_before).contains(log_line));
        QCOMPARE(QFileInfo(working_file(Files::uploaded_FW_fileName_bin)).size(),
                 QFileInfo(working_file(Files::desired_FW_fileName_bin)).size());
    }

    // Counted scans prove the faulty unit is polled, not read again, until it goes away.
    void a_failed_read_out_is_reported_once_until_the_unit_goes()
    {
        QVERIFY(use_scenario(QStringLiteral("otp_upload_fails")));
        QTemporaryDir wrapper_dir;
        const QString counter = wrapper_dir.filePath(QStringLiteral("scans"));
        const QString wrapper = wrapper_dir.filePath(QStringLiteral("counting_list.sh"));
        QFile file(wrapper);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QStringLiteral("#!/bin/sh\necho >>'%1'\nexec '%2' \"$@\"\n")
                       .arg(counter, script())
                       .toUtf8());
        file.close();
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        DFU::commands[DFU::list].program = wrapper;
        const auto scans = [&counter] {
            QFile f(counter);
            return f.open(QIODevice::ReadOnly) ? f.readAll().size() : 0;
        };

        auto worker = make_worker();
        Recorder recorder(worker.get());
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("A7")), 1, 10000);
        const qsizetype scans_in_A7 = scans();
        QTRY_VERIFY_WITH_TIMEOUT(scans() >= scans_in_A7 + 3, 10000);
        QCOMPARE(simulator_control({QStringLiteral("unplug")}), 0);
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(QStringLiteral("A0")) >= 3, 10000);
        QCOMPARE(simulator_control({QStringLiteral("plug")}), 0);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("A7")), 2, 10000);
        stop(*worker, recorder);

        const QStringList failed_read{"readingInfo", "NoDevConn", "DeviceError", "A7", "scanning"};
        const QStringList log = recorder.names;
        QCOMPARE(log.mid(0, 10), no_unit_cycle + failed_read);
        const qsizetype second = log.indexOf(QStringLiteral("readingInfo"), 6);
        QCOMPARE(log.mid(10, second - 10),
                 head_then_cycles({}, no_unit_cycle, second - 10)); // gone, then back
        QCOMPARE(log.mid(second, 5), failed_read);
        QCOMPARE(recorder.errors.size(), 2);
        QVERIFY2(recorder.errors.first().contains(QStringLiteral("Opening DFU capable USB device")),
                 qPrintable(recorder.errors.first()));
        QVERIFY(!worker->device_info.valid);
    }

    void a_swapped_unit_is_read_as_a_new_one()
    {
        QVERIFY(use_scenario(QStringLiteral("default")));
        auto worker = make_worker();
        Recorder recorder(worker.get());
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("DevConn")), 1, 10000);
        QCOMPARE(simulator_control({QStringLiteral("plug"), QStringLiteral("0123ABCD")}), 0);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("DevConn")), 2, 10000);
        stop(*worker, recorder);

        const QStringList log = recorder.names;
        const qsizetype second = log.lastIndexOf(QStringLiteral("readingInfo"));
        QCOMPARE(log.mid(second - 3, 3), (QStringList{"A4", "A2", "scanning"}));
        QCOMPARE(log.mid(second, new_unit_read.size()), new_unit_read);
        QCOMPARE(worker->current_serial, QStringLiteral("0123ABCD"));
    }

    void a_download_set_before_a_unit_arrives_runs_when_it_does()
    {
        QVERIFY(use_scenario(QStringLiteral("no_unit")));
        auto worker = make_worker();
        Recorder recorder(worker.get());
        worker->set_command(SM_A::Download);
        worker->start();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(QStringLiteral("A0")) >= 3, 10000);
        QCOMPARE(simulator_control({QStringLiteral("plug"), unit_serial}), 0);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("FwDownloaded")), 1, 10000);
        stop(*worker, recorder);

        const QStringList log = recorder.names;
        const qsizetype read = log.indexOf(QStringLiteral("readingInfo"));
        const QStringList download{"A5", "FwDownloading", "FwDownloaded"};
        QCOMPARE(log.mid(read, 7), new_unit_read + download);
    }

    void only_the_last_of_two_commands_runs()
    {
        QVERIFY(use_scenario(QStringLiteral("same_revision")));
        auto worker = make_worker();
        Recorder recorder(worker.get());
        worker->set_command(SM_A::Download);
        worker->set_command(SM_A::UploadVerify);
        QCOMPARE(worker->get_command(), SM_A::UploadVerify);
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("FwUploadedMatches")), 1, 10000);
        stop(*worker, recorder);

        QCOMPARE(recorder.count(QStringLiteral("A5")), 0);
        QCOMPARE(recorder.count(QStringLiteral("A6")), 1);
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
        QVERIFY(use_scenario(scenario));
        auto worker = make_worker();
        Recorder recorder(worker.get());
        worker->set_command(SM_A::Command(pending));
        worker->start();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(QStringLiteral("A2")) >= 3, 10000);
        QVERIFY(!worker->is_stopping());
        worker->do_stop();
        QVERIFY(worker->is_stopping());
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("finished")), 1, 10000);

        QVERIFY(worker->isFinished());
        QCOMPARE(recorder.names.at(recorder.names.size() - 2), last_position);
        QCOMPARE(recorder.count(QStringLiteral("A5")), 0);
        QCOMPARE(int(worker->get_command()), pending);
    }

    // Destroying a running worker stops it and waits for the loop: it is never cut off.
    void destruction_waits_for_the_loop()
    {
        QVERIFY(use_scenario(QStringLiteral("default")));
        auto worker = make_worker();
        std::atomic<bool> loop_returned{false};
        connect(
            worker.get(), &QThread::finished, worker.get(), [&] { loop_returned = true; },
            Qt::DirectConnection);
        {
            Recorder recorder(worker.get());
            worker->start();
            QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("DevConn")), 1, 10000);
        }
        const qsizetype lines_before = captured_log().size();
        worker.reset();
        QVERIFY(loop_returned);
        QVERIFY(captured_log().mid(lines_before).contains(QStringLiteral("SM_A: Waiting in dtor")));
    }

    // Quiet signals are logged once after a loud one, so an idle worker does not flood the log.
    void debug_output_skips_repeated_quiet_signals()
    {
        QVERIFY(use_scenario(QStringLiteral("default")));
        auto worker = make_worker();
        const qsizetype lines_before = captured_log().size();
        worker->enable_debug_output();
        Recorder recorder(worker.get());
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("DevConn")), 1, 10000);
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(QStringLiteral("A4")) >= 5, 10000);
        worker->set_command(SM_A::Download);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(QStringLiteral("DevConn")), 2, 20000);
        QTRY_VERIFY_WITH_TIMEOUT(
            recorder.names.count(QStringLiteral("A4")) >=
                recorder.names.mid(0, recorder.names.lastIndexOf("DevConn")).count("A4") + 5,
            10000);
        stop(*worker, recorder);

        QStringList signal_lines;
        for (const QString& line : captured_log().mid(lines_before)) {
            if (line.startsWith(QStringLiteral("\"SM_A: /sig_")))
                signal_lines << line.mid(12).chopped(1);
        }
        QCOMPARE(
            captured_log().value(lines_before),
            QStringLiteral("SM_A: Adding connections to show debug output (state transitions)"));
        const QStringList read_and_settle{"readingInfo", "NoDevConn", "DevConn", "scanning"};
        const QStringList download_and_restart{"FwDownloading", "FwDownloaded", "NoDevConn"};
        const QStringList expected = QStringList{QStringLiteral("NoDevConn")} + read_and_settle +
                                     download_and_restart + read_and_settle;
        QCOMPARE(signal_lines, expected);
    }

    void sig_A3_entered_keeps_its_index()
    {
        QCOMPARE(SM_A::staticMetaObject.indexOfSignal("sig_A3_entered()") -
                     SM_A::staticMetaObject.indexOfSignal("sig_NoDevConn()"),
                 13);
        QCOMPARE(SM_A::staticMetaObject.indexOfSignal("sig_A7_entered()") -
                     SM_A::staticMetaObject.indexOfSignal("sig_NoDevConn()"),
                 17);
    }
};

QTEST_GUILESS_MAIN(TestSM_A)
#include "tst_sm_a.moc"
