// Platform facts and small file and text helpers used across the program.
#pragma once

#include <QChar>
#include <QDebug>
#include <QString>

namespace support_misc {

enum class Platform : int {
    Linux = 0,
    macOS = 1,
    windows = 2,
    unknown = 3,
};

#ifdef DEBUG
inline constexpr bool compiled_w_DEBUG = true;
#else
inline constexpr bool compiled_w_DEBUG = false;
#endif

Platform compiled_for_platform();
bool compiled_for_platform(Platform p);

// Prints the platform's name unquoted; values outside the table print as nothing.
QDebug operator<<(QDebug dbg, Platform p);

// Diagnostic: logs the path of every entry under ":resources".
void show_resources();

// Removes path if it is a regular file; anything else is silently accepted.
void ensure_file_is_deleted(const QString& path);

// Adds execute permission for user, group and others.
bool mark_file_executable(const QString& path);

// Hook for letting an outside file replace a resource; this build keeps the resource.
QString maybe_use_file_instead_of_resource(const QString& path);

// The whole file as UTF-8 text; throws QString("Couldn't open file: <path>") when unreadable.
QString load_text_file(const QString& path);

QString remove_carriage_returns(const QString& text, QChar c);

} // namespace support_misc
