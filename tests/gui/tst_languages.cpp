// The layout's translations: each overlay against the English file, and the window it makes.
#include <QGlyphRun>
#include <QLabel>
#include <QRegularExpression>
#include <QTextDocument>
#include <QTextLayout>
#include <QtTest>

#include "gui/installbutton.h"
#include "gui/languages.h"
#include "gui/mainwindow.h"
#include "gui/progressbar.h"
#include "support/fonts.h"

namespace {

QStringList all_matches(const QString& text, const char* pattern)
{
    QStringList found;
    for (const QRegularExpressionMatch& m :
         QRegularExpression(QString::fromLatin1(pattern)).globalMatch(text))
        found << m.captured();
    found.sort();
    return found;
}

QString plain(const QString& text)
{
    if (!Qt::mightBeRichText(text))
        return text;
    QTextDocument document;
    document.setHtml(text);
    return document.toPlainText();
}

// The characters no installed font can draw: they would show as boxes.
QString without_glyph(const QString& text, const QFont& font)
{
    QTextLayout layout(plain(text), font);
    layout.beginLayout();
    layout.createLine();
    layout.endLayout();
    QString missing;
    for (const QGlyphRun& run : layout.glyphRuns())
        if (run.glyphIndexes().contains(0))
            missing += run.rawFont().familyName() + QLatin1Char(' ');
    return missing;
}

// Sample values as long as real ones get: the longest short product name, a usual device node,
// usual folders.
QString filled(const QString& id, QString text)
{
    static const QMap<QString, QStringList> samples{
        {"status_devNoAccess", {"/dev/bus/usb/001/012"}},
        {"status_startFailed", {"/tmp/upgrade_AbC123", "No space left on device"}},
        {"status_toolBlocked", {"/var/tmp/someone", "mounted noexec"}},
        {"status_folderFull", {"/tmp/upgrade_AbC123"}},
        {"status_devRev", {"K3 Industrial", "2.3.0"}}};
    for (const QString& value : samples.value(id, {QStringLiteral("K3 Industrial")}))
        if (text.contains(QLatin1Char('%')))
            text = text.arg(value);
    return text;
}

double luminance(QColor c)
{
    const auto channel = [](double v) {
        return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) + 0.0722 * channel(c.blueF());
}

double contrast(QColor a, QColor b)
{
    const double la = luminance(a), lb = luminance(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

// The lowest contrast between a label's text and the background picture under it, over the
// pixels its glyphs cover fully (their colour is the text's own, spans included).
double lowest_contrast(QLabel* label, const QImage& background)
{
    QImage drawn(label->size(), QImage::Format_ARGB32);
    drawn.fill(Qt::transparent);
    label->render(&drawn, QPoint(), QRegion(), QWidget::DrawChildren);
    double lowest = 21.0;
    for (int y = 0; y < drawn.height(); ++y)
        for (int x = 0; x < drawn.width(); ++x) {
            const QPoint at = label->pos() + QPoint(x, y);
            const QColor text = drawn.pixelColor(x, y);
            if (text.alpha() == 255 && background.rect().contains(at))
                lowest = std::min(lowest, contrast(text, background.pixelColor(at)));
        }
    return lowest;
}

// Where a label's text must stay: on the dark area left of the unit, in the version column,
// inside the window.
constexpr int left_column_end = 380;
constexpr int version_column = 228;
constexpr int window_margin = 37;

} // namespace

class TestLanguages : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void choose_data();
    void choose();
    void glibc_order_data();
    void glibc_order();
    void overlay_data();
    void overlay();

private:
    Settings::GUI english_;
};

void TestLanguages::initTestCase()
{
    support::setup_fonts();
    english_ = Settings::make_GUI(QStringLiteral(":resources/settings_GUI.json"));
    QCOMPARE(Languages::carried(), QStringList({"de", "es", "fr", "ja"}));
}

void TestLanguages::choose_data()
{
    QTest::addColumn<QStringList>("ui_languages");
    QTest::addColumn<QString>("chosen");

    QTest::newRow("region and script") << QStringList{"de-DE", "de-Latn-DE", "de"} << "de";
    QTest::newRow("first carried wins") << QStringList{"it-IT", "ja-JP", "fr"} << "ja";
    QTest::newRow("English stops the search") << QStringList{"en-GB", "fr"} << "en";
    QTest::newRow("none carried") << QStringList{"pt-BR", "pt"} << "en";
    QTest::newRow("plain C locale") << QStringList{} << "en";
    QTest::newRow("glibc spelling") << QStringList{"es_ES"} << "es";
}

void TestLanguages::choose()
{
    QFETCH(QStringList, ui_languages);
    QFETCH(QString, chosen);
    QCOMPARE(Languages::choose(ui_languages), chosen);
}

void TestLanguages::glibc_order_data()
{
    // Only the rows that end before Qt is asked: Qt reads the system locale once per process.
    QTest::addColumn<QByteArray>("lc_all");
    QTest::addColumn<QByteArray>("lang");

    QTest::newRow("LC_ALL=C") << QByteArray("C") << QByteArray("de_DE.UTF-8");
    QTest::newRow("LANG=POSIX") << QByteArray() << QByteArray("POSIX");
    QTest::newRow("no locale at all") << QByteArray() << QByteArray();
}

void TestLanguages::glibc_order()
{
    QFETCH(QByteArray, lc_all);
    QFETCH(QByteArray, lang);
    // Under the plain C locale gettext ignores LANGUAGE, and so does the window.
    qputenv("LANGUAGE", "de");
    qputenv("LC_ALL", lc_all);
    qunsetenv("LC_MESSAGES");
    qputenv("LANG", lang);
    QCOMPARE(Languages::ui_languages(), QStringList());
}

void TestLanguages::overlay_data()
{
    QTest::addColumn<QString>("language");
    for (const char* language : {"en", "de", "es", "fr", "ja"})
        QTest::newRow(language) << QString::fromLatin1(language);
}

void TestLanguages::overlay()
{
    QFETCH(QString, language);
    // English is the baseline every translation is measured against: it has no overlay.
    const Settings::GUI overlay = language == QLatin1String("en")
                                      ? Settings::GUI()
                                      : Settings::make_GUI(Languages::overlay_path(language));
    QCOMPARE(overlay.labels.empty(), language == QLatin1String("en"));
    Settings::Settings settings;
    settings.gui = english_;
    QCOMPARE(Languages::apply_overlay(settings.gui, overlay), QStringList());

    for (const Settings::LabelData& translated : overlay.labels) {
        const QString source = english_.text(translated.id);
        const QByteArray where = translated.id.toUtf8();
        // Every placeholder filled as in English, the markup kept, nothing drawn as a box.
        QVERIFY2(all_matches(translated.text, "%[0-9]|%p") == all_matches(source, "%[0-9]|%p"),
                 where.constData());
        QVERIFY2(all_matches(translated.text, "<[^>]*>") == all_matches(source, "<[^>]*>"), where.constData());
        QVERIFY2(translated.text.count(QLatin1Char('\n')) <= source.count(QLatin1Char('\n')),
                 where.constData());
        QVERIFY2(without_glyph(translated.text, QGuiApplication::font()).isEmpty(), where.constData());
    }

    // The window as the program builds it: every shown text inside its label and its area.
    settings.desired_FW_type = Device::Kestrel;
    settings.desired_FW_revision = QStringLiteral("2.3.0");
    const std::unique_ptr<MainWindow> window(MainWindow_factory(&settings, nullptr, true));
    // The window stretches the picture over its width.
    const QImage background = QImage(QStringLiteral(":/resources/background.jpg"))
                                  .scaled(window->size(), Qt::IgnoreAspectRatio,
                                          Qt::SmoothTransformation);
    for (QLabel* label : window->findChildren<QLabel*>(QString(), Qt::FindDirectChildrenOnly)) {
        const double lowest = lowest_contrast(label, background);
        QVERIFY2(lowest >= 4.5, qPrintable(QString::number(lowest) + ": " + label->text()));
        if (label == window->statusLabel())
            continue;
        const QSize text = label->sizeHint();
        const QByteArray where = QStringLiteral("%1: %2x%3 in %4x%5 at %6")
                                     .arg(plain(label->text()))
                                     .arg(text.width())
                                     .arg(text.height())
                                     .arg(label->width())
                                     .arg(label->height())
                                     .arg(label->x())
                                     .toUtf8();
        // The window allows a line its font's height, and a label's size hint adds a pixel a
        // line and a pixel on each side: English needs that slack too.
        const int lines = std::max(1, label->height() / label->fontMetrics().height());
        QVERIFY2(text.width() <= label->width() + 2 && text.height() <= label->height() + lines + 2,
                 where.constData());
        // Each line of a plain text clear of the install button, which sits beside step 3.
        if (!Qt::mightBeRichText(label->text())) {
            const QFontMetrics metrics = label->fontMetrics();
            const QStringList lines = label->text().split(QLatin1Char('\n'));
            int top = label->y() + (label->height() - text.height()) / 2;
            for (const QString& line : lines) {
                const QRect drawn(label->x(), top, metrics.horizontalAdvance(line),
                                  metrics.lineSpacing());
                QVERIFY2(!drawn.intersects(window->installButton()->geometry().adjusted(-4, 0, 0, 0)),
                         qPrintable(line));
                top += metrics.lineSpacing();
            }
        }
        if (label->alignment() & Qt::AlignRight)
            QVERIFY2(text.width() <= version_column, where.constData());
        else if (label->x() < left_column_end)
            QVERIFY2(label->x() + text.width() <= left_column_end, where.constData());
        else
            QVERIFY2(label->x() + text.width() <= window->width() - window_margin, where.constData());
    }

    QLabel* status = window->statusLabel();
    for (const Settings::LabelData& data : settings.gui.labels) {
        if (!data.id.startsWith(QLatin1String("status_")))
            continue;
        status->setText(filled(data.id, data.text));
        QVERIFY2(status->heightForWidth(status->width()) <= status->height(),
                 qPrintable(data.id));
    }

    const InstallButton* button = window->installButton();
    for (QPalette::ColorGroup group : {QPalette::Active, QPalette::Disabled}) {
        const QPalette& colours = button->palette();
        QVERIFY(contrast(colours.color(group, QPalette::ButtonText),
                         colours.color(group, QPalette::Button)) >= 4.5);
    }
    QVERIFY2(button->sizeHint().width() <= button->width(), qPrintable(button->text()));
    const ProgressBar* bar = window->progressBar();
    // The bar's text sits between its 2-pixel borders, with room for "100".
    const QStringList phases = {"progress_erasing",   "progress_writing",
                                "progress_restarting", "progress_verifying",
                                "progress_upgrading", "progress_uploadingVerifying",
                                "progress_done"};
    for (const QString& id : phases) {
        const QString shown = settings.gui.text(id).replace(QLatin1String("%p"), "100");
        QVERIFY2(bar->fontMetrics().horizontalAdvance(shown) <= bar->width() - 2 * 2 - 8,
                 qPrintable(shown));
    }
}

QTEST_MAIN(TestLanguages)
#include "tst_languages.moc"
