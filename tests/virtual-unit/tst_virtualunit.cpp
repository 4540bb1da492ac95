// The virtual unit end to end: the real dfu-util lists, reads and writes it through the stand-in
// libusb.
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr int imageSize = 573088;
constexpr int flashSize = 0x100000;
constexpr int absentMs = 1000;
const QString defaultSerial = QStringLiteral("3473375A3334");

struct Run
{
    int exitCode = -1;
    QString out;
    QString err;
};

QByteArray randomBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = char(generator.generate() & 0xFF);
    return bytes;
}

QByteArray otpRecord(quint8 type, const QByteArray& qualifiers)
{
    return QByteArray("\x11\x47\x23\x01", 4) + char(type) + qualifiers + QByteArray(8, '\0');
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeAll(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

qsizetype commonPrefix(const QByteArray& a, const QByteArray& b)
{
    qsizetype n = 0;
    while (n < a.size() && n < b.size() && a.at(n) == b.at(n))
        ++n;
    return n;
}

QStringList foundLines(const QString& out)
{
    QStringList lines;
    for (const QString& line : out.split(QLatin1Char('\n')))
        if (line.startsWith(QLatin1String("Found DFU: ")))
            lines << line;
    return lines;
}

QStringList listLines(int devnum, const QString& serial)
{
    const QString names[] = {
        QStringLiteral("@Device Feature/0xFFFF0000/01*004 e"),
        QStringLiteral("@OTP Memory /0x1FFF7800/01*512 e,01*016 e"),
        QStringLiteral("@Option Bytes  /0x1FFFC000/01*016 e"),
        QStringLiteral("@Internal Flash  /0x08000000/04*016Kg,01*064Kg,07*128Kg")};
    QStringList lines;
    for (int alt = 3; alt >= 0; --alt)
        lines << QStringLiteral("Found DFU: [0483:df11] ver=2200, devnum=%1, cfg=1, intf=0, "
                                "path=\"1-2.4\", alt=%2, name=\"%3\", serial=\"%4\"")
                     .arg(devnum)
                     .arg(alt)
                     .arg(names[3 - alt], serial);
    return lines;
}

} // namespace

class tst_VirtualUnit final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void listing_data();
    void listing();
    void upload_data();
    void upload();
    void downloadWritesFlashThenUnitReenumerates();
    void faults_data();
    void faults();
    void faultArmedOnceFiresOnce();
    void generatedImageCarriesRevision();
    void badControlInputLeavesUnitAlone_data();
    void badControlInputLeavesUnitAlone();

private:
    Run run(const QString& program, const QStringList& args, bool withUnit = true);
    Run dfuUtil(const QStringList& args, bool withUnit = true);
    Run control(const QStringList& args);
    void setUp(const QStringList& commands);
    QStringList expand(QStringList args) const;
    int listedLines();

    QTemporaryDir m_temp;
    QString m_unit;
    QString m_firmware;
    QString m_oldFirmware;
    QString m_out;
    QByteArray m_image;
    int m_count = 0;
};

void tst_VirtualUnit::initTestCase()
{
    QVERIFY(m_temp.isValid());
    QVERIFY2(QFile::exists(QStringLiteral(DFU_UTIL)), "dfu-util is not installed");
    m_image = randomBytes(imageSize, 1);
    m_firmware = m_temp.filePath(QStringLiteral("firmware.bin"));
    m_oldFirmware = m_temp.filePath(QStringLiteral("old.bin"));
    QVERIFY(writeAll(m_firmware, m_image));
    QVERIFY(writeAll(m_oldFirmware, randomBytes(flashSize, 2)));
}

void tst_VirtualUnit::init()
{
    m_unit = m_temp.filePath(QStringLiteral("unit%1").arg(++m_count));
    m_out = m_temp.filePath(QStringLiteral("upload%1.bin").arg(m_count));
}

Run tst_VirtualUnit::run(const QString& program, const QStringList& args, bool withUnit)
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (program == QLatin1String(DFU_UTIL))
        env.insert(QStringLiteral("LD_LIBRARY_PATH"), QStringLiteral(VIRTUAL_USB_DIR));
    env.remove(QStringLiteral("LUMAXIS_VIRTUAL_UNIT_TRACE"));
    if (withUnit)
        env.insert(QStringLiteral("LUMAXIS_VIRTUAL_UNIT"), m_unit);
    else
        env.remove(QStringLiteral("LUMAXIS_VIRTUAL_UNIT"));
    process.setProcessEnvironment(env);
    process.start(program, args);
    Run result;
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
        return result;
    result.exitCode = process.exitCode();
    result.out = QString::fromLocal8Bit(process.readAllStandardOutput());
    result.err = QString::fromLocal8Bit(process.readAllStandardError());
    return result;
}

Run tst_VirtualUnit::dfuUtil(const QStringList& args, bool withUnit)
{
    return run(QStringLiteral(DFU_UTIL), expand(args), withUnit);
}

Run tst_VirtualUnit::control(const QStringList& args)
{
    return run(QStringLiteral(VIRTUAL_UNIT_CONTROL), expand(args));
}

// Rows name the working files by placeholder, since paths exist only once the test runs.
QStringList tst_VirtualUnit::expand(QStringList args) const
{
    for (QString& arg : args) {
        arg.replace(QLatin1String("%firmware"), m_firmware);
        arg.replace(QLatin1String("%old"), m_oldFirmware);
        arg.replace(QLatin1String("%out"), m_out);
        arg.replace(QLatin1String("%unit"), m_unit);
    }
    return args;
}

void tst_VirtualUnit::setUp(const QStringList& commands)
{
    for (const QString& command : commands) {
        const Run r = control(command.split(QLatin1Char(' ')));
        QVERIFY2(r.exitCode == 0, qPrintable(command + QLatin1String(": ") + r.err));
    }
}

int tst_VirtualUnit::listedLines()
{
    return int(
        foundLines(
            dfuUtil({QStringLiteral("-d"), QStringLiteral("0483"), QStringLiteral("-l")}).out)
            .size());
}

void tst_VirtualUnit::listing_data()
{
    QTest::addColumn<QStringList>("setup");
    QTest::addColumn<bool>("withVariable");
    QTest::addColumn<QStringList>("serials");
    QTest::addColumn<int>("devnum"); // 0: the exact lines are not compared

    const QString fast = QStringLiteral("create --timing fast");
    QTest::newRow("one unit") << QStringList{fast} << true << QStringList{defaultSerial} << 7;
    QTest::newRow("own serial") << QStringList{fast + QLatin1String(" --serial 0123456789AB")}
                                << true << QStringList{QStringLiteral("0123456789AB")} << 7;
    QTest::newRow("unplugged") << QStringList{fast, QStringLiteral("unplug")} << true
                               << QStringList{} << 0;
    // Each enumeration gets a new address from the host.
    QTest::newRow("plugged again")
        << QStringList{fast, QStringLiteral("unplug"), QStringLiteral("plug")} << true
        << QStringList{defaultSerial} << 9;
    QTest::newRow("no state folder") << QStringList{} << true << QStringList{} << 0;
    QTest::newRow("variable unset") << QStringList{fast} << false << QStringList{} << 0;
    QTest::newRow("second unit") << QStringList{fast,
                                                QStringLiteral("inject --second-unit 3473375A3335")}
                                 << true
                                 << QStringList{QStringLiteral("3473375A3335"), defaultSerial} << 0;
}

void tst_VirtualUnit::listing()
{
    QFETCH(QStringList, setup);
    QFETCH(bool, withVariable);
    QFETCH(QStringList, serials);
    QFETCH(int, devnum);
    setUp(setup);

    const Run r =
        dfuUtil({QStringLiteral("-d"), QStringLiteral("0483"), QStringLiteral("-l")}, withVariable);
    QCOMPARE(r.exitCode, 0);
    QVERIFY(r.out.startsWith(QLatin1String("dfu-util 0.11\n")));
    const QStringList lines = foundLines(r.out);
    QCOMPARE(lines.size(), serials.size() * 4);
    for (int i = 0; i < lines.size(); ++i)
        QVERIFY2(lines[i].endsWith(QStringLiteral("serial=\"%1\"").arg(serials[i / 4])),
                 qPrintable(lines[i]));
    // The exact lines a real unit gives: the program's listing parser depends on them.
    if (devnum)
        QCOMPARE(lines, listLines(devnum, serials.first()));
}

void tst_VirtualUnit::upload_data()
{
    QTest::addColumn<QStringList>("setup");
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray blank512(512, char(0xFF));
    const QStringList otp{QStringLiteral("-a"), QStringLiteral("2"), QStringLiteral("-s"),
                          QStringLiteral("0x1FFF7800:512")};
    QTest::newRow("OTP record") << QStringList{QStringLiteral(
                                       "create --timing fast --type 3 --qualifiers 010203")}
                                << otp
                                << otpRecord(3, QByteArray("\x01\x02\x03", 3)) + blank512.left(496);
    QTest::newRow("blank OTP area")
        << QStringList{QStringLiteral("create --timing fast --blank-otp")} << otp << blank512;
    // The OTP area file holds 528 bytes (with the lock block); an upload of 512 stops before it.
    QByteArray lastSlot = blank512;
    lastSlot.replace(496, 16, otpRecord(0x2B, QByteArray(3, char(0xFF))));
    QTest::newRow("OTP area from a file")
        << QStringList{QStringLiteral("create --timing fast --otp %unit-otp.bin")} << otp
        << lastSlot;

    const QStringList create{QStringLiteral("create --timing fast --firmware %firmware")};
    const auto flash = [](const QString& range) {
        return QStringList{QStringLiteral("-a"), QStringLiteral("0"), QStringLiteral("-s"), range};
    };
    QTest::newRow("information block")
        << create << flash(QStringLiteral("0x08000000:2048")) << m_image.left(2048);
    QTest::newRow("whole image") << create << flash(QStringLiteral("0x08000000:573088")) << m_image;
    QTest::newRow("past the image's end")
        << create << flash(QStringLiteral("0x0808BE00:1024"))
        << m_image.mid(0x8BE00) + QByteArray(1024 - (imageSize - 0x8BE00), char(0xFF));
    QTest::newRow("real timing") << QStringList{QStringLiteral("create --firmware %firmware")}
                                 << flash(QStringLiteral("0x08000000:2048")) << m_image.left(2048);
}

void tst_VirtualUnit::upload()
{
    QFETCH(QStringList, setup);
    QFETCH(QStringList, args);
    QFETCH(QByteArray, expected);
    QByteArray lastSlot(512 + 16, char(0xFF));
    lastSlot.replace(496, 16, otpRecord(0x2B, QByteArray(3, char(0xFF))));
    QVERIFY(writeAll(m_unit + QLatin1String("-otp.bin"), lastSlot));
    setUp(setup);

    const Run r = dfuUtil(QStringList{QStringLiteral("-d"), QStringLiteral("0483")} + args +
                          QStringList{QStringLiteral("-U"), m_out});
    QCOMPARE(r.exitCode, 0);
    QVERIFY(r.out.contains(QLatin1String("Upload done.")));
    QCOMPARE(readAll(m_out), expected);
}

void tst_VirtualUnit::downloadWritesFlashThenUnitReenumerates()
{
    setUp({QStringLiteral("create --timing fast --firmware %old --absent-ms %1").arg(absentMs)});
    QElapsedTimer sinceStart;
    sinceStart.start();
    const Run r = dfuUtil({QStringLiteral("-d"), QStringLiteral("0483"), QStringLiteral("-a"),
                           QStringLiteral("0"), QStringLiteral("-s"),
                           QStringLiteral("0x08000000:leave"), QStringLiteral("-D"), m_firmware});
    QCOMPARE(r.exitCode, 0);
    QVERIFY(r.out.contains(QLatin1String("File downloaded successfully")));
    QVERIFY(r.out.contains(QLatin1String("Submitting leave request...")));

    // Sectors 0-8 (up to 0x080A0000) were erased; the image's tail leaves the rest of
    // sector 8 erased, and sectors 9-11 keep the old contents.
    const QByteArray flash = readAll(m_unit + QLatin1String("/flash.bin"));
    const QByteArray old = readAll(m_oldFirmware);
    QCOMPARE(flash.size(), flashSize);
    QCOMPARE(flash.left(imageSize), m_image);
    QCOMPARE(flash.mid(imageSize, 0xA0000 - imageSize),
             QByteArray(0xA0000 - imageSize, char(0xFF)));
    QCOMPARE(flash.mid(0xA0000), old.mid(0xA0000));

    // Off the bus after leaving DFU mode, then back with the same serial.
    QCOMPARE(listedLines(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(listedLines(), 4, 10 * absentMs);
    QVERIFY(sinceStart.elapsed() >= absentMs);

    const Run readBack = dfuUtil(
        {QStringLiteral("-d"), QStringLiteral("0483"), QStringLiteral("-a"), QStringLiteral("0"),
         QStringLiteral("-s"), QStringLiteral("0x08000000:573088"), QStringLiteral("-U"), m_out});
    QCOMPARE(readBack.exitCode, 0);
    QCOMPARE(readAll(m_out), m_image);
}

void tst_VirtualUnit::faults_data()
{
    QTest::addColumn<QStringList>("setup");
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("error");
    QTest::addColumn<int>("uploaded");     // bytes in the upload file; -1: no file
    QTest::addColumn<int>("flipped");      // offset of the one inverted byte; -1: none
    QTest::addColumn<int>("flashMatches"); // leading image bytes in flash; -1: not checked
    QTest::addColumn<int>("listedAfter");  // "Found DFU" lines afterwards

    const QString create = QStringLiteral("create --timing fast --absent-ms 60000");
    const QString createWithImage = create + QLatin1String(" --firmware %firmware");
    const QStringList upload16k{QStringLiteral("-a"), QStringLiteral("0"),
                                QStringLiteral("-s"), QStringLiteral("0x08000000:16384"),
                                QStringLiteral("-U"), QStringLiteral("%out")};
    const QStringList download{QStringLiteral("-a"), QStringLiteral("0"),
                               QStringLiteral("-s"), QStringLiteral("0x08000000:leave"),
                               QStringLiteral("-D"), QStringLiteral("%firmware")};

    // A failed upload leaves what it had read in the file, and dfu-util says nothing else.
    QTest::newRow("upload fails after 4096 bytes")
        << QStringList{createWithImage,
                       QStringLiteral("inject --fail-after 4096 --direction upload")}
        << upload16k << 74
        << QStringLiteral("dfuse_upload: libusb_control_transfer returned -1 (LIBUSB_ERROR_IO)")
        << 4096 << -1 << -1 << 4;
    QTest::newRow("download-only fault spares uploads")
        << QStringList{createWithImage,
                       QStringLiteral("inject --fail-after 0 --direction download")}
        << upload16k << 0 << QString() << 16384 << -1 << -1 << 4;
    QTest::newRow("upload stalls after 2048 bytes")
        << QStringList{createWithImage, QStringLiteral("inject --stall-after 2048 --stall-ms 100")}
        << upload16k << 74
        << QStringLiteral(
               "dfuse_upload: libusb_control_transfer returned -7 (LIBUSB_ERROR_TIMEOUT)")
        << 2048 << -1 << -1 << 4;
    QTest::newRow("read-back with a flipped byte")
        << QStringList{createWithImage, QStringLiteral("inject --flip-byte 0x08000100")}
        << upload16k << 0 << QString() << 16384 << 0x100 << -1 << 4;
    QTest::newRow("two units") << QStringList{createWithImage,
                                              QStringLiteral("inject --second-unit 3473375A3335")}
                               << upload16k << 74
                               << QStringLiteral("More than one DFU capable USB device found!")
                               << -1 << -1 << -1 << 8;
    QTest::newRow("no unit") << QStringList{createWithImage, QStringLiteral("unplug")} << upload16k
                             << 74 << QStringLiteral("No DFU capable USB device available") << -1
                             << -1 << -1 << 0;

    // 48 chunks of 2048 bytes fit below 100000; the 49th is the one that fails.
    QTest::newRow("download fails after 100000 bytes")
        << QStringList{create, QStringLiteral("inject --fail-after 100000")} << download << 74
        << QStringLiteral("dfuse_download: libusb_control_transfer returned -1 (LIBUSB_ERROR_IO)\n"
                          "dfu-util: Error during download")
        << -1 << -1 << 48 * 2048 << 4;
    QTest::newRow("unplugged mid-download")
        << QStringList{create, QStringLiteral("inject --unplug-after 100000")} << download << 74
        << QStringLiteral(
               "dfuse_download: libusb_control_transfer returned -4 (LIBUSB_ERROR_NO_DEVICE)")
        << -1 << -1 << 48 * 2048 << 0;
    // The image is written in full, yet dfu-util reports failure: the program must verify.
    QTest::newRow("leave's last poll fails")
        << QStringList{create, QStringLiteral("inject --leave-status-fails")} << download << 74
        << QStringLiteral("dfu-util: Error during download get_status") << -1 << -1 << imageSize
        << 0;
}

void tst_VirtualUnit::faults()
{
    QFETCH(QStringList, setup);
    QFETCH(QStringList, args);
    QFETCH(int, exitCode);
    QFETCH(QString, error);
    QFETCH(int, uploaded);
    QFETCH(int, flipped);
    QFETCH(int, flashMatches);
    QFETCH(int, listedAfter);
    setUp(setup);

    const Run r = dfuUtil(QStringList{QStringLiteral("-d"), QStringLiteral("0483")} + args);
    QCOMPARE(r.exitCode, exitCode);
    if (!error.isEmpty())
        QVERIFY2(r.err.contains(error), qPrintable(r.err));
    QCOMPARE(QFile::exists(m_out), uploaded >= 0);
    if (uploaded >= 0) {
        QByteArray expected = m_image.left(uploaded);
        if (flipped >= 0)
            expected[flipped] = char(~expected.at(flipped));
        QCOMPARE(readAll(m_out), expected);
    }
    if (flashMatches >= 0)
        QCOMPARE(commonPrefix(readAll(m_unit + QLatin1String("/flash.bin")), m_image),
                 qsizetype(flashMatches));
    QCOMPARE(listedLines(), listedAfter);
}

// The failed run leaves the unit in dfuUPLOAD-IDLE, as a real one stays; the next run must
// abort that before it can read.
void tst_VirtualUnit::faultArmedOnceFiresOnce()
{
    setUp({QStringLiteral("create --timing fast --firmware %firmware"),
           QStringLiteral("inject --fail-after 2048 --once")});
    const QStringList upload{QStringLiteral("-d"), QStringLiteral("0483"),
                             QStringLiteral("-a"), QStringLiteral("0"),
                             QStringLiteral("-s"), QStringLiteral("0x08000000:8192"),
                             QStringLiteral("-U"), m_out};
    QCOMPARE(dfuUtil(upload).exitCode, 74);
    QCOMPARE(readAll(m_out), m_image.left(2048));
    QVERIFY(QFile::remove(m_out));

    const Run again = dfuUtil(upload);
    QCOMPARE(again.exitCode, 0);
    QVERIFY(again.out.contains(QLatin1String("DFU state(9) = dfuUPLOAD-IDLE")));
    QCOMPARE(readAll(m_out), m_image.left(8192));
}

void tst_VirtualUnit::generatedImageCarriesRevision()
{
    setUp({QStringLiteral("create --timing fast --type 5 --qualifiers 010203 --revision 2.2.1")});
    const Run r = dfuUtil({QStringLiteral("-d"), QStringLiteral("0483"), QStringLiteral("-a"),
                           QStringLiteral("0"), QStringLiteral("-s"),
                           QStringLiteral("0x08000000:2048"), QStringLiteral("-U"), m_out});
    QCOMPARE(r.exitCode, 0);
    const QByteArray block = readAll(m_out).mid(0x200);
    QCOMPARE(block.left(8), QByteArray("\x12\x47\x23\x01\x05\x01\x02\x03", 8));
    QCOMPARE(block.mid(40, 6), QByteArray("2.2.1\0", 6));
}

void tst_VirtualUnit::badControlInputLeavesUnitAlone_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("error");

    QTest::newRow("type beyond a byte")
        << QStringLiteral("create --type 300") << 1 << QStringLiteral("--type is one byte");
    QTest::newRow("missing firmware")
        << QStringLiteral("create --firmware %unit/none.bin") << 1 << QStringLiteral("cannot read");
    QTest::newRow("firmware larger than flash") << QStringLiteral("create --firmware %unit/big.bin")
                                                << 1 << QStringLiteral("more than the 1048576");
    QTest::newRow("image from a file and a revision")
        << QStringLiteral("create --firmware %firmware --revision 2.2.1") << 1
        << QStringLiteral("excludes");
    QTest::newRow("two OTP sources") << QStringLiteral("create --type 3 --blank-otp") << 1
                                     << QStringLiteral("exclude each other");
    QTest::newRow("unknown command")
        << QStringLiteral("frobnicate") << 2 << QStringLiteral("unknown command");
}

void tst_VirtualUnit::badControlInputLeavesUnitAlone()
{
    QFETCH(QString, command);
    QFETCH(int, exitCode);
    QFETCH(QString, error);
    setUp({QStringLiteral("create --timing fast --firmware %firmware")});
    QVERIFY(writeAll(m_unit + QLatin1String("/big.bin"), QByteArray(flashSize + 1, '\0')));
    const QStringList files{QStringLiteral("/unit.conf"), QStringLiteral("/otp.bin"),
                            QStringLiteral("/flash.bin")};
    QList<QByteArray> before;
    for (const QString& file : files)
        before << readAll(m_unit + file);

    const Run r = control(command.split(QLatin1Char(' ')));
    QCOMPARE(r.exitCode, exitCode);
    QVERIFY2(r.err.contains(error), qPrintable(r.err));
    for (int i = 0; i < files.size(); ++i)
        QVERIFY2(readAll(m_unit + files[i]) == before[i], qPrintable(files[i]));
}

QTEST_GUILESS_MAIN(tst_VirtualUnit)
#include "tst_virtualunit.moc"
