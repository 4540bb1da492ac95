// Where a user pulls the cable or loses power during an upgrade: one list, from which the window's
// and the companion's tables are generated. Each point is where the virtual unit's cut comes (its
// README): a count of erase commands, bytes written, leave requests or bytes read back.
#pragma once

#include <utility>

#include <QByteArray>
#include <QList>
#include <QString>

// Pairs of a name and the count with its direction: {"after erase 3 of 9", "3 --direction
// erase"}. dfu-util 0.11 erases every sector the image touches first (4 x 16K, 64K, then 128K
// sectors), then writes 2048-byte blocks, then sends the leave; the read-back follows. A count at
// a request's start cuts before it; one inside cuts while the unit carries it out.
inline QList<std::pair<QByteArray, QString>> power_cuts(qint64 image_size)
{
    int sectors = 0;
    for (qint64 end = 0; end < image_size; ++sectors)
        end += sectors < 4 ? 16 * 1024 : sectors == 4 ? 64 * 1024 : 128 * 1024;
    const QByteArray of = " of " + QByteArray::number(sectors);
    QList<std::pair<QByteArray, QString>> cuts;
    const auto at = [&cuts](const QByteArray& name, auto count, const char* direction) {
        cuts << std::pair{name, QStringLiteral("%1 --direction %2").arg(count).arg(QLatin1String(direction))};
    };
    for (int erased = 1; erased < sectors; ++erased)
        at("after erase " + QByteArray::number(erased) + of, erased, "erase");
    at("after erase " + QByteArray::number(sectors) + of, 0, "download");
    at("halfway through erase 6" + of + " (128K)", 5.5, "erase");
    for (int tenth = 1; tenth < 10; ++tenth)
        at("after " + QByteArray::number(tenth) + "/10 of the write", image_size * tenth / 10,
           "download");
    at("in the last block", image_size - 1, "download");
    at("between the last block and the leave", 0, "leave");
    at("during the read-back", image_size / 2, "upload");
    return cuts;
}
