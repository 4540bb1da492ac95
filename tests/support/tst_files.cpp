// The per-run directory, the file-name table and resource extraction.
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include "common/logcapture.h"
#include "support/files.h"

Q_DECLARE_METATYPE(std::vector<Files::ID>)

namespace {

// Built before main from the name table: must see it filled, whatever the link order.
const QString name_seen_at_static_init = Files::basename.value(Files::dfu_util);

QString in_dir(const QString& name)
{
    return Files::external_dir.path() + QLatin1Char('/') + name;
}

QStringList entries(const QString& dir, const QStringList& filters = {})
{
    return QDir(dir).entryList(filters, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
}

QByteArray resource_bytes(const QString& name)
{
    QFile file(QStringLiteral(":resources/") + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class tst_Files final : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();

    void names_are_ready_before_main();
    void directory_is_made_under_temp_path();
    void extract_data();
    void extract();
    void extracted_copy_is_exact_and_read_only();
    void unusable_temp_path_data();
    void unusable_temp_path();
};

void tst_Files::cleanup()
{
    // Every test starts from an empty directory and the seven-row table.
    for (const QString& name : entries(Files::external_dir.path()))
        QFile::remove(in_dir(name));
    for (const Files::ID id : Files::basename.keys()) {
        if (id < Files::dfu_util || id > Files::uploaded_OTP_bin)
            Files::basename.remove(id);
    }
}

void tst_Files::names_are_ready_before_main()
{
    QCOMPARE(name_seen_at_static_init, QStringLiteral("dfu-util"));
}

void tst_Files::directory_is_made_under_temp_path()
{
    QVERIFY(Files::external_dir.isValid());
    const QFileInfo dir(Files::external_dir.path());
    QVERIFY(dir.isDir());
    QCOMPARE(dir.absolutePath(), QDir::tempPath());
    QVERIFY(dir.fileName().startsWith(QStringLiteral("upgrade_")));
    QCOMPARE(dir.fileName().size(), 14);
}

void tst_Files::extract_data()
{
    QTest::addColumn<std::vector<Files::ID>>("ids");
    QTest::addColumn<bool>("strict");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("log");
    QTest::addColumn<QStringList>("files");

    const std::vector<Files::ID> start_up{Files::desired_FW_dfu, Files::desired_FW_bin,
                                          Files::dfu_util, Files::libusb};
    // The test bundle has no library, so the start-up list meets one missing resource.
    const QStringList start_up_log{
        R"(debug: Extracted  "firmware.dfu")",
        R"(debug: Extracted  "firmware.bin")",
        R"(debug: Extracted  "dfu-util")",
        R"(info: Failed to extract  "libusb-1.0.so.0")",
    };
    const QStringList start_up_files{"dfu-util", "firmware.bin", "firmware.dfu"};

    QTest::newRow("all present") << std::vector<Files::ID>{Files::dfu_util, Files::desired_FW_bin}
                                 << true << true
                                 << QStringList{R"(debug: Extracted  "dfu-util")",
                                                R"(debug: Extracted  "firmware.bin")"}
                                 << QStringList{"dfu-util", "firmware.bin"};
    QTest::newRow("missing resource skipped, strict")
        << start_up << true << false << start_up_log << start_up_files;
    QTest::newRow("missing resource skipped, lenient")
        << start_up << false << true << start_up_log << start_up_files;
    QTest::newRow("same file twice")
        << std::vector<Files::ID>{Files::dfu_util, Files::dfu_util} << true << false
        << QStringList{R"(debug: Extracted  "dfu-util")", R"(info: Failed to extract  "dfu-util")"}
        << QStringList{"dfu-util"};
    QTest::newRow("same file twice, lenient")
        << std::vector<Files::ID>{Files::dfu_util, Files::dfu_util} << false << true
        << QStringList{R"(debug: Extracted  "dfu-util")", R"(info: Failed to extract  "dfu-util")"}
        << QStringList{"dfu-util"};
    QTest::newRow("file only the tool writes")
        << std::vector<Files::ID>{Files::uploaded_OTP_bin} << true << false
        << QStringList{R"(info: Failed to extract  "uploaded_OTP.bin")"} << QStringList{};
    QTest::newRow("identifier outside the table")
        << std::vector<Files::ID>{Files::ID(7), Files::desired_FW_dfu} << true << false
        << QStringList{R"(info: Failed to extract  "")", R"(debug: Extracted  "firmware.dfu")"}
        << QStringList{"firmware.dfu"};
    QTest::newRow("nothing asked")
        << std::vector<Files::ID>{} << true << true << QStringList{} << QStringList{};
}

void tst_Files::extract()
{
    QFETCH(std::vector<Files::ID>, ids);
    QFETCH(bool, strict);
    QFETCH(bool, result);
    QFETCH(QStringList, log);
    QFETCH(QStringList, files);

    const LogCapture capture;
    QCOMPARE(Files::extract_resources(ids, strict), result);
    QCOMPARE(capture.lines(), log);
    QCOMPARE(entries(Files::external_dir.path()), files);
}

void tst_Files::extracted_copy_is_exact_and_read_only()
{
    QVERIFY(Files::extract_resources({Files::desired_FW_bin, Files::dfu_util}, true));

    for (const QString& name : {QStringLiteral("firmware.bin"), QStringLiteral("dfu-util")}) {
        QFile copy(in_dir(name));
        QVERIFY(copy.open(QIODevice::ReadOnly));
        QCOMPARE(copy.readAll(), resource_bytes(name));
        // Resource permissions: readable, neither writable nor executable until marked. Mode bits
        // only: the User flags report this process's access, which differs for root.
        const QFileDevice::Permissions none_of = QFileDevice::WriteOwner | QFileDevice::WriteGroup |
                                                 QFileDevice::WriteOther | QFileDevice::ExeOwner |
                                                 QFileDevice::ExeGroup | QFileDevice::ExeOther;
        QCOMPARE(copy.permissions() & none_of, QFileDevice::Permissions());
    }
}

void tst_Files::unusable_temp_path_data()
{
    QTest::addColumn<QString>("kind");

    QTest::newRow("missing folder") << "missing";
    QTest::newRow("regular file") << "file";
    QTest::newRow("read-only folder") << "read-only";
    QTest::newRow("folder refusing new entries") << "proc";
}

void tst_Files::unusable_temp_path()
{
    QFETCH(QString, kind);

    QTemporaryDir scratch;
    QVERIFY(scratch.isValid());
    const QString work_dir = scratch.filePath(QStringLiteral("work"));
    QVERIFY(QDir().mkdir(work_dir));

    QString tmpdir;
    if (kind == QLatin1String("missing")) {
        tmpdir = scratch.filePath(QStringLiteral("gone"));
    } else if (kind == QLatin1String("file")) {
        tmpdir = scratch.filePath(QStringLiteral("plain"));
        QFile file(tmpdir);
        QVERIFY(file.open(QIODevice::WriteOnly));
    } else if (kind == QLatin1String("read-only")) {
        if (geteuid() == 0)
            QSKIP("permission bits do not bind the super-user");
        tmpdir = scratch.filePath(QStringLiteral("locked"));
        QVERIFY(QDir().mkdir(tmpdir));
        QVERIFY(QFile::setPermissions(tmpdir, QFileDevice::ReadOwner | QFileDevice::ExeOwner));
    } else {
        tmpdir = QStringLiteral("/proc");
    }
    const QStringList root_before = entries(QStringLiteral("/"), {"upgrade_*"});

    QProcess probe;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TMPDIR"), tmpdir);
    probe.setProcessEnvironment(env);
    probe.setWorkingDirectory(work_dir);
    probe.start(QStringLiteral(EXTRACT_PROBE), {});
    QVERIFY(probe.waitForFinished());
    QCOMPARE(probe.exitStatus(), QProcess::NormalExit);
    QCOMPARE(probe.exitCode(), 0);

    const QStringList lines =
        QString::fromUtf8(probe.readAllStandardOutput()).split(QLatin1Char('\n'));
    QCOMPARE(lines.size(), 5);
    const QRegularExpression failure(
        QStringLiteral(R"(^info: Failed to create temporary directory: ".+"$)"));
    QVERIFY2(failure.match(lines[0]).hasMatch(), qPrintable(lines[0]));
    QCOMPARE(lines[1], lines[0]);
    QCOMPARE(lines.mid(2), (QStringList{"strict=false", "lenient=false", ""}));

    // Nothing was written anywhere else: not beside the probe, not at the filesystem root.
    QCOMPARE(entries(work_dir), QStringList());
    QCOMPARE(entries(QStringLiteral("/"), {"upgrade_*"}), root_before);
    if (kind == QLatin1String("missing"))
        QVERIFY(!QFileInfo::exists(tmpdir));
    if (kind == QLatin1String("file"))
        QCOMPARE(QFileInfo(tmpdir).size(), 0);
}

QTEST_GUILESS_MAIN(tst_Files)
#include "tst_files.moc"
