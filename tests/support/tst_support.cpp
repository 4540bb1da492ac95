// The per-run directory and resource extraction, and the file helpers built on it.
#include <QProcess>
#include <QTest>

#include "common/filebytes.h"
#include "common/logcapture.h"
#include "support/files.h"
#include "support/support_misc.h"

Q_DECLARE_METATYPE(std::vector<Files::ID>)

namespace {

// Built before main from the name table: must see it filled, whatever the link order.
const QString name_seen_at_static_init = Files::basename.value(Files::dfu_util);

QStringList entries(const QString& dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
}

} // namespace

class tst_Support final : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void extract_data();
    void extract();
    void unusable_temp_path_data();
    void unusable_temp_path();
    void file_helpers();
};

void tst_Support::init()
{
    for (const QString& name : entries(Files::external_dir.path()))
        QFile::remove(Files::working_path(name));
}

void tst_Support::extract_data()
{
    QTest::addColumn<std::vector<Files::ID>>("ids");
    QTest::addColumn<bool>("strict");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("log");

    const std::vector<Files::ID> start_up{Files::desired_FW_dfu, Files::desired_FW_bin,
                                          Files::dfu_util, Files::libusb};
    // The test bundle has no library: the start-up list meets one missing resource.
    const QStringList start_up_log{
        R"(debug: Extracted  "firmware.dfu")", R"(debug: Extracted  "firmware.bin")",
        R"(debug: Extracted  "dfu-util")", R"(info: Failed to extract  "libusb-1.0.so.0")"};
    QTest::newRow("missing resource, strict") << start_up << true << false << start_up_log;
    QTest::newRow("missing resource, lenient") << start_up << false << true << start_up_log;
    QTest::newRow("same file twice is refused")
        << std::vector<Files::ID>{Files::dfu_util, Files::dfu_util} << true << false
        << QStringList{R"(debug: Extracted  "dfu-util")", R"(info: Failed to extract  "dfu-util")"};
}

void tst_Support::extract()
{
    QFETCH(std::vector<Files::ID>, ids);
    QFETCH(bool, strict);
    QFETCH(bool, result);
    QFETCH(QStringList, log);

    const LogCapture capture;
    QCOMPARE(Files::extract_resources(ids, strict), result);
    QCOMPARE(capture.lines(), log);
    for (const QString& name : entries(Files::external_dir.path()))
        QCOMPARE(file_bytes(Files::working_path(name)), file_bytes(":resources/" + name));
    QCOMPARE(name_seen_at_static_init, QStringLiteral("dfu-util"));
}

void tst_Support::unusable_temp_path_data()
{
    QTest::addColumn<QString>("tmpdir"); // relative: made inside a scratch folder

    QTest::newRow("missing folder") << "gone";
    QTest::newRow("folder refusing new entries") << "/proc";
}

// The directory is made at static initialisation, so a probe process runs with the TMPDIR.
void tst_Support::unusable_temp_path()
{
    QFETCH(QString, tmpdir);
    QTemporaryDir scratch;
    QVERIFY(QDir(scratch.path()).mkdir("work"));

    QProcess probe;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TMPDIR"), QDir(scratch.path()).absoluteFilePath(tmpdir));
    probe.setProcessEnvironment(env);
    probe.setWorkingDirectory(scratch.filePath("work"));
    probe.start(QStringLiteral(EXTRACT_PROBE), {});
    QVERIFY(probe.waitForFinished());
    const QStringList lines = QString::fromUtf8(probe.readAllStandardOutput()).split('\n');
    QCOMPARE(lines.size(), 5);
    QVERIFY2(lines[0].startsWith("Failed to create temporary directory: "), qPrintable(lines[0]));
    QCOMPARE(lines.mid(1), (QStringList{lines[0], "strict=0", "lenient=0", ""}));
    // Nothing was written elsewhere: not beside the probe, not at the filesystem root.
    QCOMPARE(entries(scratch.path()), QStringList{"work"});
    QCOMPARE(entries(scratch.filePath("work")), QStringList());
    QCOMPARE(QDir::root().entryList({"upgrade_*"}), QStringList());
}

void tst_Support::file_helpers()
{
    // The extracted tool is read-only until marked; all may then run it.
    QVERIFY(Files::extract_resources({Files::dfu_util}, true));
    const QString tool = Files::working_path("dfu-util");
    QVERIFY(support_misc::mark_file_executable(tool));
    const auto mode = QFileInfo(tool).permissions();
    QVERIFY(mode.testFlags(QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther | QFile::ReadOther));
    QVERIFY(!mode.testAnyFlags(QFile::WriteGroup | QFile::WriteOther));
    QVERIFY(!support_misc::mark_file_executable(tool + "x"));

    // Deletion takes read-only files, never directories.
    support_misc::ensure_file_is_deleted(tool);
    QVERIFY(!QFileInfo::exists(tool));
    support_misc::ensure_file_is_deleted(Files::external_dir.path());
    QVERIFY(QFileInfo(Files::external_dir.path()).isDir());

    try {
        support_misc::load_text_file(tool);
        QFAIL("no exception");
    } catch (const QString& message) {
        QCOMPARE(message, "Couldn't open file: " + tool);
    }
}

QTEST_GUILESS_MAIN(tst_Support)
#include "tst_support.moc"
