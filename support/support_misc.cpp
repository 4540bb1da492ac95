#include "support/support_misc.h"

#include <array>

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QtGlobal>

namespace support_misc {

namespace {

// Indexed by Platform; the lower-case "windows" is the name as it has always been printed.
constexpr std::array<const char*, 4> platform_names{"Linux", "macOS", "windows", "unknown"};

} // namespace

Platform compiled_for_platform()
{
#if defined(Q_OS_LINUX)
    return Platform::Linux;
#elif defined(Q_OS_MACOS)
    return Platform::macOS;
#elif defined(Q_OS_WIN)
    return Platform::windows;
#else
    return Platform::unknown;
#endif
}

bool compiled_for_platform(Platform p)
{
    return p == compiled_for_platform();
}

QDebug operator<<(QDebug dbg, Platform p)
{
    const QDebugStateSaver saver(dbg);
    const auto index = static_cast<std::size_t>(p);
    const char* name = index < platform_names.size() ? platform_names[index] : "";
    dbg.noquote() << QString::fromLatin1(name);
    return dbg;
}

void show_resources()
{
    QDirIterator it(QStringLiteral(":resources"), QDirIterator::Subdirectories);
    while (it.hasNext())
        qDebug() << it.next();
}

void ensure_file_is_deleted(const QString& path)
{
    if (QFileInfo(path).isFile())
        QFile::remove(path);
}

bool mark_file_executable(const QString& path)
{
    QFile file(path);
    if (!file.exists()) {
        qWarning() << "Failed to mark file (doesn't exist) as executable:" << path;
        return false;
    }
    qDebug() << "Changing file permissions to make it executable:" << path;
    // The User flags read back describe this process's access, not the file's mode: run as the
    // super-user they would add the owner's write bit. On Unix Qt sets ExeUser as the owner's bit.
    const QFileDevice::Permissions mode =
        file.permissions() &
        ~(QFileDevice::ReadUser | QFileDevice::WriteUser | QFileDevice::ExeUser);
    return file.setPermissions(mode | QFileDevice::ExeUser | QFileDevice::ExeGroup |
                               QFileDevice::ExeOther);
}

QString maybe_use_file_instead_of_resource(const QString& path)
{
    return path;
}

QString load_text_file(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw QStringLiteral("Couldn't open file: %1").arg(path);
    const QByteArray bytes = file.readAll();
    file.close();
    return QString::fromUtf8(bytes);
}

QString remove_carriage_returns(const QString& text, QChar c)
{
    QString result = text;
    result.remove(c);
    return result;
}

} // namespace support_misc
