// Embedded fonts: loading once, the default application font, and a font file that is missing.
#include <QFontDatabase>
#include <QGuiApplication>
#include <QtTest>

#include "support/fonts.h"

class TestFonts : public QObject
{
    Q_OBJECT

private slots:
    void missingFileWarns();
    void setupMakesLumaxisSansTheDefault();
    void fontsAreAddedOnce();
};

void TestFonts::missingFileWarns()
{
    QTest::ignoreMessage(QtWarningMsg, "Unable to load font from  \":resources/missing.otf\"");
    QCOMPARE(support::load_font(QStringLiteral(":resources/missing.otf")), QString());
}

void TestFonts::setupMakesLumaxisSansTheDefault()
{
    QTest::ignoreMessage(QtInfoMsg, "Load/set default font: \"Lumaxis Sans\"");
    support::setup_fonts();
    QCOMPARE(support::lumaxis_font_name, QStringLiteral("Lumaxis Sans"));
    const QFont font = QGuiApplication::font();
    QCOMPARE(font.family(), QStringLiteral("Lumaxis Sans"));
    QCOMPARE(font.pointSize(), 11);
    QVERIFY(!font.italic());
    QVERIFY(QFontDatabase::styles(QStringLiteral("Lumaxis Sans")).contains(QLatin1String("Bold")));

    support::set_default_font(QString()); // empty family: nothing changes
    QCOMPARE(QGuiApplication::font().family(), QStringLiteral("Lumaxis Sans"));
}

void TestFonts::fontsAreAddedOnce()
{
    // Once loaded, a further call only returns the name: after removing the fonts from the
    // database they stay gone.
    QFontDatabase::removeAllApplicationFonts();
    QCOMPARE(support::load_lumaxis_fonts(), QStringLiteral("Lumaxis Sans"));
    QVERIFY(!QFontDatabase::families().contains(QStringLiteral("Lumaxis Sans")));
}

QTEST_MAIN(TestFonts)
#include "tst_fonts.moc"
