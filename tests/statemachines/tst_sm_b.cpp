// SM_B fed with worker signals from another thread, as the real worker sends them: states, the
// signals and log lines it emits, what its guards print and which command it leaves the worker.
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <utility>

#include <QMap>
#include <QSignalSpy>
#include <QTemporaryFile>
#include <QTest>
#include <QThread>

#include "common/logcapture.h"
#include "statemachines/sm_a.h"
#include "statemachines/sm_b.h"

namespace {

const QString carried = QStringLiteral("2.3.0");

// Emits one worker signal; DevConn hands over the unit named last in the steps.
using WorkerSignal = std::function<void(SM_A&, const DFU::DeviceInfo&)>;
const QMap<QString, WorkerSignal> worker_signals = {
    {QStringLiteral("DevConn"),
     [](SM_A& w, const DFU::DeviceInfo& unit) { emit w.sig_DevConn(unit); }},
    {QStringLiteral("NoDevConn"), [](SM_A& w, const DFU::DeviceInfo&) { emit w.sig_NoDevConn(); }},
    {QStringLiteral("Matches"),
     [](SM_A& w, const DFU::DeviceInfo&) { emit w.sig_FwUploadedMatches(); }},
    {QStringLiteral("Differs"),
     [](SM_A& w, const DFU::DeviceInfo&) { emit w.sig_FwUploadedDiffers(); }},
};

// Units as the worker would have read them; the carried firmware is Kestrel 2.3.0.
DFU::DeviceInfo unit(const QString& kind)
{
    DFU::DeviceInfo info;
    info.valid = kind != QLatin1String("unread");
    info.OTP_info.empty =
        kind == QLatin1String("blank"); // read-out valid: the OTP guard comes first
    info.type = kind == QLatin1String("other")                                    ? Device::Verdant
                : kind == QLatin1String("same") || kind == QLatin1String("older") ? Device::Kestrel
                                                                                  : Device::Invalid;
    info.OTP_info.product.type = info.type;
    info.FW_revision = kind == QLatin1String("older") ? QStringLiteral("2.2.0") : carried;
    return info;
}

// "UI B1 read" -> the log lines of sig_UpgradeImpossible, entering B1, the read-out.
QStringList log_lines(const QString& tokens)
{
    static const QMap<QString, QString> names = {
        {"UI", "/sig_UpgradeImpossible"},
        {"UP", "/sig_UpgradePossible"},
        {"DR", "/sig_DifferingRevision"},
        {"DD", "/sig_DoDownload"},
        {"UV", "/sig_UploadingVerifying"},
        {"FM", "/sig_FwMatches"},
        {"FD", "/sig_FwDiffers"},
        {"DC", "/sig_DeviceConnected"},
        {"IP", "/sig_InvalidProduct"},
        {"B1", "entered B1: No (DFU-SE) dev. conn."},
        {"B2", "entered B2: Conn. to (DFU-SE) dev. with diff. FW rev."},
        {"B3", "entered B3: Upgrading FW"},
        {"B4", "entered B4: Uploading and verifying FW"},
        {"B6", "entered B6: FW in dev. matches"},
        {"B7", "entered B7: FW in dev. differs"},
        {"B8", "entered B8: Invalid (DFU-SE) dev. conn."},
    };
    QStringList lines{"debug: SM_B: Add connections to show emitted signals"};
    for (const QString& t : tokens.split(' ', Qt::SkipEmptyParts))
        lines << (t == "read" ? QStringLiteral("info: Device connected with:")
                              : QStringLiteral("debug: \"SM_B: %1\"").arg(names.value(t)));
    return lines;
}

struct Rig
{
    SM_A worker{QStringLiteral("firmware.dfu"), QStringLiteral("firmware.bin"),
                QStringLiteral("uploaded_FW.bin")}; // never started
    LogCapture log;
    SM_B machine{&worker, Device::Kestrel, carried};
    QStringList printed; // the guards' lines on stdout
    int delivered = 0;   // worker signals that have reached SM_B

    Rig()
    {
        sm_A = &worker;
        machine.enable_debug_output();
        // Connected after SM_B's relay, so a count here means SM_B has had the signal.
        const auto count = [this] { ++delivered; };
        QObject::connect(&worker, &SM_A::sig_DevConn, &machine, count);
        QObject::connect(&worker, &SM_A::sig_NoDevConn, &machine, count);
        QObject::connect(&worker, &SM_A::sig_FwUploadedMatches, &machine, count);
        QObject::connect(&worker, &SM_A::sig_FwUploadedDiffers, &machine, count);
    }
    ~Rig() { sm_A = nullptr; }

    // Each run of worker signals goes out in one burst before the GUI thread handles any.
    bool run(const QString& steps)
    {
        if (!machine.isRunning()) {
            QSignalSpy started(&machine, &QStateMachine::started);
            machine.start();
            if (!started.wait())
                return false;
        }
        QTemporaryFile out;
        out.open();
        std::fflush(stdout);
        const int saved = ::dup(STDOUT_FILENO);
        ::dup2(out.handle(), STDOUT_FILENO);
        bool ok = true;
        DFU::DeviceInfo current;
        QList<std::pair<WorkerSignal, DFU::DeviceInfo>> burst;
        const auto flush = [&] {
            if (burst.isEmpty())
                return;
            const int expected = delivered + burst.size();
            QScopedPointer<QThread> thread(QThread::create([this, burst] {
                for (const auto& [signal, unit] : burst)
                    signal(worker, unit);
            }));
            thread->start();
            ok = ok && thread->wait(10000) &&
                 QTest::qWaitFor([&] { return delivered >= expected; }, 10000);
            burst.clear();
        };
        for (const QString& step : steps.split(' ')) {
            if (worker_signals.contains(step)) {
                burst.append({worker_signals.value(step), current});
            } else if (step == QLatin1String("click")) {
                flush();
                machine.do_download();
            } else {
                current = unit(step); // the worker moves on without waiting for the flow
            }
        }
        flush();
        std::fflush(stdout);
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
        out.seek(0);
        for (const QByteArray& line : out.readAll().split('\n'))
            if (!line.isEmpty())
                printed << QString::fromUtf8(line);
        return ok;
    }
};

} // namespace

class tst_SM_B final : public QObject
{
    Q_OBJECT

private slots:
    void transitions_data();
    void transitions();
    void read_out_is_known_when_the_unit_is_announced();
};

void tst_SM_B::transitions_data()
{
    QTest::addColumn<QString>("steps");
    QTest::addColumn<QString>("log");
    QTest::addColumn<QString>("checks"); // "valid:type" per guard printout
    QTest::addColumn<int>("command");
    const auto row = [](const char* name, const char* steps, const char* log, const char* checks,
                        int command) { QTest::newRow(name) << steps << log << checks << command; };
    const int none = SM_A::None, download = SM_A::Download, verify = SM_A::UploadVerify;

    // A normal build does not offer an install on a blank unit; entering B9 is not logged.
    row("blank, pulled", "blank DevConn NoDevConn", "UI B1 read DC UI DR UI B1", "", none);
    row("blank, install", "blank DevConn click", "UI B1 read DC UI DR DD B3", "", download);
    row("other product, pulled", "other DevConn NoDevConn", "UI B1 read DC IP B8 UI B1", "1:4",
        none);
    row("unreadable unit and click without a unit dropped", "unread DevConn click", "UI B1 DD",
        "0:0 0:0", none);
    row("older, pulled", "older DevConn NoDevConn", "UI B1 read DC UP DR B2 UI B1", "1:3 1:3",
        none);
    row("install, second click dropped, worker's next cycle", "older DevConn click click NoDevConn",
        "UI B1 read DC UP DR B2 DD B3 DD UI B1", "1:3 1:3", download);
    row("same verified, pull while verifying ignored, pulled after success",
        "same DevConn NoDevConn Matches NoDevConn", "UI B1 read DC UV B4 FM B6 UI B1",
        "1:3 1:3 1:3", verify);
    row("mismatch, install again", "same DevConn Differs click",
        "UI B1 read DC UV B4 UP FD B7 DD B3", "1:3 1:3 1:3", download);
    row("mismatch, pulled", "same DevConn Differs NoDevConn", "UI B1 read DC UV B4 UP FD B7 UI B1",
        "1:3 1:3 1:3", verify);
    // Each announcement is decided on its own record, however far the worker has moved on.
    row("units swapped before the flow caught up", "older DevConn NoDevConn other DevConn",
        "UI B1 read DC UP DR B2 UI B1 read DC IP B8", "1:3 1:3 1:4", none);
    row("signals a state does not await are dropped, guards only in B1",
        "older NoDevConn Matches DevConn DevConn Differs", "UI B1 read DC UP DR B2", "1:3 1:3",
        none);
}

void tst_SM_B::transitions()
{
    QFETCH(QString, steps);
    QFETCH(QString, log);
    QFETCH(QString, checks);
    Rig rig;
    QVERIFY(rig.run(steps));

    QStringList first_lines; // the read-out's first line only
    for (const QString& line : rig.log.lines())
        first_lines << line.section('\n', 0, 0);
    QCOMPARE(first_lines, log_lines(log));
    QStringList printed;
    for (const QString& c : checks.split(' ', Qt::SkipEmptyParts))
        printed << QStringLiteral("device_has_valid_type(3): valid %1, device_type: %2")
                       .arg(c.section(':', 0, 0), c.section(':', 1));
    QCOMPARE(rig.printed, printed);
    QTEST(int(rig.worker.get_command()), "command");
}

// B1's exit runs before the next state's entry: the unit is known when it is announced.
void tst_SM_B::read_out_is_known_when_the_unit_is_announced()
{
    Rig rig;
    QString seen;
    connect(&rig.machine, &SM_B::sig_DeviceConnected, this,
            [&] { seen = rig.machine.device_info.FW_revision; });
    QVERIFY(rig.run(QStringLiteral("older DevConn")));
    QCOMPARE(seen, QStringLiteral("2.2.0"));
    QVERIFY(rig.log.lines().contains(QStringLiteral("info: Device connected with:\n ") +
                                     QString(unit(QStringLiteral("older")))));

    // The machine forgets its copy with the unit.
    QVERIFY(rig.run(QStringLiteral("NoDevConn")));
    QVERIFY(!rig.machine.device_info.valid);
}

QTEST_GUILESS_MAIN(tst_SM_B)
#include "tst_sm_b.moc"
