// The whole program in simulator mode while its tool, the machine or its own files fail.
#include <signal.h>
#include <sys/resource.h>

#include <QDir>
#include <QFile>
#include <QResource>
#include <QTemporaryDir>
#include <QTest>

#include "common/programrun.h"
#include "simulator/simulator.h"

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
    } else if (fault == "disk full") {
        // Every write past 64 KiB then fails with EFBIG, as on a full disk.
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{64 << 10, 64 << 10};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
}

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
    // that is not there; "child FAULT" (make_fault_in_child); "-" for none. Steps as in
    // programrun.h: a text to see next, ">command" or "kill SIGNAL".
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
    QTest::newRow("temporary folder full")
        << "child disk full"
        << "Failed to extract  \"firmware.dfu\"|Status line: Cannot prepare the tool's files in|"
           ">state|install=0" << 0;
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
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LUMAXIS_FAULT"), kind == "child" ? what : QString());
    environment.insert(QStringLiteral("LUMAXIS_SIMULATOR_STATE"), here.filePath("state"));
    environment.insert(QStringLiteral("LUMAXIS_SIMULATOR_FAST"), QStringLiteral("1"));
    qputenv("LUMAXIS_SIMULATOR_STATE", here.filePath("state").toLocal8Bit());
    QCOMPARE(simulator::sim_setup_prepared_config(QStringLiteral("default")), 0);
    const QString temp = here.filePath(tmpdir.isEmpty() ? "tmp"
                                       : tmpdir == "-"  ? "none/tmp"
                                                        : tmpdir);
    QVERIFY(tmpdir == "-" || QDir().mkpath(temp));
    environment.insert(QStringLiteral("TMPDIR"), temp);
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
    QVERIFY(program.start({"-s", "-l"}, environment));
    for (const QString& step : steps.split(QLatin1Char('|'))) {
        const QString failure = program.step(step, 40000, 2000, 1500);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }
    // The extracted files' folder is private while the program runs and gone after a clean end.
    const QFileInfoList made = QDir(temp).entryInfoList({"upgrade_*"}, QDir::AllEntries);
    QVERIFY(made.size() <= 1 && (made.isEmpty() || (made[0].permissions().toInt() & 0x0077) == 0));
    if (exit_code == 0 && !steps.contains(QLatin1String("kill ")) &&
        !steps.contains(QLatin1String(">close")))
        QVERIFY(program.send(QStringLiteral("close")) >= 0);
    QCOMPARE(program.finish(), exit_code);
    QVERIFY(!program.output().contains(QLatin1String("Done.")) || steps.contains("Done."));
    if (exit_code == 0)
        QVERIFY(QDir(temp).entryList({"upgrade_*"}, QDir::AllEntries).isEmpty());
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
