#include "support/files.h"

#include <utility>

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QStorageInfo>

namespace Files {

namespace {

const QString folder_template = QStringLiteral("/upgrade_XXXXXX");

// Defined before external_dir, so destroyed after it: the private base goes once the run's folder
// has left it empty; another run's folder keeps it.
struct RemovedWhenEmpty
{
    QString path;
    ~RemovedWhenEmpty()
    {
        if (!path.isEmpty())
            QDir().rmdir(path);
    }
} private_folder_base;

// As QFile::copy: an existing file is never overwritten (a second extraction fails), the copy
// has the resource's permissions (read-only), and one cut short is removed. Unlike it, no sync to
// disk: a working copy for one run needs no durability, and on a disk busy with other writes each
// sync held start-up for milliseconds.
bool copy_resource(const QString& resource, const QString& path, QString* error)
{
    QFile source(resource);
    QFile target(path);
    if (!source.open(QIODevice::ReadOnly)) {
        *error = source.errorString();
        return false;
    }
    if (!target.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered)) {
        *error = target.errorString();
        return false;
    }
    // Qt sets no error for a write that got part of its bytes out (a disk filling up); the next
    // write of the rest then fails with the system's reason.
    const QByteArray bytes = source.readAll();
    qint64 written = 0;
    while (written < bytes.size()) {
        const qint64 n = target.write(bytes.constData() + written, bytes.size() - written);
        if (n <= 0)
            break;
        written += n;
    }
    if (written == bytes.size() && target.setPermissions(source.permissions()))
        return true;
    *error = target.errorString();
    target.remove();
    return false;
}

} // namespace

QTemporaryDir external_dir(temporary_base() + folder_template);

QString temporary_base()
{
    // tempPath() canonicalises, so a TMPDIR that does not exist comes back empty and the template
    // would point at the filesystem root. Keep the configured path so that creation fails instead.
    const QString base = QDir::tempPath();
    return base.isEmpty() ? QDir::cleanPath(qEnvironmentVariable("TMPDIR", QStringLiteral("/tmp")))
                          : base;
}

QString private_base()
{
    // XDG_CACHE_HOME or ~/.cache: the user's own, and unlike the runtime folder not limited to a
    // few megabytes.
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    return cache.isEmpty() ? QString() : cache + QStringLiteral("/lumaxis-upgrade");
}

bool move_to_private_folder(QString* reason)
{
    const QString base = private_base();
    const QFile::Permissions owner_only = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
    if (base.isEmpty() || !QDir().mkpath(QFileInfo(base).path()) ||
        (!QFileInfo::exists(base) && !QDir().mkdir(base, owner_only))) {
        *reason = QStringLiteral("cannot make the folder");
        return false;
    }
    private_folder_base.path = base;
    QTemporaryDir made(base + folder_template);
    if (!made.isValid()) {
        *reason = made.errorString();
        return false;
    }
    external_dir = std::move(made);
    return true;
}

qint64 free_bytes()
{
    const QStorageInfo storage(external_dir.path());
    return storage.isValid() ? storage.bytesAvailable() : -1;
}

QString working_path(const QString& name)
{
    return external_dir.path() + QLatin1Char('/') + name;
}

bool extract_resources(std::vector<ID> ids, bool strict, QString* problem_folder,
                       QString* problem_reason)
{
    const auto report = [&](const QString& folder, const QString& reason) {
        if (problem_folder && problem_folder->isEmpty()) {
            *problem_folder = folder;
            if (problem_reason)
                *problem_reason = reason;
        }
    };
    if (!external_dir.isValid()) {
        qInfo() << "Failed to create temporary directory:" << external_dir.errorString();
        report(temporary_base(), external_dir.errorString());
        return false;
    }
    bool all_copied = true;
    for (const ID id : ids) {
        const QString name = basename[id];
        QString error;
        if (copy_resource(QStringLiteral(":resources/") + name, working_path(name), &error)) {
            qDebug() << "Extracted " << name;
        } else {
            qInfo() << "Failed to extract " << name;
            report(external_dir.path(), error);
            all_copied = false;
        }
    }
    return strict ? all_copied : true;
}

} // namespace Files
