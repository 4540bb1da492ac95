#include "gui/languages.h"

#include <algorithm>

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>

namespace Languages {

namespace {

const QString english = QStringLiteral("en");

QString primary(const QString& language)
{
    return language.section(QLatin1Char('-'), 0, 0).section(QLatin1Char('_'), 0, 0).toLower();
}

} // namespace

QStringList ui_languages()
{
    // Qt honours LANGUAGE in the same order, but also under the C locale, where gettext ignores
    // it; a terminal with LC_ALL=C would otherwise get a translated window and English tools.
    QByteArray locale = qgetenv("LC_ALL");
    if (locale.isEmpty())
        locale = qgetenv("LC_MESSAGES");
    if (locale.isEmpty())
        locale = qgetenv("LANG");
    if (locale.isEmpty() || locale == "C" || locale == "POSIX")
        return {};
    QStringList languages = QLocale::system().uiLanguages();
    languages.removeAll(QStringLiteral("C"));
    return languages;
}

QStringList carried()
{
    static const QString prefix = QStringLiteral("settings_GUI_");
    QStringList codes;
    const QStringList files = QDir(QStringLiteral(":/resources"))
                                  .entryList({prefix + QStringLiteral("*.json")}, QDir::Files);
    for (const QString& file : files)
        codes << file.mid(prefix.size()).section(QLatin1Char('.'), 0, 0);
    return codes;
}

QString choose(const QStringList& languages)
{
    const QStringList have = carried();
    for (const QString& language : languages) {
        const QString code = primary(language);
        if (code == english || have.contains(code))
            return code;
    }
    return english;
}

QString overlay_path(const QString& language)
{
    return QStringLiteral(":resources/settings_GUI_%1.json").arg(language);
}

QStringList apply_overlay(Settings::GUI& gui, const Settings::GUI& overlay)
{
    QStringList unknown;
    for (const Settings::LabelData& translated : overlay.labels) {
        const auto same_id = [&](const Settings::LabelData& l) { return l.id == translated.id; };
        const auto target = std::find_if(gui.labels.begin(), gui.labels.end(), same_id);
        if (target == gui.labels.end())
            unknown << translated.id;
        else
            target->text = translated.text;
    }
    return unknown;
}

QString use_system_language(Settings::GUI& gui)
{
    const QString language = choose(ui_languages());
    qInfo().noquote() << "Language:" << language;
    if (language == english)
        return language;
    const QStringList unknown =
        apply_overlay(gui, Settings::make_GUI(overlay_path(language)));
    if (!unknown.isEmpty())
        qWarning() << "The" << language << "layout overlay names unknown ids:" << unknown;

    // The file dialog and the message boxes speak the same language, from Qt's own catalogue.
    const QString folder = QLibraryInfo::path(QLibraryInfo::TranslationsPath);
    auto* translator = new QTranslator(QCoreApplication::instance());
    if (translator->load(QStringLiteral("qtbase_") + language, folder))
        QCoreApplication::installTranslator(translator);
    else
        qInfo().noquote() << "No Qt translations for" << language << "in" << folder;
    return language;
}

} // namespace Languages
