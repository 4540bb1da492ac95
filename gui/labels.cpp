// MainWindow's text labels, made from the layout model.
#include "gui/mainwindow.h"

#include <algorithm>

#include <QDebug>
#include <QFont>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QLabel>
#include <QRawFont>
#include <QScreen>

#include "device/products.h"
#include "gui/installbutton.h"
#include "gui/spoken.h"
#include "support/support_misc.h"

namespace {

double font_factor()
{
    static const double factor = [] {
        const QScreen* screen = QGuiApplication::primaryScreen();
        double f = (screen ? screen->physicalDotsPerInch() : 110.0) / 110.0;
        if (support_misc::compiled_for_platform() == support_misc::Platform::windows)
            f *= 1.3;
        return f;
    }();
    return factor;
}

QString filled_text(const Settings::Settings* settings, const Settings::LabelData& data)
{
    QString text = data.text;
    if (data.id == QLatin1String("2")) {
        const Device::ProductInfo product{settings->desired_FW_type};
        return text.replace(QLatin1String("%1"), product.product_name_full());
    }
    // The revision is the image's own bytes, so markup in it must show as text.
    if (data.id == QLatin1String("4"))
        return text.replace(QLatin1String("%1"), settings->desired_FW_revision.toHtmlEscaped());
    return text;
}

// Whether the font draws every character itself; others come from a fallback font (a CJK one for
// Japanese), whose lines are taller.
bool drawn_by(const QFont& font, const QString& text)
{
    const QRawFont raw = QRawFont::fromFont(font);
    const QList<uint> characters = text.toUcs4();
    return std::all_of(characters.begin(), characters.end(),
                       [&](uint c) { return c == '\n' || raw.supportsCharacter(c); });
}

bool is_one_of(const QString& id, const char* a, const char* b)
{
    return id == QLatin1String(a) || id == QLatin1String(b);
}

} // namespace

void MainWindow::addLabels(bool simulator)
{
    show();
    for (const Settings::LabelData& data : settings_->gui.labels) {
        if (!data.create) {
            if (data.id == QLatin1String("8b2") && install_button_) {
                install_button_->setText(data.text);
                continue;
            }
            if (!(data.id == QLatin1String("sim_mode") && simulator))
                continue;
        }
        if (data.text.isEmpty())
            continue;

        auto* label = new QLabel(data.text, this);
        label->setText(filled_text(settings_, data));
        label->setAccessibleName(spoken_text(label->text()));

        if (is_one_of(data.id, "2", "3"))
            label->setAlignment(Qt::AlignLeft | Qt::AlignTop);
        else if (is_one_of(data.id, "4", "4_hdr"))
            label->setAlignment(Qt::AlignRight | Qt::AlignTop);

        if (data.id == QLatin1String("9"))
            step3_label_ = label;
        else if (data.id == QLatin1String("status_noDev"))
            status_label_ = label;
        if (!data.font.isEmpty())
            label->setFont(QFont(data.font));

        if (data.size > 0) {
            QFont font = label->font();
            const int pixels = int(data.size * font_factor());
            if (pixels > 0)
                font.setPixelSize(pixels);
            label->setFont(font);
        }

        // Measured on the stored text, markup included: generous, so rich text never clips.
        const QFontMetrics metrics(label->font());
        int width = metrics.horizontalAdvance(data.text);
        const int lines = int(data.text.count(QLatin1Char('\n'))) + 1;
        const int height = metrics.height();
        if (is_one_of(data.id, "4", "4_hdr")) {
            // The version header is right-aligned against a fixed column.
            width = scaledTruncated(228.0);
            qInfo() << "Overriding width to " << width << "for text:" << data.text;
        }
        if (label == status_label_ && data.position.x() > 0 && data.position.y() > 0) {
            // A long status text (a translation, a long folder name) wraps inside the light strip
            // instead of running off the window: margins as on the left, down to the bottom edge.
            label->setWordWrap(true);
            width = scaledTruncated(665) - 2 * scaled(data.position.x());
            label->resize(width, scaledTruncated(517) - scaled(data.position.y()));
        } else if (drawn_by(label->font(), label->text())) {
            label->resize(width, height * lines);
        } else {
            label->resize(width, std::max(height * lines, label->sizeHint().height()));
        }

        label->setStyleSheet(
            data.white
                ? QStringLiteral("QLabel { background-color : rgba(0,0,0,0%); color : "
                                 "rgba(175,175,175,100%); }")
                : QStringLiteral("QLabel { background-color : rgba(0,0,0,0%); color : black; }"));

        if (data.position.x() > 0 && data.position.y() > 0)
            label->move(scaled(data.position.x()), scaled(data.position.y()));
        label->show();
    }
}

QString MainWindow::installDescription() const
{
    const Device::ProductInfo product{settings_->desired_FW_type};
    return settings_->gui.text(QStringLiteral("access_install"))
        .arg(product.product_name_full(), settings_->desired_FW_revision);
}
