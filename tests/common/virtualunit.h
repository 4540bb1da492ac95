// One virtual unit in a folder of the test's, made and faulted by its control program: the
// fixture of the whole-program suites, the window's and the companion's. A test that uses it
// defines VIRTUAL_UNIT_CONTROL, the control program's path.
#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <QTemporaryDir>

#include "common/filebytes.h"

class VirtualUnit
{
public:
    // carried: the firmware image the program carries, which flash() looks for.
    explicit VirtualUnit(const QString& carried)
        : path(dir.filePath(QStringLiteral("unit"))), image(file_bytes(carried)),
          carried_path(carried)
    {}

    bool valid() const { return dir.isValid() && image.size() > 2048; }
    QString folder() const { return path; }

    // One control command ("create --type 3 --revision 2.2.0", "inject ...", "plug");
    // "CARRIED" in it stands for the carried image's path.
    bool control(const QString& command) const
    {
        QStringList words = command.split(QLatin1Char(' '));
        words.replaceInStrings(QStringLiteral("CARRIED"), carried_path);
        QProcess control;
        control.start(QStringLiteral(VIRTUAL_UNIT_CONTROL),
                      QStringList{QStringLiteral("--dir"), path} + words);
        return control.waitForFinished(40000) && control.exitCode() == 0;
    }

    // Remembers the flash as a row made it, for flash().
    void mark() { before = file_bytes(path + QStringLiteral("/flash.bin")); }

    // "new": the flash holds the carried image; "old": what mark() saw; "other": neither.
    QString flash() const
    {
        const QByteArray now = file_bytes(path + QStringLiteral("/flash.bin"));
        if (now.startsWith(image))
            return QStringLiteral("new");
        return now == before ? QStringLiteral("old") : QStringLiteral("other");
    }

    // The environment in which a program's dfu-util, loading the virtual libusb, sees this unit.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("LUMAXIS_VIRTUAL_UNIT"), path);
        return environment;
    }

    const QByteArray& carried_image() const { return image; }

private:
    QTemporaryDir dir;
    QString path;
    QByteArray image;
    QString carried_path;
    QByteArray before;
};
