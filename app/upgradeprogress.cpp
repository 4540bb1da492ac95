#include "app/upgradeprogress.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <QAccessible>
#include <QDebug>

#include "gui/progressbar.h"

namespace {

const char* const phase_text[] = {"progress_erasing", "progress_writing", "progress_restarting",
                                  "progress_verifying"};

} // namespace

UpgradeProgress::UpgradeProgress(ProgressBar* bar, std::function<QString(const QString& id)> text)
    : QObject(bar), bar(bar), text(std::move(text))
{
    restart_tick.setInterval(100);
    connect(&restart_tick, &QTimer::timeout, this,
            [this] { show(Phase::Restarting, restart_fraction(restart_clock.elapsed())); });
}

double UpgradeProgress::restart_fraction(qint64 elapsed_ms)
{
    const double t = double(elapsed_ms) / restart_ms;
    return t < 0.9 ? t : 0.9 + 0.09 * (1.0 - std::exp(-(t - 0.9)));
}

QString UpgradeProgress::caption(const char* id, const char* english) const
{
    const QString found = text(QString::fromLatin1(id));
    return found.isEmpty() ? QString::fromLatin1(english) : found;
}

double UpgradeProgress::overall(Phase phase, double fraction, bool verify_only, bool erase_reported)
{
    fraction = std::clamp(fraction, 0.0, 1.0);
    if (verify_only)
        return phase == Phase::Verifying ? fraction : 0.0;
    if (phase == Phase::Writing && !erase_reported)
        return (share[0] + share[1]) * fraction;
    double before = 0.0;
    for (int p = 0; p < int(phase); ++p)
        before += share[p];
    return before + share[int(phase)] * fraction;
}

void UpgradeProgress::show(Phase phase, double fraction)
{
    // Whole percent, never back, and 100 only with "Done".
    const int percent = std::min(
        99, int(std::floor(100.0 * overall(phase, fraction, verify_only, erase_reported))));
    if (percent > shown || phase != logged_phase)
        qInfo().noquote() << "Progress:" << std::max(shown, percent) << "%"
                          << phase_text[int(phase)];
    logged_phase = phase;
    shown = std::max(shown, percent);
    bar->showProgress(text(QString::fromLatin1(phase_text[int(phase)])), shown);
}

void UpgradeProgress::downloadStarted()
{
    bar->startAutoProgress(caption("progress_upgrading", "Upgrading firmware"), 100.0);
    state = State::Writing;
    streamed = false;
    erase_reported = false;
    verify_only = false;
    shown = 0;
    restart_tick.stop();
}

void UpgradeProgress::toolProgress(DFU::Phase phase, double fraction)
{
    if (state == State::Idle)
        return;
    streamed = true;
    erase_reported = erase_reported || phase == Phase::Erasing;
    show(phase, fraction);
}

void UpgradeProgress::downloadEnded(Upgrade::WriteEnd end)
{
    // Without records the bar was the time-based run, which the flow hides now as it always has;
    // a write that broke off restarts nothing, and the bar goes with the unit.
    if (state != State::Writing || !streamed || end == Upgrade::WriteEnd::NotWritten) {
        state = State::Idle;
        return;
    }
    state = State::Restarting;
    restart_clock.start();
    restart_tick.start();
    show(Phase::Restarting, 0.0);
}

void UpgradeProgress::unitBack()
{
    if (state != State::Restarting)
        return;
    restart_tick.stop();
    state = State::Back;
}

void UpgradeProgress::verificationStarted()
{
    bar->startAutoProgress(caption("progress_uploadingVerifying", "Uploading & verifying"), 0.5);
    verify_only = state != State::Back;
    if (verify_only) {
        streamed = false;
        shown = 0;
    }
    state = State::Verifying;
    if (streamed)
        show(Phase::Verifying, 0.0);
}

void UpgradeProgress::stop()
{
    restart_tick.stop();
    state = State::Idle;
}

void UpgradeProgress::matches()
{
    stop();
    shown = 100;
    bar->timer()->stop();
    bar->setValue(bar->maximum());
    bar->setFormat(caption("progress_done", "Done. Disconnect USB cable."));
    // The end of the upgrade: the bar's new name says what to do now.
    QAccessibleEvent alert(bar, QAccessible::Alert);
    QAccessible::updateAccessibility(&alert);
}

void UpgradeProgress::differs()
{
    stop();
    bar->timer()->stop();
    bar->setValue(bar->minimum());
    // The caption is kept although the bar hides at once, so a later show without a new format
    // still explains itself.
    bar->setFormat(QStringLiteral("FW differs"));
    bar->hide();
}

void UpgradeProgress::hideUnlessUpgrading()
{
    if (upgrading())
        return;
    stop();
    bar->timer()->stop();
    bar->setFormat(QStringLiteral("This text should not be visible!"));
    bar->hide();
}
