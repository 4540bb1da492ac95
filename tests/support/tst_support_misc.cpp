// Platform names, file helpers and text helpers.
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include "common/logcapture.h"
#include "support/support_misc.h"

using support_misc::Platform;

Q_DECLARE_METATYPE(Platform)

class tst_SupportMisc final : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void platform_of_this_build();
    void platform_in_debug_stream_data();
    void platform_in_debug_stream();
    void ensure_file_is_deleted_data();
    void ensure_file_is_deleted();
    void mark_file_executable();
    void mark_missing_file_executable();
    void load_text_file_data();
    void load_text_file();
    void load_text_file_throws_data();
    void load_text_file_throws();
    void remove_carriage_returns_data();
    void remove_carriage_returns();
    void show_resources();

private:
    QString path(const QString& name) const { return dir_->filePath(name); }
    bool write(const QString& name, const QByteArray& bytes) const
    {
        QFile file(path(name));
        return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
    }

    std::unique_ptr<QTemporaryDir> dir_;
};

void tst_SupportMisc::init()
{
    dir_ = std::make_unique<QTemporaryDir>();
    QVERIFY(dir_->isValid());
}

void tst_SupportMisc::platform_of_this_build()
{
#if defined(Q_OS_LINUX)
    const Platform expected = Platform::Linux;
#elif defined(Q_OS_MACOS)
    const Platform expected = Platform::macOS;
#elif defined(Q_OS_WIN)
    const Platform expected = Platform::windows;
#else
    const Platform expected = Platform::unknown;
#endif
    QCOMPARE(support_misc::compiled_for_platform(), expected);
    for (int value = 0; value <= 4; ++value)
        QCOMPARE(support_misc::compiled_for_platform(Platform(value)), Platform(value) == expected);
}

void tst_SupportMisc::platform_in_debug_stream_data()
{
    QTest::addColumn<Platform>("platform");
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QString>("text");

    QTest::newRow("Linux") << Platform::Linux << "default"
                           << R"(Linux "next")";
    QTest::newRow("macOS") << Platform::macOS << "default"
                           << R"(macOS "next")";
    QTest::newRow("windows, lower case") << Platform::windows << "default"
                                         << R"(windows "next")";
    QTest::newRow("unknown") << Platform::unknown << "default"
                             << R"(unknown "next")";
    QTest::newRow("outside the table") << Platform(4) << "default"
                                       << R"( "next")";
    QTest::newRow("no spaces kept") << Platform::macOS << "nospace"
                                    << R"(macOS"next")";
    QTest::newRow("no quotes kept") << Platform::macOS << "noquote"
                                    << R"(macOS next)";
    QTest::newRow("start-up line") << support_misc::compiled_for_platform() << "start-up"
                                   << "Compiled for platform (OS): Linux with 'DEBUG' not defined";
}

void tst_SupportMisc::platform_in_debug_stream()
{
    QFETCH(Platform, platform);
    QFETCH(QString, mode);
    QFETCH(QString, text);

    const LogCapture capture;
    {
        QDebug dbg = qDebug();
        if (mode == QLatin1String("start-up")) {
            dbg << "Compiled for platform (OS):" << platform << "with 'DEBUG'"
                << "not defined";
        } else {
            if (mode == QLatin1String("nospace"))
                dbg.nospace();
            if (mode == QLatin1String("noquote"))
                dbg.noquote();
            // The quoted string after it shows that the stream's settings came back.
            dbg << platform << QStringLiteral("next");
        }
    }
    QCOMPARE(capture.lines(), QStringList{QStringLiteral("debug: ") + text});
}

void tst_SupportMisc::ensure_file_is_deleted_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<bool>("exists_after");

    QTest::newRow("regular file") << "file" << false;
    QTest::newRow("read-only file") << "read-only" << false;
    QTest::newRow("missing") << "missing" << false;
    QTest::newRow("directory kept") << "directory" << true;
}

void tst_SupportMisc::ensure_file_is_deleted()
{
    QFETCH(QString, kind);
    QFETCH(bool, exists_after);

    const QString target = path(QStringLiteral("uploaded_OTP.bin"));
    if (kind == QLatin1String("file") || kind == QLatin1String("read-only"))
        QVERIFY(write(QStringLiteral("uploaded_OTP.bin"), "old upload"));
    if (kind == QLatin1String("read-only"))
        QVERIFY(QFile::setPermissions(target, QFileDevice::ReadOwner | QFileDevice::ReadUser));
    if (kind == QLatin1String("directory"))
        QVERIFY(QDir().mkdir(target));

    const LogCapture capture;
    support_misc::ensure_file_is_deleted(target);
    QCOMPARE(QFileInfo::exists(target), exists_after);
    QCOMPARE(capture.lines(), QStringList());
}

void tst_SupportMisc::mark_file_executable()
{
    const QString tool = path(QStringLiteral("dfu-util"));
    QVERIFY(write(QStringLiteral("dfu-util"), "#!/bin/sh\n"));
    // As extracted from the resources: read-only for everyone.
    const QFileDevice::Permissions read_only = QFileDevice::ReadOwner | QFileDevice::ReadUser |
                                               QFileDevice::ReadGroup | QFileDevice::ReadOther;
    QVERIFY(QFile::setPermissions(tool, read_only));

    const LogCapture capture;
    QVERIFY(support_misc::mark_file_executable(tool));
    QCOMPARE(capture.lines(),
             QStringList{
                 QStringLiteral(R"(debug: Changing file permissions to make it executable: "%1")")
                     .arg(tool)});
    // Mode bits only: the User flags report this process's access, which differs for root.
    const QFileDevice::Permissions mode_bits = ~QFileDevice::Permissions(
        QFileDevice::ReadUser | QFileDevice::WriteUser | QFileDevice::ExeUser);
    QCOMPARE(QFileInfo(tool).permissions() & mode_bits,
             QFileDevice::ReadOwner | QFileDevice::ExeOwner | QFileDevice::ReadGroup |
                 QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::ExeOther);
}

void tst_SupportMisc::mark_missing_file_executable()
{
    const QString tool = path(QStringLiteral("dfu-util"));
    const LogCapture capture;
    QVERIFY(!support_misc::mark_file_executable(tool));
    QCOMPARE(capture.lines(),
             QStringList{QStringLiteral(
                             R"(warning: Failed to mark file (doesn't exist) as executable: "%1")")
                             .arg(tool)});
    QVERIFY(!QFileInfo::exists(tool));
}

void tst_SupportMisc::load_text_file_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("text");

    QTest::newRow("UTF-8, line ends kept") << "a.txt"
                                           << QByteArray("Gr\xc3\xbc\xc3\x9f"
                                                         "e\r\nx\n")
                                           << QString::fromUtf8("Grüße\r\nx\n");
    QTest::newRow("empty") << "empty.txt" << QByteArray() << QString();
    QTest::newRow("resource") << ":resources/sub/utf8.txt" << QByteArray()
                              << QString::fromUtf8("Grüße — ✓\r\nsecond line\n");
}

void tst_SupportMisc::load_text_file()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, text);

    QString file = name;
    if (!name.startsWith(QLatin1Char(':'))) {
        QVERIFY(write(name, bytes));
        file = path(name);
    }
    QCOMPARE(support_misc::load_text_file(file), text);
}

void tst_SupportMisc::load_text_file_throws_data()
{
    QTest::addColumn<QString>("kind");

    QTest::newRow("missing file") << "missing";
    QTest::newRow("missing resource") << "resource";
    QTest::newRow("directory") << "directory";
}

void tst_SupportMisc::load_text_file_throws()
{
    QFETCH(QString, kind);

    QString file = path(QStringLiteral("settings_GUI.json"));
    if (kind == QLatin1String("resource"))
        file = QStringLiteral(":resources/settings_GUI.json");
    if (kind == QLatin1String("directory"))
        file = dir_->path();

    try {
        support_misc::load_text_file(file);
        QFAIL("no exception");
    } catch (const QString& message) {
        QCOMPARE(message, QStringLiteral("Couldn't open file: ") + file);
    }
}

void tst_SupportMisc::remove_carriage_returns_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QChar>("c");
    QTest::addColumn<QString>("result");

    const QChar cr(13);
    QTest::newRow("none present") << "a\nb" << cr << "a\nb";
    QTest::newRow("CR LF") << "a\r\nb" << cr << "a\nb";
    QTest::newRow("every one") << "\ra\r\r\nb\r" << cr << "a\nb";
    QTest::newRow("only CRs") << "\r\r" << cr << "";
    QTest::newRow("empty") << "" << cr << "";
    QTest::newRow("exact character") << "xXx" << QChar(u'x') << "X";
}

void tst_SupportMisc::remove_carriage_returns()
{
    QFETCH(QString, text);
    QFETCH(QChar, c);
    QFETCH(QString, result);

    QCOMPARE(support_misc::remove_carriage_returns(text, c), result);
}

void tst_SupportMisc::show_resources()
{
    const LogCapture capture;
    support_misc::show_resources();
    QStringList lines = capture.lines();
    lines.sort();
    QCOMPARE(lines, (QStringList{
                        R"(debug: ":resources/dfu-util")",
                        R"(debug: ":resources/firmware.bin")",
                        R"(debug: ":resources/firmware.dfu")",
                        R"(debug: ":resources/sub")",
                        R"(debug: ":resources/sub/utf8.txt")",
                    }));
}

QTEST_GUILESS_MAIN(tst_SupportMisc)
#include "tst_support_misc.moc"
