// Builds dfu-util listing text in the exact line format of the Debian dfu-util, for tests.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

namespace listings {

inline const QString banner =
    QStringLiteral("dfu-util 0.11\n\n"
                   "Copyright 2005-2009 Weston Schmidt, Harald Welte and OpenMoko Inc.\n"
                   "Copyright 2010-2021 Tormod Volden and Stefan Schmidt\n"
                   "This program is Free Software and has ABSOLUTELY NO WARRANTY\n"
                   "Please report bugs to http://sourceforge.net/p/dfu-util/tickets/\n\n");

// The unit's alternate settings in the order dfu-util lists them (highest first).
inline const QList<QPair<int, QString>> alternates{
    {3, QStringLiteral("@Device Feature/0xFFFF0000/01*004 e")},
    {2, QStringLiteral("@OTP Memory /0x1FFF7800/01*512 e,01*016 e")},
    {1, QStringLiteral("@Option Bytes  /0x1FFFC000/01*016 e")},
    {0, QStringLiteral("@Internal Flash  /0x08000000/04*016Kg,01*064Kg,07*128Kg")},
};

// One "Found DFU" line; an empty serial leaves the serial field out, as for an unreadable one.
inline QString line(const QString& serial, int alt = 0,
                    const QString& release = QStringLiteral("2200"), int devnum = 7,
                    const QString& path = QStringLiteral("1-2.4"))
{
    QString name;
    for (const auto& [a, n] : alternates) {
        if (a == alt)
            name = n;
    }
    QString text = QStringLiteral("Found DFU: [0483:df11] ver=%1, devnum=%2, cfg=1, intf=0, "
                                  "path=\"%3\", alt=%4, name=\"%5\"")
                       .arg(release)
                       .arg(devnum)
                       .arg(path)
                       .arg(alt)
                       .arg(name);
    if (!serial.isEmpty())
        text += QStringLiteral(", serial=\"%1\"").arg(serial);
    return text + QLatin1Char('\n');
}

// The first `count` lines of one unit, in listing order.
inline QString unit(const QString& serial, int count = 4, int devnum = 7)
{
    QString text;
    for (int i = 0; i < count; ++i)
        text +=
            line(serial, alternates[i % alternates.size()].first, QStringLiteral("2200"), devnum);
    return text;
}

} // namespace listings
