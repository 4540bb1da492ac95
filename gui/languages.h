// The window's language: which layout overlay and which of Qt's own translations to use.
#pragma once

#include <QString>
#include <QStringList>

#include "gui/settings.h"

namespace Languages {

// The user's UI languages, best first, read as glibc reads them: LANGUAGE, then LC_ALL,
// LC_MESSAGES, LANG; LANGUAGE counts only when the locale is not plain C. Empty means English.
QStringList ui_languages();

// Languages with a layout overlay beside the English file, as two-letter codes.
QStringList carried();

// The first of `languages` (such as "de-DE" or "ja") that the program speaks: English or one
// with an overlay. "en" when there is none.
QString choose(const QStringList& languages);

// ":resources/settings_GUI_<language>.json"
QString overlay_path(const QString& language);

// Puts the overlay's texts in place of the English ones with the same id; the ids the overlay
// has but the English file lacks are returned and changed nothing.
QStringList apply_overlay(Settings::GUI& gui, const Settings::GUI& overlay);

// Chooses the language from the system, translates the layout and loads Qt's own translations
// for its dialogs; needs the application object. Returns the language.
QString use_system_language(Settings::GUI& gui);

} // namespace Languages
