// The fixed-size main window: background picture, labels, circles, install button, progress bar.
#pragma once

#include <QMainWindow>
#include <QString>

#include "gui/settings.h"

class QLabel;
class QKeyEvent;
class InstallButton;
class ProgressBar;

class MainWindow final : public QMainWindow
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MainWindow)

public:
    MainWindow(const Settings::Settings* settings, QWidget* parent);

    void setupGeometry();

    const Settings::Settings* settings() const { return settings_; }
    QString fontFamilyName() const { return font_family_; }
    QLabel* step3Label() const { return step3_label_; }
    QLabel* statusLabel() const { return status_label_; }
    bool downloadMode() const { return download_mode_; }
    double scale() const { return scale_; }
    InstallButton* installButton() const { return install_button_; }
    ProgressBar* progressBar() const { return progress_bar_; }

    // v times the scale, rounded half away from zero; the truncating form is for sizes.
    int scaled(double v) const;
    int scaledTruncated(double v) const;

signals:
    void finished();
    void downloadModeChanged();

public slots:
    void enableDownload();
    void disableDownload();
    void toggleDownload();
    void updateDownloadMode();

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    friend MainWindow* MainWindow_factory(const Settings::Settings*, QWidget*, bool);

    const Settings::Settings* settings_ = nullptr;
    QWidget* central_ = nullptr;
    QString font_family_;
    QLabel* step3_label_ = nullptr;
    QLabel* status_label_ = nullptr;
    bool download_mode_ = false;
    double scale_ = 1.0;
    InstallButton* install_button_ = nullptr;
    ProgressBar* progress_bar_ = nullptr;

    // Makes the layout's text labels; lives in labels.cpp.
    void addLabels(bool simulator);
    // What the install button installs, and on what.
    QString installDescription() const;
};

// Builds the whole window from the settings; stops the program when the layout lacks the status
// text, the one sign that the layout file was read at all. The caller owns the window.
MainWindow* MainWindow_factory(const Settings::Settings* settings, QWidget* parent, bool simulator);
