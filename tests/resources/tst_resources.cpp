// The embedded files: present at their resource paths, the tool runnable from a plain folder,
// the firmware pair consistent, and every generator deterministic.
#include <QCryptographicHash>
#include <QFile>
#include <QProcess>
#include <QResource>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QByteArray read_all(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Runs a program with an empty environment: no LD_LIBRARY_PATH can help it find its library.
QProcess* run_clean(const QString& program, const QStringList& args, QObject* parent)
{
    auto* p = new QProcess(parent);
    p->setProcessEnvironment(QProcessEnvironment());
    p->start(program, args);
    p->waitForFinished(10000);
    return p;
}

} // namespace

class tst_Resources final : public QObject
{
    Q_OBJECT

private slots:
    void present_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<qint64>("size");
        QTest::newRow("firmware.bin") << ":resources/firmware.bin" << qint64(573088);
        QTest::newRow("firmware.dfu") << ":resources/firmware.dfu" << qint64(573397);
        QTest::newRow("background") << ":resources/background.jpg" << qint64(-1);
        QTest::newRow("layout") << ":resources/settings_GUI.json" << qint64(-1);
        QTest::newRow("regular font") << ":resources/LumaxisSans-Regular.otf" << qint64(-1);
        QTest::newRow("bold font") << ":resources/LumaxisSans-Bold.otf" << qint64(-1);
        QTest::newRow("dfu-util") << ":resources/dfu-util" << qint64(-1);
        QTest::newRow("libusb") << ":resources/libusb-1.0.so.0" << qint64(-1);
    }
    void present()
    {
        QFETCH(QString, path);
        QFETCH(qint64, size);
        QFile f(path);
        QVERIFY2(f.exists(), qPrintable(path));
        if (size >= 0)
            QCOMPARE(f.size(), size);
        else
            QVERIFY(f.size() > 0);
    }

    void layout_is_stored_zlib_compressed()
    {
        QResource layout(QStringLiteral(":resources/settings_GUI.json"));
        QCOMPARE(layout.compressionAlgorithm(), QResource::ZlibCompression);
        QResource firmware(QStringLiteral(":resources/firmware.bin"));
        QCOMPARE(firmware.compressionAlgorithm(), QResource::NoCompression);
    }

    void background_has_window_size()
    {
        const QImage image(QStringLiteral(":resources/background.jpg"));
        QCOMPARE(image.size(), QSize(655, 517));
    }

    void tool_runs_from_a_plain_folder_with_its_own_libusb()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString tool = dir.filePath(QStringLiteral("dfu-util"));
        QVERIFY(QFile::copy(QStringLiteral(":resources/dfu-util"), tool));
        QVERIFY(QFile::copy(QStringLiteral(":resources/libusb-1.0.so.0"),
                            dir.filePath(QStringLiteral("libusb-1.0.so.0"))));
        QFile::setPermissions(tool, QFile::permissions(tool) | QFileDevice::ExeUser);

        QProcess* version = run_clean(tool, {QStringLiteral("-V")}, this);
        QCOMPARE(version->exitStatus(), QProcess::NormalExit);
        QCOMPARE(version->exitCode(), 0);
        QVERIFY(version->readAllStandardOutput().startsWith("dfu-util 0.11"));

        QProcess* ldd = run_clean(QStringLiteral("/usr/bin/ldd"), {tool}, this);
        const QString libs = QString::fromUtf8(ldd->readAllStandardOutput());
        QVERIFY2(libs.contains(QStringLiteral("libusb-1.0.so.0 => ") +
                               dir.filePath(QStringLiteral("libusb-1.0.so.0"))),
                 qPrintable(libs));
    }

    void dfu_file_is_accepted_and_carries_the_raw_image()
    {
        QTemporaryDir dir;
        const QString copy = dir.filePath(QStringLiteral("firmware.dfu"));
        QVERIFY(QFile::copy(QStringLiteral(":resources/firmware.dfu"), copy));
        QProcess* check =
            run_clean(QStringLiteral("/usr/bin/dfu-suffix"), {QStringLiteral("-c"), copy}, this);
        QCOMPARE(check->exitCode(), 0);
        const QByteArray out = check->readAllStandardOutput();
        QVERIFY2(out.contains("Vendor ID:\t0x0483") && out.contains("Product ID:\t0xDF11"),
                 out.constData());

        const QByteArray dfu = read_all(copy);
        const QByteArray raw = read_all(QStringLiteral(":resources/firmware.bin"));
        const int prefixes = 11 + 274 + 8; // file prefix, target prefix, element header
        QCOMPARE(dfu.mid(prefixes, raw.size()), raw);
        QCOMPARE(dfu.size(), prefixes + raw.size() + 16);
    }

    void generators_are_deterministic_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("output");
        QTest::addColumn<QString>("reference");
        QTest::newRow("firmware") << LUMAXIS_IMAGETOOL
                                  << QStringList{"firmware", "--bin", "@/firmware.bin"}
                                  << "firmware.bin"
                                  << ":resources/firmware.bin";
        QTest::newRow("background")
            << LUMAXIS_BACKGROUND << QStringList{"@/background.jpg"} << "background.jpg"
            << ":resources/background.jpg";
        QTest::newRow("fonts") << "/usr/bin/python3"
                               << QStringList{LUMAXIS_MAKE_FONTS,
                                              "--regular",
                                              LUMAXIS_OPEN_SANS "/OpenSans-Regular.ttf",
                                              "--bold",
                                              LUMAXIS_OPEN_SANS "/OpenSans-Bold.ttf",
                                              "--out-dir",
                                              "@"}
                               << "LumaxisSans-Bold.otf"
                               << ":resources/LumaxisSans-Bold.otf";
    }
    void generators_are_deterministic()
    {
        QFETCH(QString, program);
        QFETCH(QStringList, args);
        QFETCH(QString, output);
        QFETCH(QString, reference);
        QTemporaryDir dir;
        for (QString& a : args)
            a.replace(QLatin1Char('@'), dir.path());
        QProcess p;
        p.start(program, args);
        QVERIFY(p.waitForFinished(60000));
        QCOMPARE(p.exitCode(), 0);
        QCOMPARE(
            QCryptographicHash::hash(read_all(dir.filePath(output)), QCryptographicHash::Sha256),
            QCryptographicHash::hash(read_all(reference), QCryptographicHash::Sha256));
    }
};

QTEST_MAIN(tst_Resources)
#include "tst_resources.moc"
