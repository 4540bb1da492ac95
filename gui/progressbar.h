// A progress bar that fills itself over an expected duration and reports when the time is up.
#pragma once

#include <cstdint>

#include <QElapsedTimer>
#include <QProgressBar>
#include <QString>

class QTimer;

class ProgressBar final : public QProgressBar
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ProgressBar)

public:
    explicit ProgressBar(QWidget* parent);

    void setup_GUI();

    std::int32_t duration() const { return duration_; }

    // Also names the bar for assistive technology: the phase, without the percentage that the
    // bar's value carries. Hides QProgressBar::setFormat, which is not virtual.
    void setFormat(const QString& format);
    QTimer* timer() const { return timer_; }

signals:
    void finished();

public slots:
    void startAutoProgress(const QString& format, double seconds = -1.0);
    void startAutoProgress();
    void increase();
    // A known fraction instead of the time-based run: the text (a format, %p for the percentage)
    // and the value in percent; shows the bar.
    void showProgress(const QString& format, int percent);

private:
    std::int32_t steps_ = 1;
    std::int32_t min_interval_ = 50;
    QTimer* timer_ = nullptr;
    QElapsedTimer clock_;
    std::int32_t duration_ = 10000;
};
