#include "gui/progressbar.h"

#include <algorithm>
#include <cmath>

#include <QAccessible>
#include <QAccessibleWidget>
#include <QRegularExpression>
#include <QTimer>

// What assistive technology reads from the bar: Qt's own interface would fall back to the bar's
// text, so a hidden bar would be named by whatever caption it keeps.
class ProgressBarAccessible final : public QAccessibleWidget, public QAccessibleValueInterface
{
public:
    explicit ProgressBarAccessible(ProgressBar* bar)
        : QAccessibleWidget(bar, QAccessible::ProgressBar), bar(bar)
    {}

    QString text(QAccessible::Text t) const override
    {
        return t == QAccessible::Name ? bar->spokenName() : QAccessibleWidget::text(t);
    }

    void* interface_cast(QAccessible::InterfaceType t) override
    {
        // None while QProgressBar::setValue announces a step: Qt's AT-SPI bridge passes over a
        // value change of an object without a value (qtbase's atspiadaptor.cpp).
        if (t == QAccessible::ValueInterface)
            return bar->quiet_ ? nullptr : static_cast<QAccessibleValueInterface*>(this);
        return QAccessibleWidget::interface_cast(t);
    }

    QVariant currentValue() const override { return bar->value(); }
    void setCurrentValue(const QVariant&) override {}
    QVariant maximumValue() const override { return bar->maximum(); }
    QVariant minimumValue() const override { return bar->minimum(); }
    QVariant minimumStepSize() const override { return 1; }

private:
    ProgressBar* bar;
};

namespace {

QAccessibleInterface* accessible_bar(const QString& class_name, QObject* object)
{
    auto* bar =
        class_name == QLatin1String("ProgressBar") ? qobject_cast<ProgressBar*>(object) : nullptr;
    return bar ? new ProgressBarAccessible(bar) : nullptr;
}

} // namespace

ProgressBar::ProgressBar(QWidget* parent)
    : QProgressBar(parent), min_interval_(50), timer_(new QTimer(this)), duration_(10000)
{
    static const bool factory_installed = (QAccessible::installFactory(accessible_bar), true);
    Q_UNUSED(factory_installed);
    setup_GUI();
    connect(timer_, &QTimer::timeout, this, &ProgressBar::increase);
}

void ProgressBar::setup_GUI()
{
    setRange(0, 100);
    setStyleSheet(QStringLiteral("\n"
                                 "QProgressBar {\n"
                                 "    border: 2px solid grey;\n"
                                 "    border-radius: 5px;\n"
                                 "    text-align: center;\n"
                                 "}\n"
                                 "\n"
                                 "QProgressBar::chunk {\n"
                                 "    background-color: rgba(160,240,140,100%);\n"
                                 "    width: 5px;\n"
                                 "}\n"));
}

void ProgressBar::setFormat(const QString& format)
{
    QProgressBar::setFormat(format);
    static const QRegularExpression percentage(QStringLiteral("%[pvm]%?"));
    static const QRegularExpression trailing_colon(QStringLiteral("[\\s:\\x{ff1a}]+$"));
    phase_ = QString(format).remove(percentage).remove(trailing_colon).trimmed();
    announcement_.request();
}

void ProgressBar::setValue(int value)
{
    quiet_ = true;
    QProgressBar::setValue(value);
    quiet_ = false;
    announcement_.request();
}

void ProgressBar::setVisible(bool visible)
{
    QProgressBar::setVisible(visible);
    announcement_.request();
}

// The value before the name: the name says what the bar has come to, "Done" last.
void ProgressBar::announce()
{
    if (!isHidden() && value() != announced_value_) {
        announced_value_ = value();
        QAccessibleValueChangeEvent event(this, announced_value_);
        QAccessible::updateAccessibility(&event);
    }
    if (spokenName() != announced_name_) {
        announced_name_ = spokenName();
        QAccessibleEvent event(this, QAccessible::NameChanged);
        QAccessible::updateAccessibility(&event);
    }
}

void ProgressBar::startAutoProgress(const QString& format, double seconds)
{
    timer_->stop();
    setValue(minimum());
    setFormat(format);
    if (seconds >= 0) {
        // Clamp before converting: a huge value must not overflow into a negative duration.
        const double ms = std::min(seconds * 1000.0, double(INT32_MAX));
        duration_ = std::max<std::int32_t>(std::int32_t(ms), 1);
    }
    startAutoProgress();
}

void ProgressBar::startAutoProgress()
{
    // Widened: the difference of an extreme range does not fit in an int.
    steps_ = std::int32_t(std::clamp<qint64>(qint64(maximum()) - minimum(), 1, INT32_MAX));
    const int interval = std::max(duration_ / steps_, min_interval_);
    setValue(minimum());
    timer_->setInterval(interval);
    timer_->start();
    clock_.start();
    show();
}

void ProgressBar::increase()
{
    // A stray tick before the first start has no clock to read.
    if (!clock_.isValid())
        return;
    setValue(int(double(steps_) * (double(clock_.elapsed()) / double(duration_))));
    if (clock_.elapsed() > duration_) {
        timer_->stop();
        setValue(maximum());
        emit finished();
    }
}

void ProgressBar::showProgress(const QString& format, int percent)
{
    timer_->stop();
    setFormat(format);
    setValue(std::clamp(percent, minimum(), maximum()));
    show();
}
