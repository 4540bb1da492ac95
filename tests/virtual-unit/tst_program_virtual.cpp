// The whole program in real-device mode, offscreen, with the virtual unit in its tool bundle: the
// real dfu-util against a unit made and faulted by the control program, one upgrade per row.
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include "common/filebytes.h"
#include "common/programrun.h"
#include "dfu/listingparser.h"

namespace {

const QString older =
    QStringLiteral("create --type 3 --revision 2.2.0 --timing fast --absent-ms 500");

} // namespace

class tst_ProgramVirtual final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void dfuUtilDirect();
    void upgrade_data();
    void upgrade();

private:
    bool unit(const QString& command);
    bool flashHoldsImage() const;
    int run(const QStringList& arguments, QString* out = nullptr);

    QTemporaryDir m_dir;
    QString m_unit;
    QByteArray m_image;
};

bool tst_ProgramVirtual::unit(const QString& command)
{
    QProcess control;
    control.start(QStringLiteral(VIRTUAL_UNIT_CONTROL),
                  QStringList{QStringLiteral("--dir"), m_unit} + command.split(QLatin1Char(' ')));
    return control.waitForFinished(40000) && control.exitCode() == 0;
}

bool tst_ProgramVirtual::flashHoldsImage() const
{
    return file_bytes(m_unit + QStringLiteral("/flash.bin")).startsWith(m_image);
}

void tst_ProgramVirtual::initTestCase()
{
    QVERIFY(m_dir.isValid());
    m_unit = m_dir.filePath(QStringLiteral("unit"));
    m_image = file_bytes(QStringLiteral(":resources/firmware.bin"));
    QCOMPARE(m_image.size(), 573088);
    // The tool bundle this test links: dfu-util and the virtual libusb, as the program has them.
    for (const char* name : {"dfu-util", "libusb-1.0.so.0", "firmware.dfu"}) {
        const QString target = m_dir.filePath(QString::fromLatin1(name));
        QVERIFY(QFile::copy(QStringLiteral(":resources/") + QLatin1String(name), target));
        QVERIFY(QFile::setPermissions(target, QFile::ReadOwner | QFile::ExeOwner));
    }
}

// Runs the extracted dfu-util against the unit; its exit status (-1 if it hangs) and its output.
int tst_ProgramVirtual::run(const QStringList& arguments, QString* out)
{
    QProcess tool;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LUMAXIS_VIRTUAL_UNIT"), m_unit);
    tool.setProcessEnvironment(environment);
    tool.start(m_dir.filePath(QStringLiteral("dfu-util")), arguments);
    if (!tool.waitForFinished(30000))
        return -1;
    if (out)
        *out = QString::fromLocal8Bit(tool.readAllStandardOutput());
    return tool.exitCode();
}

// The checks that need no window: the listing as the program parses it, and the generated DfuSe
// file, downloaded without an address, leaves the flash holding the raw image.
void tst_ProgramVirtual::dfuUtilDirect()
{
    QVERIFY(unit(QStringLiteral("create --blank-otp --timing fast")));
    QString listing;
    QCOMPARE(run({QStringLiteral("-l")}, &listing), 0);
    const DfuUtilParser parser(listing);
    QCOMPARE(parser.status, DfuUtilParser::one_dfu_device);
    QCOMPARE(parser.serials, QList<QString>{QStringLiteral("3473375A3334")});
    QVERIFY(!flashHoldsImage());
    QCOMPARE(run({QStringLiteral("-a"), QStringLiteral("0"), QStringLiteral("-D"),
                  m_dir.filePath(QStringLiteral("firmware.dfu"))}),
             0);
    QVERIFY(flashHoldsImage());
}

// Each row: control commands that make the unit, then steps split at "|" (as in tests/app/
// tst_e2e.cpp): a text the output must show next, "!text" that it must not show within 2.5 s,
// ">command" for the window (programrun.h), "unit ..." for the control program. Every run ends
// by closing the window.
void tst_ProgramVirtual::upgrade_data()
{
    QTest::addColumn<QStringList>("setup");
    QTest::addColumn<QString>("steps");

    const QString upgrade = QStringLiteral("entered B2|>click|entered B3|entered B1|entered B4|");
    const QString done =
        QStringLiteral("entered B6|>state|install=0 bar=\"Done. Disconnect USB cable.\"");
    const QString differs = QStringLiteral("entered B7|>state|install=1 bar=hidden");
    const auto with = [](const char* inject) {
        return QStringList{older, QStringLiteral("inject ") + QLatin1String(inject)};
    };

    QTest::newRow("complete upgrade") << QStringList{older} << upgrade + done;
    // dfu-util fails the leave although the image is written: the read-back decides.
    QTest::newRow("leave's last poll fails")
        << with("--leave-status-fails --once") << upgrade + done;
    QTest::newRow("read-back differs by one byte")
        << with("--flip-byte 0x08040000 --once") << upgrade + differs;
    QTest::newRow("read-back short") << with("--short-after 300000 --once") << upgrade + differs;
    QTest::newRow("download stalls")
        << with("--stall-after 100000 --stall-ms 1000 --direction download --once")
        << upgrade + differs;
    QTest::newRow("unplugged mid-download")
        << with("--unplug-after 100000 --direction download --once")
        << "entered B2|>click|entered B3|entered B1|unit plug|entered B4|" + differs;
    QTest::newRow("vanishes during verification")
        << with("--unplug-after 4096 --direction upload --once")
        << upgrade + "entered B7|entered B1|unit plug|entered B4|" + done;
    // A unit whose read-out failed is read again only once a scan (one a second) has missed it:
    // the 2.5 s without B2 give the worker that scan before the cable goes back in.
    QTest::newRow("vanishes during OTP read")
        << with("--unplug-after 100 --direction upload --once")
        << QStringLiteral("entered B1|Exit with 74|!entered B2|unit plug|entered B2|>state|"
                          "install=1 bar=hidden");
    QTest::newRow("vanishes during info read")
        << with("--unplug-after 1000 --direction upload --once")
        << QStringLiteral("Exit with 74|entered B2|entered B1|unit plug|entered B2|>state|"
                          "install=1 bar=hidden");
    QTest::newRow("other product")
        << QStringList{QStringLiteral("create --type 4 --revision 2.2.0 --timing fast")}
        << QStringLiteral("entered B8|>state|install=0 bar=hidden");
    // B9 announces itself by its signals only: not upgradable, yet a differing revision.
    QTest::newRow("blank OTP area")
        << QStringList{QStringLiteral("create --blank-otp --timing fast")}
        << QStringLiteral("OTP is blank.|/sig_DeviceConnected|/sig_UpgradeImpossible|"
                          "/sig_DifferingRevision|>state|install=0 bar=hidden");
    QTest::newRow("two units") << with("--second-unit 0123456789AB")
                               << QStringLiteral("entered B1|!/sig_DeviceConnected|>state|"
                                                 "install=0 bar=hidden");
}

void tst_ProgramVirtual::upgrade()
{
    QFETCH(QStringList, setup);
    QFETCH(QString, steps);

    for (const QString& command : setup)
        QVERIFY2(unit(command), qPrintable(command));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LUMAXIS_VIRTUAL_UNIT"), m_unit);
    programrun::ProgramRun program;
    QVERIFY(program.start({QStringLiteral("-S"), QStringLiteral("-l")}, environment));
    for (const QString& step : steps.split(QLatin1Char('|'))) {
        const QString failure = step.startsWith(QLatin1String("unit "))
                                    ? (unit(step.mid(5)) ? QString() : step)
                                    : program.step(step, 30000, 2500);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }
    // The window stays usable, and shows "Done" only when the flash holds the image.
    QVERIFY(program.send(QStringLiteral("state")) >= 0);
    QVERIFY(program.output().contains(QLatin1String("programrun: state visible=1 ")));
    if (program.output().contains(QLatin1String("entered B6")))
        QVERIFY(flashHoldsImage());
    QVERIFY(program.send(QStringLiteral("close")) >= 0);
    QCOMPARE(program.finish(), 0);
}

PROGRAMRUN_TEST_MAIN(tst_ProgramVirtual)

#include "tst_program_virtual.moc"
