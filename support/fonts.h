// Loading the embedded fonts and making the regular face the application's default font.
#pragma once

#include <QString>

namespace support {

// Family name of the embedded regular face; empty until load_lumaxis_fonts has run.
extern QString lumaxis_font_name;

QString load_font(const QString& path);
QString load_lumaxis_fonts();
void set_default_font(const QString& family);
void setup_fonts();

} // namespace support
