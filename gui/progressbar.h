// A progress bar that fills itself over an expected duration and reports when the time is up.
#pragma once

#include <cstdint>

#include <QElapsedTimer>
#include <QProgressBar>
#include <QString>

#include "gui/spoken.h"

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
    // Hides QProgressBar::setValue, which announces every step itself: the bar announces the
    // value it settles on.
    void setValue(int value);
    void setVisible(bool visible) override;
    // The name a screen reader hears: the phase, and nothing while the bar is hidden, whatever
    // text a hidden bar keeps.
    QString spokenName() const { return isHidden() ? QString() : phase_; }
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
    friend class ProgressBarAccessible;

    void announce();

    std::int32_t steps_ = 1;
    std::int32_t min_interval_ = 50;
    QTimer* timer_ = nullptr;
    QElapsedTimer clock_;
    std::int32_t duration_ = 10000;

    QString phase_;
    bool quiet_ = false; // Qt's own value announcement is under way
    QString announced_name_;
    int announced_value_ = -1;
    SettledAnnouncement announcement_{this, [this] { announce(); }};
};
