// The embedded files: the tool runs with its own libusb, the firmware pair is consistent, and
// every generator is deterministic.
#include <QProcess>
#include <QtTest>

#include "common/filebytes.h"

namespace {

// Output and exit code, run without environment: no LD_LIBRARY_PATH can help a program.
QPair<QByteArray, int> run(const QString& program, const QStringList& args)
{
    QProcess p;
    // An empty environment, so no locale or setting of ours leaks in; a sanitizer build's
    // options (tools/sanitizers) still have to reach the tools.
    QProcessEnvironment environment;
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"})
        if (qEnvironmentVariableIsSet(name))
            environment.insert(QLatin1String(name), qEnvironmentVariable(name));
    p.setProcessEnvironment(environment);
    p.start(program, args);
    p.waitForFinished(60000);
    return {p.readAllStandardOutput(), p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1};
}

} // namespace

class tst_Resources final : public QObject
{
    Q_OBJECT

private slots:
    void files_work_from_a_plain_folder()
    {
        QTemporaryDir dir;
        for (const QString name : {"dfu-util", "libusb-1.0.so.0", "firmware.dfu"})
            QVERIFY(QFile::copy(":resources/" + name, dir.filePath(name)));
        const QString tool = dir.filePath(QStringLiteral("dfu-util"));
        QFile::setPermissions(tool, QFile::permissions(tool) | QFileDevice::ExeUser);
        QCOMPARE(run(tool, {QStringLiteral("-V")}).first.left(14), "dfu-util 0.11\n");
        const QString libs = run(QStringLiteral("/usr/bin/ldd"), {tool}).first;
        QVERIFY2(libs.contains("libusb-1.0.so.0 => " + dir.filePath("libusb-1.0.so.0")),
                 qPrintable(libs));

        const QString copy = dir.filePath(QStringLiteral("firmware.dfu"));
        QVERIFY(run("/usr/bin/dfu-suffix", {"-c", copy})
                    .first.contains("ID:\t0xDF11\nVendor ID:\t0x0483"));
        // File prefix, target prefix and element header before the image, the suffix after it.
        const QByteArray dfu = file_bytes(copy);
        const QByteArray raw = file_bytes(QStringLiteral(":resources/firmware.bin"));
        QCOMPARE(dfu.mid(11 + 274 + 8, raw.size()), raw);
        QCOMPARE(dfu.size(), 11 + 274 + 8 + raw.size() + 16);
    }

    void generators_are_deterministic_data()
    {
        QTest::addColumn<QString>("command"); // '@' stands for the output folder
        QTest::addColumn<QString>("output");
        QTest::newRow("firmware") << LUMAXIS_IMAGETOOL " firmware --bin @/firmware.bin"
                                  << "firmware.bin";
        QTest::newRow("background") << LUMAXIS_BACKGROUND " @/background.jpg"
                                    << "background.jpg";
        QTest::newRow("fonts") << "/usr/bin/python3 " LUMAXIS_MAKE_FONTS
                                  " --out-dir @ --regular " LUMAXIS_OPEN_SANS
                                  "/OpenSans-Regular.ttf --bold " LUMAXIS_OPEN_SANS
                                  "/OpenSans-Bold.ttf"
                               << "LumaxisSans-Bold.otf";
    }
    void generators_are_deterministic()
    {
        QFETCH(QString, command);
        QFETCH(QString, output);
        QTemporaryDir dir;
        QStringList args = command.replace('@', dir.path()).split(' ');
        QCOMPARE(run(args.takeFirst(), args).second, 0);
        QVERIFY(file_bytes(dir.filePath(output)) == file_bytes(":resources/" + output));
    }
};

QTEST_MAIN(tst_Resources)
#include "tst_resources.moc"
