// Tests of SM_B driven through a real SM_A whose signals the test emits: transitions, guard
// order and printout, entry and exit actions, debug output.
#include <unistd.h>

#include <cstdio>

#include <QMap>
#include <QSignalSpy>
#include <QTemporaryFile>
#include <QTest>
#include <QThread>

#include "statemachines/sm_a.h"
#include "statemachines/sm_b.h"

namespace {

const QString carried_revision = QStringLiteral("2.3.0");

// Units as the worker would have read them, carried firmware being Kestrel 2.3.0.
DFU::DeviceInfo unit(const QString& kind)
{
    DFU::DeviceInfo info;
    const auto readable = [&info](Device::Type type, const QString& revision) {
        info.valid = true;
        info.type = type;
        info.OTP_info.product.type = type;
        info.OTP_info.product.raw_type = type;
        info.OTP_info.marker_valid = Device::is_valid(type);
        info.FW_revision = revision;
    };
    if (kind == "older")
        readable(Device::Kestrel, QStringLiteral("2.2.0"));
    else if (kind == "same")
        readable(Device::Kestrel, carried_revision);
    else if (kind == "no_revision") // firmware block unreadable or of another product
        readable(Device::Kestrel, QString());
    else if (kind == "other") // the same revision text must not matter
        readable(Device::Verdant, carried_revision);
    else if (kind == "no_product") // record present but without a usable type
        readable(Device::Invalid, QString());
    else if (kind == "blank_unread")
        info.OTP_info.empty = true;
    else if (kind == "blank") {
        readable(Device::Invalid, QString());
        info.OTP_info.empty = true;
    } else if (kind != "unread")
        qFatal("unknown unit kind %s", qPrintable(kind));
    return info;
}

QString check(int valid, int type)
{
    return QStringLiteral("device_has_valid_type(3): valid %1, device_type: %2")
        .arg(valid)
        .arg(type);
}

using WorkerSignal = void (SM_A::*)();
const QMap<QString, WorkerSignal> worker_signals = {
    {QStringLiteral("DevConn"), &SM_A::sig_DevConn},
    {QStringLiteral("NoDevConn"), &SM_A::sig_NoDevConn},
    {QStringLiteral("FwUploadedMatches"), &SM_A::sig_FwUploadedMatches},
    {QStringLiteral("FwUploadedDiffers"), &SM_A::sig_FwUploadedDiffers},
};

// Collects what the guards print with printf, by pointing file descriptor 1 at a file.
class StdoutCapture final
{
public:
    StdoutCapture()
    {
        file.open();
        std::fflush(stdout);
        saved = ::dup(STDOUT_FILENO);
        ::dup2(file.handle(), STDOUT_FILENO);
    }
    ~StdoutCapture() { restore(); }

    // Ends the capture: a failing check must not report into the file.
    QStringList guard_lines()
    {
        restore();
        file.seek(0);
        QStringList lines;
        for (const QByteArray& line : file.readAll().split('\n'))
            if (line.startsWith("device_has_valid_type("))
                lines << QString::fromUtf8(line);
        return lines;
    }

private:
    void restore()
    {
        if (saved < 0)
            return;
        std::fflush(stdout);
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
        saved = -1;
    }

    QTemporaryFile file;
    int saved = -1;
};

// Keeps log lines as "<D|I|W|C>: <first line>" and the full texts.
class LogCapture final
{
public:
    LogCapture()
    {
        lines().clear();
        full().clear();
        previous = qInstallMessageHandler(handler);
    }
    ~LogCapture() { qInstallMessageHandler(previous); }

    static QStringList& lines()
    {
        static QStringList l;
        return l;
    }
    static QStringList& full()
    {
        static QStringList f;
        return f;
    }

private:
    static void handler(QtMsgType type, const QMessageLogContext&, const QString& msg)
    {
        static const char kinds[] = {'D', 'W', 'C', 'F', 'I'};
        lines() << QStringLiteral("%1: %2").arg(QChar::fromLatin1(kinds[type]),
                                                msg.section('\n', 0, 0));
        full() << msg;
    }

    QtMessageHandler previous;
};

// A worker that is never started, the machine under test, and what the machine did.
struct Rig
{
    SM_A worker{QStringLiteral("firmware.dfu"), QStringLiteral("firmware.bin"),
                QStringLiteral("uploaded_FW.bin")};
    SM_B machine{&worker, Device::Kestrel, carried_revision};
    QStringList states;  // "B1", "B2", ... in the order entered
    QStringList emitted; // SM_B's signals without the "sig_" prefix, in order
    int delivered = 0;   // worker signals that have reached the GUI thread

    Rig()
    {
        sm_A = &worker;
        for (QState* state : machine.findChildren<QState*>(Qt::FindDirectChildrenOnly))
            QObject::connect(state, &QState::entered, &machine,
                             [this, state] { states << state->objectName().left(2); });
        const std::pair<void (SM_B::*)(), const char*> signals_of_B[] = {
            {&SM_B::sig_UpgradeImpossible, "UpgradeImpossible"},
            {&SM_B::sig_UpgradePossible, "UpgradePossible"},
            {&SM_B::sig_DifferingRevision, "DifferingRevision"},
            {&SM_B::sig_DoDownload, "DoDownload"},
            {&SM_B::sig_UploadingVerifying, "UploadingVerifying"},
            {&SM_B::sig_FwMatches, "FwMatches"},
            {&SM_B::sig_FwDiffers, "FwDiffers"},
            {&SM_B::sig_DeviceConnected, "DeviceConnected"},
            {&SM_B::sig_InvalidProduct, "InvalidProduct"},
        };
        for (const auto& [signal, name] : signals_of_B)
            QObject::connect(&machine, signal, &machine,
                             [this, name = QString::fromLatin1(name)] { emitted << name; });
        // Made after SM_B's own connections, so a count here means SM_B has had the signal.
        for (WorkerSignal signal : worker_signals)
            QObject::connect(&worker, signal, &machine, [this] { ++delivered; });
    }
    ~Rig() { sm_A = nullptr; }

    bool start()
    {
        QSignalSpy started(&machine, &QStateMachine::started);
        machine.start();
        return started.wait();
    }

    // Worker signals are emitted either from the GUI thread or, as the real worker does, from
    // another thread: then each run of consecutive worker signals is emitted in one burst
    // before the GUI thread gets to handle any of them.
    bool run(const QStringList& steps, bool from_worker_thread)
    {
        int emitted_count = 0;
        QList<WorkerSignal> burst;
        const auto flush = [&]() -> bool {
            if (burst.isEmpty())
                return true;
            QScopedPointer<QThread> thread(QThread::create([this, burst] {
                for (WorkerSignal signal : burst)
                    (worker.*signal)();
            }));
            thread->start();
            if (!thread->wait(10000))
                return false;
            emitted_count += burst.size();
            burst.clear();
            return QTest::qWaitFor([&] { return delivered >= emitted_count; }, 10000) &&
                   delivered == emitted_count;
        };
        for (const QString& step : steps) {
            if (worker_signals.contains(step)) {
                if (from_worker_thread) {
                    burst << worker_signals.value(step);
                    continue;
                }
                (worker.*worker_signals.value(step))();
                continue;
            }
            if (!flush())
                return false;
            if (step.startsWith(QLatin1String("unit:")))
                worker.device_info = unit(step.mid(5));
            else if (step == QLatin1String("click"))
                machine.do_download();
            else
                qFatal("unknown step %s", qPrintable(step));
        }
        return flush();
    }
};

} // namespace

class tst_SM_B final : public QObject
{
    Q_OBJECT

private slots:
    void transitions_data();
    void transitions();
    void transitions_from_worker_thread_data() { transitions_data(); }
    void transitions_from_worker_thread() { run_transitions(true); }

    void device_info_is_copied_before_the_unit_is_announced();
    void no_program_wide_worker_drops_the_read_out();
    void debug_output_data();
    void debug_output();

private:
    void run_transitions(bool from_worker_thread);
};

void tst_SM_B::transitions_data()
{
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QStringList>("states");
    QTest::addColumn<QStringList>("emitted");
    QTest::addColumn<QStringList>("printed");
    QTest::addColumn<int>("command");

    const QString UI = QStringLiteral("UpgradeImpossible");
    const QString UP = QStringLiteral("UpgradePossible");
    const QString DR = QStringLiteral("DifferingRevision");
    const QString DD = QStringLiteral("DoDownload");
    const QString UV = QStringLiteral("UploadingVerifying");
    const QString FM = QStringLiteral("FwMatches");
    const QString FD = QStringLiteral("FwDiffers");
    const QString DC = QStringLiteral("DeviceConnected");
    const QString IP = QStringLiteral("InvalidProduct");
    // The three type guards print; the OTP guard never does, the wrong-type guard only for a
    // valid read-out, and the first guard that holds ends the search.
    const QStringList older_checks{check(1, 3), check(1, 3)};
    const QStringList same_checks{check(1, 3), check(1, 3), check(1, 3)};
    const int none = SM_A::None;
    const int download = SM_A::Download;
    const int verify = SM_A::UploadVerify;

    QTest::newRow("1 B1-B9: blank OTP, read-out invalid")
        << QStringList{"unit:blank_unread", "DevConn"} << QStringList{"B1", "B9"}
        << QStringList{UI, DC, UI, DR} << QStringList{} << none;
    QTest::newRow("1 B1-B9: blank OTP, read-out valid")
        << QStringList{"unit:blank", "DevConn"} << QStringList{"B1", "B9"}
        << QStringList{UI, DC, UI, DR} << QStringList{} << none;
    QTest::newRow("2 B1-B8: other product, its revision not compared")
        << QStringList{"unit:other", "DevConn"} << QStringList{"B1", "B8"}
        << QStringList{UI, DC, IP} << QStringList{check(1, 4)} << none;
    QTest::newRow("2 B1-B8: record without a product")
        << QStringList{"unit:no_product", "DevConn"} << QStringList{"B1", "B8"}
        << QStringList{UI, DC, IP} << QStringList{check(1, 0)} << none;
    QTest::newRow("3 B1-B2: older revision")
        << QStringList{"unit:older", "DevConn"} << QStringList{"B1", "B2"}
        << QStringList{UI, DC, UP, DR} << older_checks << none;
    QTest::newRow("3 B1-B2: revision unknown")
        << QStringList{"unit:no_revision", "DevConn"} << QStringList{"B1", "B2"}
        << QStringList{UI, DC, UP, DR} << older_checks << none;
    QTest::newRow("4 B1-B4: same revision, verified without a download")
        << QStringList{"unit:same", "DevConn"} << QStringList{"B1", "B4"} << QStringList{UI, DC, UV}
        << same_checks << verify;
    QTest::newRow("B1 drops a read-out that is invalid and not blank")
        << QStringList{"unit:unread", "DevConn"} << QStringList{"B1"} << QStringList{UI}
        << QStringList{check(0, 0), check(0, 0)} << none;

    QTest::newRow("5 B2-B3: install")
        << QStringList{"unit:older", "DevConn", "click"} << QStringList{"B1", "B2", "B3"}
        << QStringList{UI, DC, UP, DR, DD} << older_checks << download;
    QTest::newRow("6 B2-B1: unit pulled")
        << QStringList{"unit:older", "DevConn", "NoDevConn"} << QStringList{"B1", "B2", "B1"}
        << QStringList{UI, DC, UP, DR, UI} << older_checks << none;
    QTest::newRow("7 B3-B1: worker's next cycle after the download")
        << QStringList{"unit:older", "DevConn", "click", "NoDevConn"}
        << QStringList{"B1", "B2", "B3", "B1"} << QStringList{UI, DC, UP, DR, DD, UI}
        << older_checks << download;
    QTest::newRow("8 B4-B6: read-back matches")
        << QStringList{"unit:same", "DevConn", "FwUploadedMatches"} << QStringList{"B1", "B4", "B6"}
        << QStringList{UI, DC, UV, FM} << same_checks << verify;
    QTest::newRow("9 B4-B7: read-back differs")
        << QStringList{"unit:same", "DevConn", "FwUploadedDiffers"} << QStringList{"B1", "B4", "B7"}
        << QStringList{UI, DC, UV, UP, FD} << same_checks << verify;
    QTest::newRow("10 B6-B1: unit pulled after success")
        << QStringList{"unit:same", "DevConn", "FwUploadedMatches", "NoDevConn"}
        << QStringList{"B1", "B4", "B6", "B1"} << QStringList{UI, DC, UV, FM, UI} << same_checks
        << verify;
    QTest::newRow("11 B7-B3: install again")
        << QStringList{"unit:same", "DevConn", "FwUploadedDiffers", "click"}
        << QStringList{"B1", "B4", "B7", "B3"} << QStringList{UI, DC, UV, UP, FD, DD} << same_checks
        << download;
    QTest::newRow("12 B7-B1: unit pulled after a mismatch")
        << QStringList{"unit:same", "DevConn", "FwUploadedDiffers", "NoDevConn"}
        << QStringList{"B1", "B4", "B7", "B1"} << QStringList{UI, DC, UV, UP, FD, UI} << same_checks
        << verify;
    QTest::newRow("13 B8-B1: other product pulled")
        << QStringList{"unit:other", "DevConn", "NoDevConn"} << QStringList{"B1", "B8", "B1"}
        << QStringList{UI, DC, IP, UI} << QStringList{check(1, 4)} << none;
    QTest::newRow("14 B9-B3: install on a blank unit")
        << QStringList{"unit:blank", "DevConn", "click"} << QStringList{"B1", "B9", "B3"}
        << QStringList{UI, DC, UI, DR, DD} << QStringList{} << download;
    QTest::newRow("15 B9-B1: blank unit pulled")
        << QStringList{"unit:blank", "DevConn", "NoDevConn"} << QStringList{"B1", "B9", "B1"}
        << QStringList{UI, DC, UI, DR, UI} << QStringList{} << none;

    QTest::newRow("second install click in B3 is dropped")
        << QStringList{"unit:older", "DevConn", "click", "click"} << QStringList{"B1", "B2", "B3"}
        << QStringList{UI, DC, UP, DR, DD, DD} << older_checks << download;
    QTest::newRow("B4 stays when the unit is pulled")
        << QStringList{"unit:same", "DevConn", "NoDevConn"} << QStringList{"B1", "B4"}
        << QStringList{UI, DC, UV} << same_checks << verify;
    QTest::newRow("install click without a unit is dropped")
        << QStringList{"click"} << QStringList{"B1"} << QStringList{UI, DD} << QStringList{}
        << none;
    QTest::newRow("worker signals a state does not await are dropped, guards only in B1")
        << QStringList{"unit:older", "NoDevConn", "FwUploadedMatches",
                       "DevConn",    "DevConn",   "FwUploadedDiffers"}
        << QStringList{"B1", "B2"} << QStringList{UI, DC, UP, DR} << older_checks << none;
    QTest::newRow("whole upgrade: no user action after the click")
        << QStringList{"unit:older", "DevConn",           "click",    "NoDevConn", "unit:same",
                       "DevConn",    "FwUploadedMatches", "NoDevConn"}
        << QStringList{"B1", "B2", "B3", "B1", "B4", "B6", "B1"}
        << QStringList{UI, DC, UP, DR, DD, UI, DC, UV, FM, UI} << (older_checks + same_checks)
        << verify;
}

void tst_SM_B::transitions()
{
    run_transitions(false);
}

void tst_SM_B::run_transitions(bool from_worker_thread)
{
    QFETCH(QStringList, steps);
    Rig rig;
    QVERIFY(rig.start());

    bool ran = false;
    QStringList printed;
    {
        LogCapture quiet; // the read-out log line is not under test here
        StdoutCapture out;
        ran = rig.run(steps, from_worker_thread);
        printed = out.guard_lines();
    }

    QVERIFY(ran);
    QTEST(rig.states, "states");
    QTEST(rig.emitted, "emitted");
    QTEST(printed, "printed");
    QTEST(static_cast<int>(rig.worker.get_command()), "command");
}

void tst_SM_B::device_info_is_copied_before_the_unit_is_announced()
{
    Rig rig;
    QVERIFY(rig.start());
    QString revision_seen;
    QString name_seen;
    connect(&rig.machine, &SM_B::sig_DeviceConnected, this, [&] {
        revision_seen = rig.machine.device_info.FW_revision;
        name_seen = rig.machine.device_info.OTP_info.product_name();
    });

    LogCapture log;
    StdoutCapture out;
    const bool ran = rig.run({"unit:older", "DevConn"}, false);
    out.guard_lines();
    QVERIFY(ran);
    QCOMPARE(revision_seen, QStringLiteral("2.2.0"));
    QCOMPARE(name_seen, Device::ProductInfo{Device::Kestrel}.product_name());
    QCOMPARE(LogCapture::lines(), QStringList{"I: Device connected with:"});
    QCOMPARE(LogCapture::full().first(),
             QStringLiteral("Device connected with:\n ") + QString(unit("older")));

    // The machine keeps its own copy while the worker starts its next cycle ...
    rig.worker.device_info = DFU::DeviceInfo();
    QCOMPARE(rig.machine.device_info.FW_revision, QStringLiteral("2.2.0"));
    // ... and forgets the unit when it is gone.
    QVERIFY(rig.run({"NoDevConn"}, false));
    QVERIFY(!rig.machine.device_info.valid);
    QVERIFY(rig.machine.device_info.FW_revision.isEmpty());
}

void tst_SM_B::no_program_wide_worker_drops_the_read_out()
{
    Rig rig;
    QVERIFY(rig.start());
    sm_A = nullptr;
    StdoutCapture out;
    const bool ran = rig.run({"unit:blank", "DevConn", "unit:same", "DevConn"}, false);
    const QStringList printed = out.guard_lines();
    QVERIFY(ran);
    QCOMPARE(rig.states, QStringList{"B1"});
    QCOMPARE(printed, QStringList{});
}

void tst_SM_B::debug_output_data()
{
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QStringList>("log");

    const auto sig = [](const char* name) {
        return QStringLiteral("D: \"SM_B: /sig_%1\"").arg(QLatin1String(name));
    };
    const auto entered = [](const char* name) {
        return QStringLiteral("D: \"SM_B: entered %1\"").arg(QLatin1String(name));
    };
    const QString B1 = entered("B1: No (DFU-SE) dev. conn.");
    const QString read_out = QStringLiteral("I: Device connected with:");

    // Entry actions are connected before the logging, so a state's signals precede its line.
    QTest::newRow("blank unit: entry into B9 is not logged")
        << QStringList{"unit:blank", "DevConn", "NoDevConn"}
        << QStringList{sig("UpgradeImpossible"),
                       B1,
                       read_out,
                       sig("DeviceConnected"),
                       sig("UpgradeImpossible"),
                       sig("DifferingRevision"),
                       sig("UpgradeImpossible"),
                       B1};
    QTest::newRow("offer, install, verify")
        << QStringList{"unit:older", "DevConn",          "click", "NoDevConn", "unit:same",
                       "DevConn",    "FwUploadedMatches"}
        << QStringList{sig("UpgradeImpossible"),
                       B1,
                       read_out,
                       sig("DeviceConnected"),
                       sig("UpgradePossible"),
                       sig("DifferingRevision"),
                       entered("B2: Conn. to (DFU-SE) dev. with diff. FW rev."),
                       sig("DoDownload"),
                       entered("B3: Upgrading FW"),
                       sig("UpgradeImpossible"),
                       B1,
                       read_out,
                       sig("DeviceConnected"),
                       sig("UploadingVerifying"),
                       entered("B4: Uploading and verifying FW"),
                       sig("FwMatches"),
                       entered("B6: FW in dev. matches")};
    QTest::newRow("mismatch, then another product")
        << QStringList{"unit:same", "DevConn",    "FwUploadedDiffers",
                       "NoDevConn", "unit:other", "DevConn"}
        << QStringList{sig("UpgradeImpossible"),
                       B1,
                       read_out,
                       sig("DeviceConnected"),
                       sig("UploadingVerifying"),
                       entered("B4: Uploading and verifying FW"),
                       sig("UpgradePossible"),
                       sig("FwDiffers"),
                       entered("B7: FW in dev. differs"),
                       sig("UpgradeImpossible"),
                       B1,
                       read_out,
                       sig("DeviceConnected"),
                       sig("InvalidProduct"),
                       entered("B8: Invalid (DFU-SE) dev. conn.")};
}

void tst_SM_B::debug_output()
{
    QFETCH(QStringList, steps);
    QFETCH(QStringList, log);
    Rig rig;
    LogCapture capture;
    rig.machine.enable_debug_output();
    QCOMPARE(LogCapture::lines(), QStringList{"D: SM_B: Add connections to show emitted signals"});
    LogCapture::lines().clear();

    QVERIFY(rig.start());
    StdoutCapture out; // keeps the guards' printout out of the test log
    const bool ran = rig.run(steps, false);
    out.guard_lines();
    QVERIFY(ran);
    QCOMPARE(LogCapture::lines(), log);
}

QTEST_GUILESS_MAIN(tst_SM_B)
#include "tst_sm_b.moc"
