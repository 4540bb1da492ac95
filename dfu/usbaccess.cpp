#include "dfu/usbaccess.h"

#include <QtGlobal>
#if defined(Q_OS_LINUX)
#include <fcntl.h>
#include <unistd.h>
#endif

#include <QDir>
#include <QFile>

namespace {

QByteArray sysfs_attribute(const QString& device_dir, const char* name)
{
    QFile file(device_dir + QLatin1Char('/') + QLatin1String(name));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.read(64).trimmed().toLower();
}

int sysfs_number(const QString& device_dir, const char* name)
{
    bool ok = false;
    const int number = sysfs_attribute(device_dir, name).toInt(&ok);
    return ok && number > 0 && number < 1000 ? number : -1;
}

} // namespace

QList<DFU::AttachedBootloader> DFU::attached_bootloaders(const QString& sysfs_root,
                                                        const QString& dev_root)
{
    QList<AttachedBootloader> found;
#if defined(Q_OS_LINUX)
    const QDir devices(sysfs_root + QStringLiteral("/bus/usb/devices"));
    // Interfaces ("1-2:1.0") have no idVendor, so they drop out with every other device.
    const QStringList names = devices.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString& name : names) {
        const QString dir = devices.filePath(name);
        if (sysfs_attribute(dir, "idVendor") != "0483" ||
            sysfs_attribute(dir, "idProduct") != "df11")
            continue;
        const int bus = sysfs_number(dir, "busnum");
        const int device = sysfs_number(dir, "devnum");
        if (bus < 0 || device < 0)
            continue;
        const QString node = QStringLiteral("%1/bus/usb/%2/%3")
                                 .arg(dev_root)
                                 .arg(bus, 3, 10, QLatin1Char('0'))
                                 .arg(device, 3, 10, QLatin1Char('0'));
        // libusb opens the node read-write. A missing node is not a permission problem, and the
        // effective ids decide, as they do for libusb's open, with udev's access lists included.
        const QByteArray path = QFile::encodeName(node);
        if (::access(path.constData(), F_OK) != 0)
            continue;
        // The serial keeps its case: dfu-util's -S compares it exactly.
        QFile serial(dir + QStringLiteral("/serial"));
        const QString text = serial.open(QIODevice::ReadOnly)
                                 ? QString::fromLatin1(serial.read(64).trimmed())
                                 : QString();
        found << AttachedBootloader{
            node, text, ::faccessat(AT_FDCWD, path.constData(), R_OK | W_OK, AT_EACCESS) == 0};
    }
#else
    Q_UNUSED(sysfs_root)
    Q_UNUSED(dev_root)
#endif
    return found;
}

QString DFU::inaccessible_bootloader_node(const QString& sysfs_root, const QString& dev_root)
{
    for (const AttachedBootloader& bootloader : attached_bootloaders(sysfs_root, dev_root))
        if (!bootloader.accessible)
            return bootloader.node;
    return {};
}
