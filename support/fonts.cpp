#include "support/fonts.h"

#include <QDebug>
#include <QFont>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QStringList>

namespace support {

QString lumaxis_font_name;

QString load_font(const QString& path)
{
    const int id = QFontDatabase::addApplicationFont(path);
    if (id < 0)
        qWarning() << "Unable to load font from " << path;
    const QStringList families = QFontDatabase::applicationFontFamilies(id);
    return families.isEmpty() ? QString() : families.first();
}

QString load_lumaxis_fonts()
{
    static bool loaded = false;
    if (!loaded) {
        loaded = true;
        lumaxis_font_name = load_font(QStringLiteral(":resources/LumaxisSans-Regular.otf"));
        // The bold face joins the regular family; its name adds nothing.
        load_font(QStringLiteral(":resources/LumaxisSans-Bold.otf"));
    }
    return lumaxis_font_name;
}

void set_default_font(const QString& family)
{
    if (family.isEmpty())
        return;
    QGuiApplication::setFont(QFont(family, 11, -1, false));
}

void setup_fonts()
{
    lumaxis_font_name = load_lumaxis_fonts();
    if (lumaxis_font_name.isEmpty()) {
        qWarning() << "Unable to load/set the Lumaxis font as default";
        return;
    }
    set_default_font(lumaxis_font_name);
    qInfo() << "Load/set default font:" << lumaxis_font_name;
}

} // namespace support
