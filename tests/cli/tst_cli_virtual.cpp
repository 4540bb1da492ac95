// The companion's virtual variant against the virtual unit: the real dfu-util with a unit made and
// faulted by the control program, one run of the companion per row, each ending on its exit
// status, what it printed and what the unit's flash holds.
#include <csignal>
#include <unistd.h>

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include "common/powercuts.h"
#include "common/virtualunit.h"

namespace {

const QString twin = QStringLiteral("205F32845431");
const QString first = QStringLiteral("3473375A3334");
const char* older = "create --type 3 --revision 2.2.0 --timing fast --absent-ms 300";

} // namespace

class tst_CliVirtual final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void commands_data();
    void commands();
    void json_data();
    void json();
    // The record of an upgrade, parsed: the fields a bench keeps.
    void upgrade_record();
    // Two units in turn, the second swapped in while the companion waits for it.
    void repeat();
    // --wait: the unit is plugged in while the companion waits for one.
    void wait_for_unit();
    // Ctrl+C in a terminal reaches the whole process group, dfu-util included, mid-write.
    void interrupt_mid_write();

private:
    bool unit(const QString& command) { return m_unit.control(command); }
    QString flash() const { return m_unit.flash(); }
    void start(QProcess* program, const QStringList& arguments);
    int run(const QStringList& arguments, QString* out, QString* err);

    VirtualUnit m_unit{QStringLiteral(CARRIED_FIRMWARE)};
};

void tst_CliVirtual::initTestCase()
{
    QVERIFY(m_unit.valid());
}

void tst_CliVirtual::start(QProcess* program, const QStringList& arguments)
{
    program->setProcessEnvironment(m_unit.environment());
    program->start(QStringLiteral(CLI_PROGRAM), arguments);
}

int tst_CliVirtual::run(const QStringList& arguments, QString* out, QString* err)
{
    QProcess program;
    start(&program, arguments);
    if (!program.waitForFinished(60000))
        return -1;
    *out = QString::fromUtf8(program.readAllStandardOutput());
    *err = QString::fromUtf8(program.readAllStandardError());
    return program.exitStatus() == QProcess::NormalExit ? program.exitCode() : -2;
}

void tst_CliVirtual::commands_data()
{
    QTest::addColumn<QStringList>("setup");     // control commands after the older unit
    QTest::addColumn<QStringList>("arguments"); // the companion's
    QTest::addColumn<int>("exit");
    QTest::addColumn<QString>("flash");
    QTest::addColumn<QString>("output"); // a pattern standard output or error must match

    const QString current = QStringLiteral("create --firmware CARRIED --timing fast");
    const QString second = QStringLiteral("inject --second-unit ") + twin;
    const auto row = [](const QByteArray& name, QStringList setup, QStringList arguments, int exit,
                        const char* flash, const char* output) {
        QTest::newRow(name.constData()) << setup << arguments << exit << QString::fromLatin1(flash)
                            << QString::fromLatin1(output);
    };
    row("upgrade", {}, {"upgrade"}, 0, "new", "^3473375A3334  2.2.0 -> 2.3.0  done  [0-9.]+ s$");
    row("already current", {current}, {"upgrade"}, 0, "new", "2.3.0 -> 2.3.0  already-current");
    row("--force writes the same revision", {current}, {"upgrade", "--force"}, 0, "new",
        "2.3.0 -> 2.3.0  done");
    row("two units, no --serial", {second}, {"upgrade"}, 4, "old",
        "choose one with --serial or --path:\n  with serial 205F32845431 at path 1-2.3\n"
        "  with serial 3473375A3334 at path 1-2.4");
    // Some bootloaders report one placeholder serial on every unit: the path tells them apart.
    row("two units, one serial, --path", {"inject --second-unit 3473375A3334"},
        {"upgrade", "--path", "1-2.4"}, 0, "new", "^3473375A3334  2.2.0 -> 2.3.0  done");
    row("two units, --serial", {second}, {"upgrade", "--serial", twin}, 0, "new",
        "^205F32845431  2.2.0 -> 2.3.0  done");
    row("--serial of no attached unit", {}, {"upgrade", "--serial", twin}, 3, "old",
        "No unit with serial 205F32845431");
    row("no unit", {"unplug"}, {"upgrade"}, 3, "old", "No unit in bootloader mode");
    row("another product", {"create --type 4 --revision 1.4.0 --timing fast"}, {"upgrade"}, 5,
        "old", "other-product");
    row("blank identity", {"create --blank-otp --timing fast"}, {"upgrade"}, 6, "old",
        "identity area is blank");
    // A transfer error once: the unit is still in its bootloader, written again and proven.
    row("write fails once", {"inject --fail-after 100000 --direction download --once"},
        {"upgrade"}, 0, "new", "writing it once more");
    // The unit fails the leave's last poll after the image was proven: still done.
    row("leave's last poll fails", {"inject --leave-status-fails --once"}, {"upgrade"}, 0, "new",
        "2.2.0 -> 2.3.0  done");
    // The write lands; every read-back lies: written twice, then given up.
    row("read-back differs", {"inject --flip-byte 0x08010000"}, {"upgrade"}, 9, "new",
        "differs from the image at offset 65536 \\(sector 4\\)");
    row("read-back short every time", {"inject --short-after 4096 --direction upload"},
        {"verify"}, 9, "old", "could not be read back in full");
    row("identity read fails", {"inject --fail-after 0 --direction upload"}, {"info"}, 10, "old",
        "failed 3 times");
    row("verify, current", {current}, {"verify"}, 0, "new", "holds the carried image");
    row("verify, older", {}, {"verify"}, 9, "old", "differs");
    row("list, two units", {second}, {"list"}, 0, "old",
        "205F32845431  1-2.3    Vega-5  2.2.0  access ok\n"
        "3473375A3334  1-2.4    Vega-5  2.2.0  access ok");
    row("info", {}, {"info", "--serial", first}, 0, "old", "Firmware:    Vega-5 LinkSync 2.2.0");
    // The cable pulled or the power lost anywhere in an upgrade (common/powercuts.h); run again
    // once the unit is plugged in, the companion proves the image.
    for (const auto& [kind, option] :
         {std::pair{": cable pulled", "--unplug-after"}, {": power lost", "--power-off-after"}})
        for (const auto& [name, where] : power_cuts(m_unit.carried_image().size()))
            row(name + kind, {QStringLiteral("inject %1 %2 --once").arg(option, where), "upgrade",
                              "plug"},
                {"upgrade"}, 0, "new", "  (done|repaired|already-current)  ");
    row("unknown option", {}, {"upgrade", "--all"}, 2, "old", "Unknown option 'all'");
    row("unknown command", {}, {"erase"}, 2, "old", "Unknown command \"erase\"");
    row("help of a command", {}, {"upgrade", "--help"}, 0, "old", "--repeat");
}

void tst_CliVirtual::commands()
{
    QFETCH(QStringList, setup);
    QFETCH(QStringList, arguments);
    QFETCH(int, exit);
    QFETCH(QString, flash);
    QFETCH(QString, output);

    QVERIFY(unit(QString::fromLatin1(older)));
    QString out, err;
    for (const QString& command : setup) {
        // A run before the one checked meets the cut: it may end in write-failed, or done when
        // the image was proven before the leave; either way the unit is gone.
        if (command == QLatin1String("upgrade")) {
            const int first = run({command}, &out, &err);
            QVERIFY2((first == 0 || first == 8) && !file_bytes(m_unit.folder() + "/unit.conf")
                                                       .contains("\nplugged=1"),
                     qPrintable(out + err));
            continue;
        }
        QVERIFY2(unit(command), qPrintable(command));
    }
    m_unit.mark();
    QCOMPARE(run(arguments, &out, &err), exit);
    const QRegularExpression pattern(output, QRegularExpression::MultilineOption);
    QVERIFY2(pattern.match(out).hasMatch() || pattern.match(err).hasMatch(),
             qPrintable(out + err));
    QCOMPARE(this->flash(), flash);
}

void tst_CliVirtual::json_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("list") << "list";
    QTest::newRow("info") << "info";
}

// Parsed as JSON: the same unit seen by list and info.
void tst_CliVirtual::json()
{
    QFETCH(QString, command);
    QVERIFY(unit(QString::fromLatin1(older)));
    QString out, err;
    QCOMPARE(run({command, "--json"}, &out, &err), 0);
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(out.toUtf8(), &error);
    QCOMPARE(error.error, QJsonParseError::NoError);
    if (command == QLatin1String("list")) {
        QCOMPARE(document.array().size(), 1);
        const QJsonObject unit = document.array().first().toObject();
        QCOMPARE(unit.value("serial").toString(), first);
        QCOMPARE(unit.value("revision").toString(), QStringLiteral("2.2.0"));
        QCOMPARE(unit.value("access").toBool(), true);
    } else {
        const QJsonObject info = document.object();
        QCOMPARE(info.value("serial").toString(), first);
        QCOMPARE(info.value("identity").toObject().value("type").toInt(), 3);
        QCOMPARE(info.value("identity").toObject().value("blank").toBool(), false);
        QCOMPARE(info.value("firmware").toObject().value("revision").toString(),
                 QStringLiteral("2.2.0"));
    }
}

// The virtual unit is one unit per state folder: after the first is done, the test makes the
// folder a new unit with another serial, which the companion takes as the next one.
void tst_CliVirtual::upgrade_record()
{
    QVERIFY(unit(QString::fromLatin1(older)));
    QString out, err;
    QCOMPARE(run({"upgrade", "--json"}, &out, &err), 0);
    QCOMPARE(out.count(QLatin1Char('\n')), 1); // one line a unit
    const QJsonObject record = QJsonDocument::fromJson(out.toUtf8()).object();
    QCOMPARE(record.value("serial").toString(), first);
    QCOMPARE(record.value("outcome").toString(), QStringLiteral("done"));
    QCOMPARE(record.value("old_revision").toString() + " " +
                 record.value("new_revision").toString(),
             QStringLiteral("2.2.0 2.3.0"));
    // The read-back's digest is the image's: the proof is in the record.
    QCOMPARE(record.value("read_back").toObject().value("sha256").toString(),
             QString::fromLatin1(
                 QCryptographicHash::hash(m_unit.carried_image(), QCryptographicHash::Sha256)
                     .toHex()));
    QStringList phases, runs;
    for (const QJsonValue& phase : record.value("phases").toArray())
        phases << phase.toObject().value("phase").toString();
    for (const QJsonValue& run : record.value("runs").toArray())
        runs << run.toObject().value("command").toString() + "=" +
                    QString::number(run.toObject().value("exit").toInt());
    QCOMPARE(phases.join(' '), QStringLiteral("identity write verify leave"));
    QCOMPARE(runs.join(' '), QStringLiteral("upload_OTP=0 upload_FW_info=0 download_FW_staying=0 "
                                            "upload_FW=0 upload_FW=0"));
}

void tst_CliVirtual::repeat()
{
    QVERIFY(unit(QString::fromLatin1(older)));
    QProcess program;
    start(&program, {"upgrade", "--repeat"});
    const auto wait_for_lines = [&](int count) {
        QString out;
        for (int i = 0; i < 300 && out.count(QLatin1Char('\n')) < count; ++i) {
            program.waitForReadyRead(200);
            out += QString::fromUtf8(program.readAllStandardOutput());
        }
        return out;
    };
    QString out = wait_for_lines(1);
    QVERIFY2(out.startsWith(first + "  2.2.0 -> 2.3.0  done"), qPrintable(out));
    QVERIFY(unit(QString::fromLatin1(older) + " --serial " + twin));
    out += wait_for_lines(1);
    QVERIFY2(out.contains(twin + "  2.2.0 -> 2.3.0  done"), qPrintable(out));
    QCOMPARE(out.count(QLatin1Char('\n')), 2);
    QCOMPARE(flash(), QStringLiteral("new"));

    // Interrupted while it waits for a third unit: it stops at once, with the units' status.
    QString err;
    for (int i = 0; i < 100 && err.count(QStringLiteral("Waiting for the next unit")) < 2; ++i) {
        program.waitForReadyRead(100);
        err += QString::fromUtf8(program.readAllStandardError());
    }
    ::kill(pid_t(program.processId()), SIGINT);
    QVERIFY(program.waitForFinished(20000));
    QCOMPARE(program.exitCode(), 0);
    err += QString::fromUtf8(program.readAllStandardError());
    QVERIFY2(err.contains("Signal 2: stopping."), qPrintable(err));
}

void tst_CliVirtual::wait_for_unit()
{
    QVERIFY(unit(QString::fromLatin1(older) + " --unplugged"));
    QProcess program;
    start(&program, {"upgrade", "--wait"});
    QVERIFY(!program.waitForFinished(1000));
    QVERIFY(unit(QStringLiteral("plug")));
    QVERIFY(program.waitForFinished(30000));
    QCOMPARE(program.exitCode(), 0);
    QVERIFY(QString::fromUtf8(program.readAllStandardOutput()).contains("2.2.0 -> 2.3.0  done"));
}

void tst_CliVirtual::interrupt_mid_write()
{
    // Slow polls stretch the write to seconds.
    QVERIFY(unit(QString::fromLatin1(older) + " --poll-ms 2"));
    m_unit.mark();
    QProcess program;
    program.setChildProcessModifier([] { ::setpgid(0, 0); });
    start(&program, {"upgrade"});
    QString err;
    for (int i = 0; i < 100 && !err.contains(QStringLiteral("Writing")); ++i) {
        program.waitForReadyRead(100);
        err += QString::fromUtf8(program.readAllStandardError());
    }
    QVERIFY2(err.contains(QStringLiteral("Writing")), qPrintable(err));
    ::kill(-pid_t(program.processId()), SIGINT);
    QVERIFY(program.waitForFinished(60000));
    QCOMPARE(program.exitCode(), 0);
    err += QString::fromUtf8(program.readAllStandardError());
    QVERIFY2(err.contains("the running transfer goes on to its end"), qPrintable(err));
    QVERIFY(QString::fromUtf8(program.readAllStandardOutput()).contains("2.2.0 -> 2.3.0  done"));
    QCOMPARE(flash(), QStringLiteral("new"));
}

QTEST_GUILESS_MAIN(tst_CliVirtual)
#include "tst_cli_virtual.moc"
