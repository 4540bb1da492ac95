// The progress bar through a whole upgrade: erase, write, the unit's restart and the read-back,
// each weighted by its share of a real unit's upgrade, driven by dfu-util's own progress output.
#pragma once

#include <functional>

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include "statemachines/sm_a.h"

class ProgressBar;

class UpgradeProgress final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(UpgradeProgress)

public:
    // text(id) looks a layout text up.
    UpgradeProgress(ProgressBar* bar, std::function<QString(const QString& id)> text);

    enum class Phase { Erasing, Writing, Restarting, Verifying };
    // Shares of a real-timing upgrade on the virtual unit (bench/progress.sh, docs/performance.md):
    // click to the first write 12.0 s, write 58.9 s, leave to read-back 3.5 s, read-back 1.0 s.
    static constexpr double share[4] = {0.159, 0.782, 0.046, 0.013};
    // How long the unit usually takes from the leave until its read-back starts.
    static constexpr int restart_ms = 3500;

    // The whole upgrade's done fraction at `fraction` of `phase`; `verify_only` when no write
    // came before. Pure, for the tests.
    static double overall(Phase phase, double fraction, bool verify_only);

    // Whether the bar belongs to a running upgrade, which a passing "no unit" must not hide.
    bool upgrading() const { return state == State::Writing || state == State::Restarting; }

public slots:
    void downloadStarted();
    void toolProgress(SM_A::Stage stage, double fraction);
    void downloadEnded();
    void unitBack();
    void verificationStarted();
    void done();
    // The upgrade ended otherwise (a difference, another unit): the caller hides the bar.
    void abandon();

private:
    enum class State { Idle, Writing, Restarting, Back, Verifying };

    void show(Phase phase, double fraction);

    ProgressBar* bar;
    std::function<QString(const QString&)> text;
    State state = State::Idle;
    bool streamed = false;    // dfu-util's records arrived in this upgrade
    bool verify_only = false; // the verification of a unit that was not written first
    int shown = 0;            // the bar never goes back
    Phase logged_phase = Phase::Verifying;
    QTimer restart_tick;
    QElapsedTimer restart_clock;
};
