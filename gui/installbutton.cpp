#include "gui/installbutton.h"

#include <QDebug>

InstallButton::InstallButton(QWidget* parent) : QPushButton(parent)
{
    setFlat(false);
    setEnabled(true);
    setMinimumHeight(30);
    setObjectName(QStringLiteral("GUI_8"));
    // Outside a dialog only an auto-default button takes Enter; Space works on any.
    setAutoDefault(true);
    connect(this, &QPushButton::clicked, this, [] { qInfo() << "Install clicked"; });
}
