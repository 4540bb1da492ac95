#include "support/files.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

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
        report(QFileInfo(temporary_dir_template()).path(), external_dir.errorString());
        return false;
    }
    bool all_copied = true;
    for (const ID id : ids) {
        const QString name = basename[id];
        QFile source(QStringLiteral(":resources/") + name);
        // QFile::copy never overwrites: a second extraction of the same file fails.
        if (source.copy(working_path(name))) {
            qDebug() << "Extracted " << name;
        } else {
            qInfo() << "Failed to extract " << name;
            report(external_dir.path(), source.errorString());
            all_copied = false;
        }
    }
    return strict ? all_copied : true;
}

} // namespace Files
