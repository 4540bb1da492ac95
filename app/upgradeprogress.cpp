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
    connect(&restart_tick, &QTimer::timeout, this, [this] {
        // Up to nine tenths of the phase in the usual time, then ever slower towards its end:
        // the bar keeps moving, yet only the read-back takes it further.
        const double t = double(restart_clock.elapsed()) / restart_ms;
        const double f = t < 0.9 ? t : 0.9 + 0.09 * (1.0 - std::exp(-(t - 0.9)));
        show(Phase::Restarting, f);
    });
}

double UpgradeProgress::overall(Phase phase, double fraction, bool verify_only)
{
    fraction = std::clamp(fraction, 0.0, 1.0);
    if (verify_only)
        return phase == Phase::Verifying ? fraction : 0.0;
    double before = 0.0;
    for (int p = 0; p < int(phase); ++p)
        before += share[p];
    return before + share[int(phase)] * fraction;
}

void UpgradeProgress::show(Phase phase, double fraction)
{
    // Whole percent, never back, and 100 only with "Done".
    const int percent =
        std::min(99, int(std::floor(100.0 * overall(phase, fraction, verify_only))));
    if (percent > shown || phase != logged_phase)
        qInfo().noquote() << "Progress:" << std::max(shown, percent) << "%"
                          << phase_text[int(phase)];
    logged_phase = phase;
    shown = std::max(shown, percent);
    bar->showProgress(text(QString::fromLatin1(phase_text[int(phase)])), shown);
}

void UpgradeProgress::downloadStarted()
{
    state = State::Writing;
    streamed = false;
    verify_only = false;
    shown = 0;
    restart_tick.stop();
}

void UpgradeProgress::toolProgress(SM_A::Stage stage, double fraction)
{
    if (state == State::Idle)
        return;
    streamed = true;
    switch (stage) {
    case SM_A::Stage::Erasing:
        show(Phase::Erasing, fraction);
        break;
    case SM_A::Stage::Writing:
        show(Phase::Writing, fraction);
        break;
    case SM_A::Stage::Verifying:
        show(Phase::Verifying, fraction);
        break;
    }
}

void UpgradeProgress::downloadEnded()
{
    // Without records the bar was the time-based run, which the flow hides now as it always has.
    if (state != State::Writing || !streamed) {
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
    verify_only = state != State::Back;
    if (verify_only) {
        streamed = false;
        shown = 0;
    }
    state = State::Verifying;
    if (streamed)
        show(Phase::Verifying, 0.0);
}

void UpgradeProgress::done()
{
    restart_tick.stop();
    state = State::Idle;
    shown = 100;
    // The end of the upgrade: the bar's new name says what to do now.
    QAccessibleEvent alert(bar, QAccessible::Alert);
    QAccessible::updateAccessibility(&alert);
}

void UpgradeProgress::abandon()
{
    restart_tick.stop();
    state = State::Idle;
}
