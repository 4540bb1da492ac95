// Time-driven progress bar: timer arithmetic, finishing, style sheet; and the circle widgets.
#include <QImage>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include "gui/circle.h"
#include "gui/progressbar.h"

class TestProgressBar : public QObject
{
    Q_OBJECT

private slots:
    void styleSheet();
    void startAutoProgress_data();
    void startAutoProgress();
    void degenerateRangeCountsAsOneStep();
    void tickBeforeTimeIsUpDoesNotFinish();
    void finishesOnceAtMaximum();
    void circleGeometryAndPaint();
};

void TestProgressBar::styleSheet()
{
    ProgressBar bar(nullptr);
    QCOMPARE(bar.minimum(), 0);
    QCOMPARE(bar.maximum(), 100);
    QCOMPARE(bar.duration(), 10000);
    QCOMPARE(bar.styleSheet(), QStringLiteral("\nQProgressBar {\n"
                                              "    border: 2px solid grey;\n"
                                              "    border-radius: 5px;\n"
                                              "    text-align: center;\n"
                                              "}\n\n"
                                              "QProgressBar::chunk {\n"
                                              "    background-color: rgba(160,240,140,100%);\n"
                                              "    width: 5px;\n"
                                              "}\n"));
}

void TestProgressBar::startAutoProgress_data()
{
    QTest::addColumn<double>("first");
    QTest::addColumn<double>("second");
    QTest::addColumn<int>("duration");
    QTest::addColumn<int>("interval");

    QTest::newRow("default keeps 10 s") << -1.0 << -1.0 << 10000 << 100;
    QTest::newRow("upgrade run") << 100.0 << -1.0 << 100000 << 1000;
    QTest::newRow("verify run clamps") << 0.5 << -1.0 << 500 << 50;
    QTest::newRow("2 s clamps") << 2.0 << -1.0 << 2000 << 50;
    QTest::newRow("zero is 1 ms") << 0.0 << -1.0 << 1 << 50;
    QTest::newRow("fraction truncated") << 7.0009 << -1.0 << 7000 << 70;
    QTest::newRow("negative keeps previous") << 20.0 << -3.0 << 20000 << 200;
    QTest::newRow("huge saturates") << 1e12 << -1.0 << INT32_MAX << INT32_MAX / 100;
}

void TestProgressBar::startAutoProgress()
{
    QFETCH(double, first);
    QFETCH(double, second);
    QFETCH(int, duration);
    QFETCH(int, interval);

    ProgressBar bar(nullptr);
    bar.startAutoProgress(QStringLiteral("a"), first);
    bar.startAutoProgress(QStringLiteral("Upgrading firmware"), second);
    QCOMPARE(bar.duration(), duration);
    QCOMPARE(bar.timer()->interval(), interval);
    QVERIFY(bar.timer()->isActive());
    QVERIFY(bar.isVisible());
    QCOMPARE(bar.value(), 0);
    QCOMPARE(bar.format(), QStringLiteral("Upgrading firmware"));
}

void TestProgressBar::degenerateRangeCountsAsOneStep()
{
    ProgressBar bar(nullptr);
    bar.setRange(5, 5);
    bar.startAutoProgress(QStringLiteral("x"), 1.0);
    QCOMPARE(bar.timer()->interval(), 1000);
}

void TestProgressBar::tickBeforeTimeIsUpDoesNotFinish()
{
    ProgressBar bar(nullptr);
    QSignalSpy finished(&bar, &ProgressBar::finished);
    bar.increase(); // never started: no clock to read
    QCOMPARE(bar.value(), -1);
    bar.startAutoProgress(QStringLiteral("x"), 1000.0);
    bar.increase();
    QCOMPARE(bar.value(), 0);
    QVERIFY(bar.timer()->isActive());
    QCOMPARE(finished.count(), 0);
}

void TestProgressBar::finishesOnceAtMaximum()
{
    ProgressBar bar(nullptr);
    QSignalSpy finished(&bar, &ProgressBar::finished);
    bar.startAutoProgress(QStringLiteral("x"), 0.0);
    QVERIFY(finished.wait(2000));
    QCOMPARE(bar.value(), 100);
    QVERIFY(!bar.timer()->isActive());
    QVERIFY(!finished.wait(200)); // stopped: no second emission
    QCOMPARE(finished.count(), 1);
    QVERIFY(bar.isVisible()); // hiding is the caller's business
}

void TestProgressBar::circleGeometryAndPaint()
{
    QWidget parent;
    parent.resize(100, 100);
    add_circles(
        std::vector<Settings::CircleData>{
            {QStringLiteral("On"), {50, 40}, 15, 15, QColor(255, 64, 64, 0x60)}},
        &parent);
    auto* circle = parent.findChild<Circle*>();
    QVERIFY(circle);
    QCOMPARE(circle->geometry(), QRect(35, 25, 30, 30));

    // The thick ring reads as a nearly filled translucent red disc; the square's corners stay
    // untouched.
    const QImage image = parent.grab().toImage();
    const QColor background = image.pixelColor(5, 5);
    const QColor ring = image.pixelColor(50, 34);
    QVERIFY2(ring.green() < background.green() - 40 && ring.red() >= background.red(),
             qPrintable(ring.name()));
    QCOMPARE(image.pixelColor(35, 25), background);

    circle->setCenter({20, 20});
    QCOMPARE(circle->geometry(), QRect(5, 5, 30, 30));
}

QTEST_MAIN(TestProgressBar)
#include "tst_progressbar.moc"
