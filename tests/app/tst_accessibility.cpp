// What assistive technology reads from the window and hears when the status line or the bar
// changes, and the install button from the keyboard.
#include <QAccessible>
#include <QLabel>
#include <QSignalSpy>
#include <QtTest>
#include <private/qguiapplication_p.h>
#include <qpa/qplatformaccessibility.h>
#include <qpa/qplatformintegration.h>

#include "app/statusline.h"
#include "common/logcapture.h"
#include "gui/languages.h"
#include "app/upgradeprogress.h"
#include "gui/circle.h"
#include "gui/installbutton.h"
#include "gui/mainwindow.h"
#include "gui/progressbar.h"
#include "support/fonts.h"

namespace {

// Every event as "<kind> <name of its object at that moment>", or "value <the new value>".
QStringList events;

void record(QAccessibleEvent* event)
{
    const char* kind = event->type() == QAccessible::NameChanged    ? "name"
                       : event->type() == QAccessible::Alert        ? "alert"
                       : event->type() == QAccessible::ValueChanged ? "value"
                                                                    : nullptr;
    QAccessibleInterface* iface = event->accessibleInterface();
    if (!kind || !iface)
        return;
    const QString said = event->type() == QAccessible::ValueChanged
                             ? static_cast<QAccessibleValueChangeEvent*>(event)->value().toString()
                             : iface->text(QAccessible::Name);
    events << QString::fromLatin1(kind) + QLatin1Char(' ') + said;
}

QString accessible(QObject* object, QAccessible::Text text)
{
    QAccessibleInterface* iface = QAccessible::queryAccessibleInterface(object);
    return iface ? iface->text(text) : QStringLiteral("(none)");
}

} // namespace

class TestAccessibility : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void names_data();
    void names();
    void announcements_data();
    void announcements();
    void keyboard();
    void log_stays_english();

private:
    Settings::Settings settings_;
    std::unique_ptr<MainWindow> window_;
    StatusLine* status_ = nullptr;
    UpgradeProgress* progress_ = nullptr;
};

void TestAccessibility::initTestCase()
{
    support::setup_fonts();
    settings_.gui = Settings::make_GUI(QStringLiteral(":resources/settings_GUI.json"));
    settings_.desired_FW_type = Device::Kestrel;
    settings_.desired_FW_revision = QStringLiteral("2.3.0");
    // Offscreen no screen reader asks, so Qt would drop every event: switch the platform's
    // accessibility on as a screen reader would, and take the events here.
    QGuiApplicationPrivate::platformIntegration()->accessibility()->setActive(true);
    QVERIFY(QAccessible::isActive());
    QAccessible::installUpdateHandler(record);
}

void TestAccessibility::init()
{
    window_.reset(MainWindow_factory(&settings_, nullptr, false));
    const auto text = [this](const QString& id) { return settings_.gui.text(id); };
    status_ = new StatusLine(window_->statusLabel(), text);
    progress_ = new UpgradeProgress(window_->progressBar(), text);
    events.clear();
}

void TestAccessibility::names_data()
{
    QTest::addColumn<QString>("object"); // object name, or "circle 0"
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("description");

    const QString about = "Firmware upgrade Vega-5 LinkSync Firmware version: 2.3.0";
    QTest::newRow("install button")
        << "button" << "4. Click here to start upgrade" << about;
    QTest::newRow("progress bar, phase without percentage")
        << "bar" << "Writing firmware" << about;
    QTest::newRow("status line, plain text")
        << "status" << "The USB cable must have a 'Type-C' plug and a 'Type A' plug."
        << "The state of the unit and what to do next.";
    QTest::newRow("first circle")
        << "circle 0" << "On button" << "Marks a button of the unit that the steps name.";
    QTest::newRow("second circle")
        << "circle 1" << "Select button" << "Marks a button of the unit that the steps name.";
}

void TestAccessibility::names()
{
    QFETCH(QString, object);
    QFETCH(QString, name);
    QFETCH(QString, description);

    window_->progressBar()->showProgress(settings_.gui.text("progress_writing"), 42);
    status_->showNoUnit(); // the first text comes from the layout, before any change
    const QList<Circle*> circles = window_->findChildren<Circle*>();
    QObject* target = circles.value(object.section(' ', 1).toInt());
    if (object == "button")
        target = window_->installButton();
    else if (object == "bar")
        target = window_->progressBar();
    else if (object == "status")
        target = window_->statusLabel();
    QVERIFY(target);
    QCOMPARE(accessible(target, QAccessible::Name), name);
    QCOMPARE(accessible(target, QAccessible::Description), description);
    if (object == "bar") {
        QAccessibleInterface* bar = QAccessible::queryAccessibleInterface(target);
        QVERIFY(bar->valueInterface());
        QCOMPARE(bar->valueInterface()->currentValue().toInt(), 42);
    }
}

void TestAccessibility::announcements_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QStringList>("heard");

    QTest::newRow("unit found")
        << "unit" << QStringList{"name Connected to an Vega-5.", "alert Connected to an Vega-5."};
    QTest::newRow("unit gone again, hint as before")
        << "unit and gone"
        << QStringList{"name Connected to an Vega-5.", "alert Connected to an Vega-5.",
                       "name The USB cable must have a 'Type-C' plug and a 'Type A' plug.",
                       "alert The USB cable must have a 'Type-C' plug and a 'Type A' plug."};
    QTest::newRow("same text, nothing said") << "no unit" << QStringList{};
    QTest::newRow("write ends")
        << "done"
        << QStringList{"value 50", "value 100", "name Done. Disconnect USB cable.",
                       "alert Done. Disconnect USB cable."};
}

void TestAccessibility::announcements()
{
    QFETCH(QString, change);
    QFETCH(QStringList, heard);

    if (change.startsWith("unit")) {
        status_->showUnit(settings_.gui.text("status_devConn").arg("Vega-5"));
        if (change.endsWith("gone"))
            status_->showNoUnit();
    } else if (change == "no unit") {
        status_->showNoUnit();
    } else {
        // As the flow ends a verified upgrade: the value, then the caption, then the end.
        ProgressBar* bar = window_->progressBar();
        bar->showProgress(settings_.gui.text("progress_erasing"), 0);
        events.clear();
        bar->setValue(50);
        progress_->matches();
    }
    QCOMPARE(events, heard);
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
    // The window speaks German, screen readers hear German, the log keeps the English words.
    Settings::GUI german = settings_.gui;
    Languages::apply_overlay(german, Settings::make_GUI(Languages::overlay_path("de")));
    StatusLine status(
        window_->statusLabel(), [&](const QString& id) { return german.text(id); },
        [this](const QString& id) { return settings_.gui.text(id); });
    const LogCapture log;
    status.setNoAccess("/dev/bus/usb/001/012");
    status.showUnit(german.text("status_devConn").arg("Vega-5"),
                    settings_.gui.text("status_devConn").arg("Vega-5"));
    QCOMPARE(accessible(window_->statusLabel(), QAccessible::Name),
             QStringLiteral("Verbunden mit Vega-5."));
    QCOMPARE(log.lines(), QStringList({"info: Status line: No permission to open the unit at "
                                       "/dev/bus/usb/001/012: install the udev rule, then replug.",
                                       "info: Status line: Connected to an Vega-5."}));
}

QTEST_MAIN(TestAccessibility)
#include "tst_accessibility.moc"
