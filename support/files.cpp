#include "support/files.h"

#include <QDebug>
#include <QDir>
#include <QFile>

namespace Files {

namespace {

QString temporary_dir_template()
{
    // tempPath() canonicalises, so a TMPDIR that does not exist comes back empty and the template
    // would point at the filesystem root. Keep the configured path so that creation fails instead.
    QString base = QDir::tempPath();
    if (base.isEmpty())
        base = QDir::cleanPath(qEnvironmentVariable("TMPDIR", QStringLiteral("/tmp")));
    return base + QStringLiteral("/upgrade_XXXXXX");
}

} // namespace

QTemporaryDir external_dir(temporary_dir_template());

bool extract_resources(std::vector<ID> ids, bool strict)
{
    if (!external_dir.isValid()) {
        qInfo() << "Failed to create temporary directory:" << external_dir.errorString();
        return false;
    }
    bool all_copied = true;
    for (const ID id : ids) {
        const QString name = basename[id];
        // QFile::copy never overwrites: a second extraction of the same file fails.
        if (QFile::copy(QStringLiteral(":resources/") + name,
                        external_dir.path() + QLatin1Char('/') + name)) {
            qDebug() << "Extracted " << name;
        } else {
            qInfo() << "Failed to extract " << name;
            all_copied = false;
        }
    }
    return strict ? all_copied : true;
}

} // namespace Files
