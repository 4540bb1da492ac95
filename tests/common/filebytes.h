// The whole content of a file, or nothing when it cannot be read: tests compare bytes, and an
// unreadable file then fails the comparison instead of the test's set-up.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

inline QByteArray file_bytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
