#include "gui/progressbar.h"

#include <algorithm>
#include <cmath>

#include <QRegularExpression>
#include <QTimer>

ProgressBar::ProgressBar(QWidget* parent)
    : QProgressBar(parent), min_interval_(50), timer_(new QTimer(this)), duration_(10000)
{
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
    setAccessibleName(QString(format).remove(percentage).remove(trailing_colon).trimmed());
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
