// The whole program in simulator mode while its tool, the machine or its own files fail.
#include <cerrno>
#include <cstring>
#include <sys/mount.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QResource>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include "common/programrun.h"
#include "simulator/simulator.h"
#include "support/files.h"

// Faults the child makes before start-up, named by LUMAXIS_FAULT. Outside any namespace, as
// Q_CLEANUP_RESOURCE needs.
static void make_fault_in_child()
{
    const QByteArray fault = qgetenv("LUMAXIS_FAULT");
    if (fault.startsWith("settings")) {
        // The bundle holding the layout file, the firmware and the picture.
        Q_CLEANUP_RESOURCE(resources);
        if (fault == "settings broken")
            QResource::registerResource(QStringLiteral(BROKEN_SETTINGS_RCC));
    }
}

namespace {

// What the extracted files take on a tmpfs, in KiB: whole pages each.
qint64 extracted_kib()
{
    const qint64 page = ::sysconf(_SC_PAGESIZE);
    qint64 kib = 0;
    for (const QString& name : {Files::desired_FW_fileName_dfu, Files::desired_FW_fileName_bin,
                                Files::dfu_util_executable_fileName, Files::libusb_fileName})
        kib += (QFileInfo(":resources/" + name).size() + page - 1) / page * page / 1024;
    return kib;
}

} // namespace

class tst_Faults final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { simulator::setup_for_simulated_dfu_util(simulator::fast_progress); }
    void fault_data();
    void fault();
};

void tst_Faults::fault_data()
{
    // "tool missing", "tool plain" (not executable), "tool WORD:shell commands" run instead of
    // the simulator for that command word; "tmpdir NAME" below the test's folder, "-" for one
    // that is not there; "tmpfs noexec" a tmpfs for it where programs may not run (the program in
    // real-device mode), "tmpfs noexec+cache" with the user's cache folder on it too, "tmpfs
    // full:K" one K KiB larger than the extracted files; "child FAULT" (make_fault_in_child); "-"
    // for none. Steps as in programrun.h, and "companion": the companion's start ends with exit 1
    // and the words of the window's status line.
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("steps");
    QTest::addColumn<int>("exit_code");

    const QString no_unit =
        QStringLiteral("status was ok and output: \"\"|/sig_NoDevConn|>state|install=0");
    const QString fatal = QStringLiteral("No message with id 'status_noDev' found, aborting");
    QTest::newRow("tool crashes listing") << "tool list:kill -SEGV $$"
                                          << "Exit with -1 from|>state|install=0" << 0;
    QTest::newRow("tool crashes reading OTP") << "tool upload_OTP:kill -SEGV $$"
                                              << "Exit with -1 from|>state|install=0" << 0;
    // The read-out after the download decides, and it finds the old revision.
    QTest::newRow("tool crashes downloading")
        << "tool download_FW:kill -SEGV $$"
        << "entered B2|>click|Exit with -1 from|entered B1|entered B2|>state|install=1 bar=hidden"
        << 0;
    // Past the runner's 30 s the window still answers. Escape and closing wait for the write,
    // which is never killed: the window says so and closes itself once the tool has ended.
    QTest::newRow("tool hangs") << "tool download_FW:exec sleep 34"
                                << "entered B2|>click|did not finish in time|will wait again|>state|"
                                   ">key Escape|Oops, SM_A not dead yet|"
                                   "Status line: Finishing the running transfer|>close|"
                                   "Closing waits for the running transfer|>state|visible=1|"
                                   "The transfer has ended; closing"
                                << 0;
    QTest::newRow("tool missing") << "tool missing" << no_unit << 0;
    QTest::newRow("tool not executable") << "tool plain" << no_unit << 0;
    QTest::newRow("temporary folder cannot be made")
        << "tmpdir -"
        << "Failed to create temporary directory|Status line: Cannot prepare the tool's files in|"
           ">state|install=0" << 0;
    // Hardened desktops mount /tmp noexec: the tool runs from the user's own folder instead.
    QTest::newRow("temporary folder noexec")
        << "tmpfs noexec" << "cannot run from|copying it to|!may not run from|>state|install=0"
        << 0;
    QTest::newRow("no folder lets the tool run")
        << "tmpfs noexec+cache"
        << "Status line: The tool may not run from|>state|install=0|companion" << 0;
    // Full while extracting, at the first read-out, at the read-back: never an offer or "Done".
    QTest::newRow("temporary folder full: extraction")
        << "tmpfs full:-200"
        << "Failed to extract|Status line: Cannot prepare the tool's files in|"
           ": No space left on device|!Status line:|>state|install=0" << 0;
    QTest::newRow("temporary folder full: read-out")
        << "tmpfs full:0"
        << "attempt 1 of 3|Status line: The folder|>state|install=0" << 0;
    QTest::newRow("temporary folder full: read-back")
        << "tmpfs full:16"
        << "entered B2|>click|/sig_FwUploading|Status line: The folder|>state|bar=hidden" << 0;
    // A logout, kill or Ctrl+C closes the window as the user would: a clean end.
    QTest::newRow("SIGTERM") << "-" << "entered B2|kill TERM|Received signal 15" << 0;
    QTest::newRow("SIGINT") << "-" << "entered B2|kill INT|Received signal 2" << 0;
    QTest::newRow("SIGHUP") << "-" << "entered B2|kill HUP|Received signal 1" << 0;
    QTest::newRow("TMPDIR with blanks and quotes")
        << "tmpdir a b'c\"d"
        << "entered B2|>click|entered B6|>state|bar=\"Done. Disconnect USB cable.\"" << 0;
    QTest::newRow("settings missing") << "child settings missing" << fatal << -1;
    QTest::newRow("settings broken") << "child settings broken" << fatal << -1;
}

void tst_Faults::fault()
{
    QFETCH(QString, fault);
    QFETCH(QString, steps);
    QFETCH(int, exit_code);

    const QString kind = fault.section(QLatin1Char(' '), 0, 0);
    const QString what = fault.section(QLatin1Char(' '), 1);
    const QString tool = kind == QLatin1String("tool") ? what : QString();
    const QString tmpdir = kind == QLatin1String("tmpdir") ? what : QString();
    QTemporaryDir here;
    const QByteArray mount_point = QFile::encodeName(here.filePath("mnt"));
    const auto unmount = qScopeGuard([&] { ::umount2(mount_point.constData(), MNT_DETACH); });
    if (kind == QLatin1String("tmpfs")) {
        const bool noexec = what.startsWith("noexec");
#if defined(__SANITIZE_THREAD__)
        // Its runtime maps a file of its own from TMPDIR, which takes from the sizes.
        if (!noexec)
            QSKIP("ThreadSanitizer keeps a file of its own in TMPDIR");
#endif
        const QByteArray size = "size=" + QByteArray::number(noexec ? 16384
                                                                    : extracted_kib() +
                                                                          what.mid(5).toInt());
        QVERIFY(QDir().mkpath(here.filePath("mnt")));
        if (::mount("tmpfs", mount_point.constData(), "tmpfs", noexec ? MS_NOEXEC : 0,
                    (size + "k").constData()) != 0)
            QSKIP(qPrintable("mounting a tmpfs is not permitted here: " +
                             QString::fromLocal8Bit(std::strerror(errno))));
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LUMAXIS_FAULT"), kind == "child" ? what : QString());
    environment.insert(QStringLiteral("LUMAXIS_SIMULATOR_STATE"), here.filePath("state"));
    environment.insert(QStringLiteral("LUMAXIS_SIMULATOR_FAST"), QStringLiteral("1"));
    qputenv("LUMAXIS_SIMULATOR_STATE", here.filePath("state").toLocal8Bit());
    QCOMPARE(simulator::sim_setup_prepared_config(QStringLiteral("default")), 0);
    const QString temp = here.filePath(kind == "tmpfs"     ? "mnt"
                                       : tmpdir.isEmpty() ? "tmp"
                                       : tmpdir == "-"    ? "none/tmp"
                                                          : tmpdir);
    QVERIFY(tmpdir == "-" || QDir().mkpath(temp));
    environment.insert(QStringLiteral("TMPDIR"), temp);
    const QString cache = here.filePath(what.endsWith("+cache") ? "mnt/cache" : "cache");
    environment.insert(QStringLiteral("XDG_CACHE_HOME"), cache);
    if (!tool.isEmpty()) {
        // A simulator folder of links to the real one's files but for the script.
        const QDir real(simulator::dfu_util_path(QString()));
        QDir fake(here.path());
        QVERIFY(fake.mkdir("sim") && fake.cd("sim"));
        for (const QString& name : real.entryList(QDir::AllEntries | QDir::NoDotAndDotDot))
            if (name != QLatin1String("dfu-util_simulator.sh"))
                QVERIFY(QFile::link(real.filePath(name), fake.filePath(name)));
        const QString word = tool.section(QLatin1Char(':'), 0, 0);
        QFile script(fake.filePath("dfu-util_simulator.sh"));
        if (tool != QLatin1String("missing")) {
            QVERIFY(script.open(QIODevice::WriteOnly));
            script.write(QStringLiteral("#!/bin/sh\n[ \"$2\" = %1 ] || exec '%2' \"$@\"\n%3\n")
                             .arg(word, real.filePath("dfu-util_simulator.sh"),
                                  tool.section(QLatin1Char(':'), 1))
                             .toUtf8());
            script.close();
            if (tool != QLatin1String("plain"))
                QVERIFY(script.setPermissions(script.permissions() | QFile::ExeOwner));
        }
        environment.insert(QStringLiteral("LUMAXIS_SIMULATOR_DIR"), fake.path());
    }

    programrun::ProgramRun program;
    QVERIFY(program.start(what.startsWith("noexec") ? QStringList{"-l"} : QStringList{"-s", "-l"},
                          environment));
    for (const QString& step : steps.split(QLatin1Char('|'))) {
        if (step == QLatin1String("companion")) {
            QProcess companion;
            companion.setProcessEnvironment(environment);
            companion.start(QStringLiteral(COMPANION), {QStringLiteral("list")});
            QVERIFY(companion.waitForFinished());
            const QString said = QString::fromLocal8Bit(companion.readAllStandardError()).trimmed();
            QVERIFY2(program.output().contains("Status line: " + said), qPrintable(said));
            QCOMPARE(companion.exitCode(), 1);
            continue;
        }
        const QString failure = program.step(step, 40000, 2000, 1500);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }
    // The extracted files' folder is private while the program runs and gone after a clean end,
    // with the user's folder for it when it moved there.
    const QString moved = cache + QStringLiteral("/lumaxis-upgrade");
    const QFileInfoList made = QDir(temp).entryInfoList({"upgrade_*"}, QDir::AllEntries) +
                               QDir(moved).entryInfoList({"upgrade_*"}, QDir::AllEntries);
    QVERIFY(made.size() <= 1 && (made.isEmpty() || (made[0].permissions().toInt() & 0x0077) == 0));
    if (exit_code == 0 && !steps.contains(QLatin1String("kill ")) &&
        !steps.contains(QLatin1String(">close")))
        QVERIFY(program.send(QStringLiteral("close")) >= 0);
    QCOMPARE(program.finish(), exit_code);
    QVERIFY(!program.output().contains(QLatin1String("Done.")) || steps.contains("Done."));
    if (exit_code == 0)
        QVERIFY(QDir(temp).entryList({"upgrade_*"}, QDir::AllEntries).isEmpty() &&
                !QFileInfo::exists(moved));
}

int main(int argc, char* argv[])
{
    if (qEnvironmentVariableIsSet(programrun::child_variable)) {
        make_fault_in_child();
        return programrun::child_main(argc, argv);
    }
    QCoreApplication app(argc, argv);
    tst_Faults test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_faults.moc"
