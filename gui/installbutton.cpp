#include "gui/installbutton.h"

#include <QColor>
#include <QDebug>
#include <QPalette>

InstallButton::InstallButton(QWidget* parent) : QPushButton(parent)
{
    setFlat(false);
    setEnabled(true);
    setMinimumHeight(30);
    setObjectName(QStringLiteral("GUI_8"));
    // Outside a dialog only an auto-default button takes Enter; Space works on any.
    setAutoDefault(true);
    // Disabled, the button still shows step 4 before a unit is there: the style's pale grey
    // text would fall below 4.5:1 on the button's face, this grey stays above 5:1.
    QPalette colours = palette();
    colours.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x59, 0x59, 0x59));
    setPalette(colours);
    connect(this, &QPushButton::clicked, this, [] { qInfo() << "Install clicked"; });
}
