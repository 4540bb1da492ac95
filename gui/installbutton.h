// The one push button that starts the upgrade.
#pragma once

#include <QPushButton>

class InstallButton final : public QPushButton
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(InstallButton)

public:
    explicit InstallButton(QWidget* parent);
};
