// The look for an attached bootloader that this user may not open, on a faked sysfs and /dev.
#include <sys/stat.h>
#include <unistd.h>

#include <QtTest>

#include "dfu/usbaccess.h"

class tst_usbaccess final : public QObject
{
    Q_OBJECT

    bool dropped_root = false;

private slots:
    void initTestCase();
    void cleanupTestCase();
    void finds_node_not_open_to_user_data();
    void finds_node_not_open_to_user();
};

// Root may write any file, so as root the checks run with the effective ids of nobody.
void tst_usbaccess::initTestCase()
{
    if (geteuid() != 0)
        return;
    if (setegid(65534) != 0 || seteuid(65534) != 0)
        QSKIP("cannot take the ids of nobody to test file permissions as root");
    dropped_root = true;
}

void tst_usbaccess::cleanupTestCase()
{
    if (dropped_root && (seteuid(0) != 0 || setegid(0) != 0))
        qWarning("could not take back the root ids");
}

void tst_usbaccess::finds_node_not_open_to_user_data()
{
    QTest::addColumn<QByteArray>("ids");     // idVendor:idProduct; empty: no device
    QTest::addColumn<QByteArray>("numbers"); // busnum:devnum as sysfs writes them
    QTest::addColumn<int>("node_mode");      // -1: no device node
    QTest::addColumn<QString>("expected");   // below the /dev root
    QTest::addColumn<bool>("listed");        // among the attached bootloaders

    const auto row = [](const char* name, const char* ids, const char* numbers, int mode,
                        const char* expected, bool listed) {
        QTest::newRow(name) << QByteArray(ids) << QByteArray(numbers) << mode
                            << QString::fromLatin1(expected) << listed;
    };
    row("bootloader, node read-only", "0483:df11", "3:12", 0444, "/bus/usb/003/012", true);
    row("bootloader, node open to all", "0483:df11", "3:12", 0666, "", true);
    row("bootloader, node missing", "0483:df11", "3:12", -1, "", false);
    row("bootloader, bus number unreadable", "0483:df11", "x:12", 0444, "", false);
    row("other product of the maker", "0483:5740", "3:12", 0444, "", false);
    row("other maker", "046d:df11", "3:12", 0444, "", false);
    row("no USB in sysfs", "", "", -1, "", false);
}

void tst_usbaccess::finds_node_not_open_to_user()
{
    QFETCH(QByteArray, ids);
    QFETCH(QByteArray, numbers);
    QFETCH(int, node_mode);
    QFETCH(QString, expected);
    QFETCH(bool, listed);

    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QString sys = root.filePath(QStringLiteral("sys"));
    const QString dev = root.filePath(QStringLiteral("dev"));
    const auto write = [](const QString& path, const QByteArray& bytes) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(bytes + '\n');
    };
    if (!ids.isEmpty()) {
        // A hub and an interface entry, which has no ids, sort before the device.
        const QString devices = sys + QStringLiteral("/bus/usb/devices/");
        QVERIFY(QDir().mkpath(devices + QStringLiteral("1-1:1.0")));
        QVERIFY(QDir().mkpath(devices + QStringLiteral("1-1")));
        write(devices + QStringLiteral("1-1/idVendor"), "1d6b");
        write(devices + QStringLiteral("1-1/idProduct"), "0002");
        write(devices + QStringLiteral("1-1/busnum"), "1");
        write(devices + QStringLiteral("1-1/devnum"), "1");

        const QString unit = devices + QStringLiteral("3-2");
        QVERIFY(QDir().mkpath(unit));
        write(unit + QStringLiteral("/idVendor"), ids.split(':').at(0));
        write(unit + QStringLiteral("/idProduct"), ids.split(':').at(1));
        write(unit + QStringLiteral("/busnum"), numbers.split(':').at(0));
        write(unit + QStringLiteral("/devnum"), numbers.split(':').at(1));
        write(unit + QStringLiteral("/serial"), "3473375a3334");
    }
    if (node_mode >= 0) {
        QVERIFY(QDir().mkpath(dev + QStringLiteral("/bus/usb/003")));
        write(dev + QStringLiteral("/bus/usb/003/012"), {});
        QVERIFY(::chmod(QFile::encodeName(dev + QStringLiteral("/bus/usb/003/012")).constData(),
                        mode_t(node_mode)) == 0);
    }

    QCOMPARE(DFU::inaccessible_bootloader_node(sys, dev),
             expected.isEmpty() ? QString() : dev + expected);

    // The companion's list: the serial as the system reports it, case kept, and the access.
    const QList<DFU::AttachedBootloader> found = DFU::attached_bootloaders(sys, dev);
    QCOMPARE(found.size(), listed ? 1 : 0);
    if (listed) {
        QCOMPARE(found.first().serial, QStringLiteral("3473375a3334"));
        QCOMPARE(found.first().accessible, expected.isEmpty());
    }
}

QTEST_GUILESS_MAIN(tst_usbaccess)
#include "tst_usbaccess.moc"
