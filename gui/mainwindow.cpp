#include "gui/mainwindow.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include <QDebug>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QScreen>
#include <QStyle>

#include "gui/circle.h"
#include "gui/installbutton.h"
#include "gui/progressbar.h"
#include "support/fonts.h"
#include "support/support_misc.h"

namespace {

int clamp_to_int(double v)
{
    return int(std::clamp(v, double(INT_MIN), double(INT_MAX)));
}

double screen_scale()
{
    if (support_misc::compiled_for_platform() == support_misc::Platform::macOS)
        return 1.0;
    const QScreen* screen = QGuiApplication::primaryScreen();
    return screen ? screen->logicalDotsPerInchX() / 96.0 : 1.0;
}

} // namespace

MainWindow::MainWindow(const Settings::Settings* settings, QWidget* parent)
    : QMainWindow(parent), settings_(settings), central_(new QWidget(this))
{
    // The picture is 655 pixels wide and the window 665: stretching it over the window is meant.
    setStyleSheet(QStringLiteral("QMainWindow { border-image:url(\"://resources/background.jpg\") "
                                 "0 0 0 0 stretch stretch; }"));
    scale_ = screen_scale();
    setCentralWidget(central_);
    setupGeometry();

    download_mode_ = false;
    // Emitted before the connection on purpose: the factory applies the mode once it has a button.
    emit downloadModeChanged();
    connect(this, &MainWindow::downloadModeChanged, this, &MainWindow::updateDownloadMode);
}

int MainWindow::scaled(double v) const
{
    return clamp_to_int(std::round(v * scale_));
}

int MainWindow::scaledTruncated(double v) const
{
    return clamp_to_int(std::trunc(v * scale_));
}

void MainWindow::setupGeometry()
{
    setFixedSize(scaledTruncated(665), scaledTruncated(517));
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        const QRect placed =
            QStyle::alignedRect(Qt::LeftToRight, Qt::AlignHCenter | Qt::AlignTop,
                                QSize(scaled(665), scaled(517)), screen->geometry());
        setGeometry(placed.translated(scaled(0), scaled(50)));
    }
    const QRect button_area(scaledTruncated(207), scaledTruncated(417), scaledTruncated(250),
                            scaledTruncated(40));
    if (install_button_)
        install_button_->setGeometry(button_area);
    if (progress_bar_) {
        progress_bar_->setGeometry(button_area);
        progress_bar_->hide();
    }
}

void MainWindow::enableDownload()
{
    download_mode_ = true;
    emit downloadModeChanged();
}

void MainWindow::disableDownload()
{
    download_mode_ = false;
    emit downloadModeChanged();
}

void MainWindow::toggleDownload()
{
    download_mode_ = !download_mode_;
    emit downloadModeChanged();
}

void MainWindow::updateDownloadMode()
{
    if (install_button_) {
        qInfo() << "MainWindow downloadMode: setEnabled" << download_mode_;
        install_button_->setEnabled(download_mode_);
    }
    qInfo() << "Download " << (download_mode_ ? "enabled" : "disabled");
}

void MainWindow::keyPressEvent(QKeyEvent* event)
{
    // The key alone decides; other keys are swallowed, not passed on, except those that reach and
    // press the install button from the keyboard.
    switch (event->key()) {
    case Qt::Key_A:
        toggleDownload();
        break;
    case Qt::Key_Escape:
    case Qt::Key_Q:
        emit finished();
        break;
    case Qt::Key_Tab:
    case Qt::Key_Backtab:
    case Qt::Key_Return:
    case Qt::Key_Enter:
    case Qt::Key_Space:
        QMainWindow::keyPressEvent(event);
        break;
    default:
        break;
    }
}

MainWindow* MainWindow_factory(const Settings::Settings* settings, QWidget* parent, bool simulator)
{
    if (settings->gui.text(QStringLiteral("status_noDev")).isEmpty())
        qFatal("No message with id '%s' found, aborting", "status_noDev");

    auto* window = new MainWindow(settings, parent);
    window->install_button_ = new InstallButton(window);
    window->addLabels(simulator);
    // Labels are sized generously and may reach over the button; keep it on top to stay
    // clickable over its whole face.
    window->install_button_->raise();
    window->updateDownloadMode();
    window->progress_bar_ = new ProgressBar(window);
    window->setupGeometry();
    window->font_family_ = support::lumaxis_font_name;

    std::vector<Settings::CircleData> circles = settings->gui.circles;
    for (Settings::CircleData& c : circles) {
        c.center = QPoint(window->scaled(c.center.x()), window->scaled(c.center.y()));
        c.radius = window->scaledTruncated(c.radius);
        c.pen_width = window->scaledTruncated(c.pen_width);
    }
    add_circles(circles, window);

    // What a screen reader says beside the visible texts, from the same layout: what each is for.
    const auto text = [settings](const char* id) {
        return settings->gui.text(QString::fromLatin1(id));
    };
    window->install_button_->setAccessibleDescription(window->installDescription());
    window->progress_bar_->setAccessibleDescription(text("access_progress"));
    if (window->status_label_)
        window->status_label_->setAccessibleDescription(text("access_status"));
    for (Circle* circle : window->findChildren<Circle*>())
        circle->setAccessibleDescription(text("access_circle"));
    return window;
}
