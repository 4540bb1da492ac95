// The install button from the keyboard, and the status line's log in English whatever the window
// speaks; what a screen reader hears is tests/app/tst_screenreader.py's.
#include <QLabel>
#include <QSignalSpy>
#include <QtTest>

#include "app/statusline.h"
#include "common/logcapture.h"
#include "gui/installbutton.h"
#include "gui/languages.h"
#include "gui/mainwindow.h"
#include "support/fonts.h"

class TestAccessibility : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void keyboard();
    void log_stays_english();

private:
    Settings::Settings settings_;
    std::unique_ptr<MainWindow> window_;
};

void TestAccessibility::initTestCase()
{
    support::setup_fonts();
    settings_.gui = Settings::make_GUI(QStringLiteral(":resources/settings_GUI.json"));
    settings_.desired_FW_type = Device::Kestrel;
    settings_.desired_FW_revision = QStringLiteral("2.3.0");
}

void TestAccessibility::init()
{
    window_.reset(MainWindow_factory(&settings_, nullptr, false));
}

void TestAccessibility::keyboard()
{
    // Tab reaches the enabled button, Enter and Space press it; A, Escape and Q keep their work.
    window_->show();
    QVERIFY(QTest::qWaitForWindowActive(window_.get()));
    window_->enableDownload();
    InstallButton* button = window_->installButton();
    QSignalSpy clicked(button, &QAbstractButton::clicked);
    QSignalSpy finished(window_.get(), &MainWindow::finished);

    QTest::keyClick(window_.get(), Qt::Key_Tab);
    QCOMPARE(QApplication::focusWidget(), button);
    for (Qt::Key key : {Qt::Key_Return, Qt::Key_Enter, Qt::Key_Space})
        QTest::keyClick(QApplication::focusWidget(), key);
    QCOMPARE(clicked.count(), 3);

    QTest::keyClick(QApplication::focusWidget(), Qt::Key_A);
    QVERIFY(!button->isEnabled());
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Q);
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Escape);
    QCOMPARE(finished.count(), 2);
}

void TestAccessibility::log_stays_english()
{
    // The window speaks German, the log keeps the English words.
    Settings::GUI german = settings_.gui;
    Languages::apply_overlay(german, Settings::make_GUI(Languages::overlay_path("de")));
    StatusLine status(
        window_->statusLabel(), [&](const QString& id) { return german.text(id); },
        [this](const QString& id) { return settings_.gui.text(id); });
    const LogCapture log;
    status.setNoAccess("/dev/bus/usb/001/012");
    status.showUnit(german.text("status_devConn").arg("Vega-5"),
                    settings_.gui.text("status_devConn").arg("Vega-5"));
    QCOMPARE(window_->statusLabel()->text(), german.text("status_devConn").arg("Vega-5"));
    QCOMPARE(log.lines(), QStringList({"info: Status line: No permission to open the unit at "
                                       "/dev/bus/usb/001/012: install the udev rule, then replug.",
                                       "info: Status line: Connected to an Vega-5."}));
}

QTEST_MAIN(TestAccessibility)
#include "tst_accessibility.moc"
