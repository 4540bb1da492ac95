// MainWindow's text labels, made from the layout model.
#include "gui/mainwindow.h"

#include <QDebug>
#include <QFont>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QLabel>
#include <QScreen>

#include "device/products.h"
#include "gui/installbutton.h"
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
        label->resize(width, height * lines);

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
