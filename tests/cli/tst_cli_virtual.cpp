// The companion's virtual variant against the virtual unit: the real dfu-util with a unit made and
// faulted by the control program, one run of the companion per row, each ending on its exit
// status, what it printed and what the unit's flash holds.
#include <csignal>
#include <unistd.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include "common/filebytes.h"

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
    // Two units in turn, the second swapped in while the companion waits for it.
    void repeat();
    // --wait: the unit is plugged in while the companion waits for one.
    void wait_for_unit();
    // Ctrl+C in a terminal reaches the whole process group, dfu-util included, mid-write.
    void interrupt_mid_write();

private:
    bool unit(const QString& command);
    QString flash() const;
    void start(QProcess* program, const QStringList& arguments);
    int run(const QStringList& arguments, QString* out, QString* err);

    QTemporaryDir m_dir;
    QString m_unit;
    QByteArray m_image;
    QByteArray m_before;
};

void tst_CliVirtual::initTestCase()
{
    QVERIFY(m_dir.isValid());
    m_unit = m_dir.filePath(QStringLiteral("unit"));
    m_image = file_bytes(QStringLiteral(CARRIED_FIRMWARE));
    QVERIFY(m_image.size() > 2048);
}

// "--firmware CARRIED" in a command stands for the carried image itself.
bool tst_CliVirtual::unit(const QString& command)
{
    QStringList words = command.split(QLatin1Char(' '));
    words.replaceInStrings(QStringLiteral("CARRIED"), QStringLiteral(CARRIED_FIRMWARE));
    QProcess control;
    control.start(QStringLiteral(VIRTUAL_UNIT_CONTROL), QStringList{"--dir", m_unit} + words);
    return control.waitForFinished(40000) && control.exitCode() == 0;
}

// "old": what the row made; "new": the carried image after a change; "other": neither.
QString tst_CliVirtual::flash() const
{
    const QByteArray now = file_bytes(m_unit + QStringLiteral("/flash.bin"));
    if (now == m_before)
        return QStringLiteral("old");
    return now.startsWith(m_image) ? QStringLiteral("new") : QStringLiteral("other");
}

void tst_CliVirtual::start(QProcess* program, const QStringList& arguments)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LUMAXIS_VIRTUAL_UNIT"), m_unit);
    program->setProcessEnvironment(environment);
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
    const auto row = [](const char* name, QStringList setup, QStringList arguments, int exit,
                        const char* flash, const char* output) {
        QTest::newRow(name) << setup << arguments << exit << QString::fromLatin1(flash)
                            << QString::fromLatin1(output);
    };
    row("upgrade", {}, {"upgrade"}, 0, "new", "^3473375A3334  2.2.0 -> 2.3.0  done  [0-9.]+ s$");
    row("already current", {current}, {"upgrade"}, 0, "old", "2.3.0 -> 2.3.0  already-current");
    row("--force writes the same revision", {current}, {"upgrade", "--force"}, 0, "old",
        "2.3.0 -> 2.3.0  done");
    row("current revision, flash differs", {current, "inject --flip-byte 0x08010000"},
        {"upgrade"}, 9, "old", "--force writes it again");
    row("two units, no --serial", {second}, {"upgrade"}, 4, "old",
        "choose one with --serial:\n  205F32845431\n  3473375A3334");
    row("two units, --serial", {second}, {"upgrade", "--serial", twin}, 0, "new",
        "^205F32845431  2.2.0 -> 2.3.0  done");
    row("--serial of no attached unit", {}, {"upgrade", "--serial", twin}, 3, "old",
        "No unit with serial 205F32845431");
    row("no unit", {"unplug"}, {"upgrade"}, 3, "old", "No unit in bootloader mode");
    row("another product", {"create --type 4 --revision 1.4.0 --timing fast"}, {"upgrade"}, 5,
        "old", "other-product");
    row("blank identity", {"create --blank-otp --timing fast"}, {"upgrade"}, 6, "old",
        "identity area is blank");
    row("pulled mid-write", {"inject --unplug-after 100000 --direction download"}, {"upgrade"},
        8, "other", "write-failed");
    // dfu-util fails the leave's last poll after the whole image went out: the read-back decides.
    row("leave's last poll fails", {"inject --leave-status-fails --once"}, {"upgrade"}, 0, "new",
        "2.2.0 -> 2.3.0  done");
    // The write lands; the read-back lies.
    row("read-back differs", {"inject --flip-byte 0x08010000"}, {"upgrade"}, 9, "new",
        "2.2.0 -> -  verification-failed");
    row("read-back short every time", {"inject --short-after 4096 --direction upload"},
        {"verify"}, 9, "old", "differs from the image, or could not be read");
    row("identity read fails", {"inject --fail-after 0 --direction upload"}, {"info"}, 10, "old",
        "failed 3 times");
    row("verify, current", {current}, {"verify"}, 0, "old", "holds the carried image");
    row("verify, older", {}, {"verify"}, 9, "old", "differs");
    row("list, two units", {second}, {"list"}, 0, "old",
        "205F32845431  Vega-5  2.2.0  access ok\n3473375A3334  Vega-5  2.2.0  access ok");
    row("info", {}, {"info", "--serial", first}, 0, "old", "Firmware:    Vega-5 LinkSync 2.2.0");
    row("unknown option", {}, {"upgrade", "--json"}, 2, "old", "Unknown option 'json'");
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
    for (const QString& command : setup)
        QVERIFY2(unit(command), qPrintable(command));
    m_before = file_bytes(m_unit + QStringLiteral("/flash.bin"));

    QString out, err;
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
    m_before = file_bytes(m_unit + QStringLiteral("/flash.bin"));
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
