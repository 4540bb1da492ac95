#include "app/connections.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QDebug>
#include <QKeySequence>
#include <QLabel>
#include <QShortcut>
#include <QTimer>

#include "app/shell.h"
#include "dfu/usbaccess.h"
#include "gui/installbutton.h"
#include "gui/logwindow.h"
#include "gui/mainwindow.h"
#include "gui/progressbar.h"
#include "gui/settings.h"
#include "simulator/simulator.h"
#include "statemachines/sm_a.h"
#include "statemachines/sm_b.h"

namespace {

QString settings_text(const char* id)
{
    return settings.gui.text(QString::fromLatin1(id));
}

void show_revision_text()
{
    const QString product = sm_B->device_info.OTP_info.product_name();
    // The unit's own bytes go into a rich-text label: markup in them must show as text.
    const QString revision = sm_B->device_info.FW_revision.toHtmlEscaped();
    const QString text = revision.isEmpty()
                             ? settings_text("status_devRevUnknown").arg(product)
                             : settings_text("status_devRev").arg(product, revision);
    mainWindow->statusLabel()->setText(text);
}

// What the no-unit status line showed last, so a later look only replaces its own text.
QString shown_no_unit_text;

// An attached bootloader whose node this user may not open never reaches dfu-util's listing, so
// the plain no-unit text would stay for good; name the node and the fix instead.
void show_no_unit_text(QLabel* status)
{
    QString text = settings_text("status_noDev");
    if (!simulator::use) {
        const QString node =
            DFU::inaccessible_bootloader_node(QStringLiteral("/sys"), QStringLiteral("/dev"));
        if (!node.isEmpty())
            text = settings_text("status_devNoAccess").arg(node);
        if (!node.isEmpty() && text != shown_no_unit_text)
            qWarning() << "Cannot open DFU device" << node << "(no permission)";
    }
    shown_no_unit_text = text;
    status->setText(text);
}

// The unit may be plugged in, or its rule take effect, while the no-unit text shows: look again
// every second, but only while that text is still on the status line.
void watch_no_unit_text(QLabel* status)
{
    show_no_unit_text(status);
    static QTimer* recheck = nullptr;
    if (recheck || simulator::use)
        return;
    recheck = new QTimer(status);
    QObject::connect(recheck, &QTimer::timeout, status, [status] {
        if (status->text() == shown_no_unit_text)
            show_no_unit_text(status);
    });
    recheck->start(1000);
}

void stop_worker()
{
    qInfo() << "Trying to stop sm_A";
    sm_A->do_stop();
    if (!sm_A->wait(QDeadlineTimer(1000))) {
        qWarning() << "Oops, SM_A not dead yet";
        sm_A->terminate();
        sm_A->wait();
    }
}

void on_fw_matches()
{
    ProgressBar* bar = mainWindow->progressBar();
    bar->timer()->stop();
    bar->setValue(bar->maximum());
    bar->setFormat(QStringLiteral("Done. Disconnect USB cable."));
    show_revision_text();
}

void on_fw_differs()
{
    show_revision_text();
    ProgressBar* bar = mainWindow->progressBar();
    bar->timer()->stop();
    bar->setValue(bar->minimum());
    // The caption is kept although the bar hides at once, so a later show without a new
    // format still explains itself.
    bar->setFormat(QStringLiteral("FW differs"));
    bar->hide();
}

void toggle_log_window()
{
    if (logWindow)
        logWindow->toggle_visibility(mainWindow.data());
}

} // namespace

void add_connections(QApplication* app)
{
    MainWindow* window = mainWindow.data();

    QObject::connect(window, &MainWindow::finished, [] {
        qInstallMessageHandler(nullptr);
        qInfo() << "Msg-handler reset";
    });
    QObject::connect(window, &MainWindow::finished, sm_B, &QStateMachine::stop);
    QObject::connect(window, &MainWindow::finished, stop_worker);
    QObject::connect(sm_B, &QState::finished, app, &QCoreApplication::quit);
    QObject::connect(sm_B, &SM_B::sig_UpgradeImpossible, window, &MainWindow::disableDownload);
    QObject::connect(sm_B, &SM_B::sig_UpgradePossible, window, &MainWindow::enableDownload);
    QObject::connect(sm_B, &SM_B::sig_DeviceConnected, [] {
        const QString product = sm_B->device_info.OTP_info.product_name();
        mainWindow->statusLabel()->setText(settings_text("status_devConn").arg(product));
    });
    QObject::connect(sm_B, &SM_B::sig_DifferingRevision, show_revision_text);
    QObject::connect(sm_B, &SM_B::sig_UpgradeImpossible, window, [window] {
        watch_no_unit_text(window->statusLabel());
        window->progressBar()->setFormat(QStringLiteral("This text should not be visible!"));
        window->progressBar()->hide();
    });
    QObject::connect(window->installButton(), &QAbstractButton::clicked, sm_B, &SM_B::do_download);
    QObject::connect(sm_B, &SM_B::sig_DoDownload, [] {
        mainWindow->progressBar()->startAutoProgress(QStringLiteral("Upgrading firmware"), 100.0);
    });
    QObject::connect(sm_B, &SM_B::sig_UploadingVerifying, [] {
        mainWindow->progressBar()->startAutoProgress(QStringLiteral("Uploading & verifying"), 0.5);
    });
    QObject::connect(sm_B, &SM_B::sig_FwMatches, on_fw_matches);
    QObject::connect(sm_B, &SM_B::sig_FwDiffers, on_fw_differs);

    const QKeySequence toggle_keys(Qt::CTRL | Qt::Key_L);
    auto* main_shortcut = new QShortcut(toggle_keys, window);
    main_shortcut->setContext(Qt::WindowShortcut);
    QObject::connect(main_shortcut, &QShortcut::activated, toggle_log_window);
    if (logWindow) {
        auto* log_shortcut = new QShortcut(toggle_keys, logWindow->dialog());
        log_shortcut->setContext(Qt::WindowShortcut);
        QObject::connect(log_shortcut, &QShortcut::activated, toggle_log_window);
    }
}
