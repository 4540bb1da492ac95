// The progress bar through a whole upgrade: erase, write, the unit's restart and the read-back,
// each weighted by its share of a real unit's upgrade, driven by dfu-util's own progress output.
// The bar's one owner: nothing else shows, hides, fills or times it.
#pragma once

#include <functional>

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include "dfu/progress.h"
#include "dfu/upgraderules.h"

class ProgressBar;

class UpgradeProgress final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(UpgradeProgress)

public:
    // text(id) looks a layout text up.
    UpgradeProgress(ProgressBar* bar, std::function<QString(const QString& id)> text);

    using Phase = DFU::Phase;
    // Shares of a real-timing upgrade on the virtual unit (bench/progress.sh, docs/performance.md):
    // click to the first write 12.0 s, write 58.9 s, leave to read-back 3.5 s, read-back 1.0 s.
    static constexpr double share[4] = {0.159, 0.782, 0.046, 0.013};
    // How long the unit usually takes from the leave until its read-back starts.
    static constexpr int restart_ms = 3500;

    // The whole upgrade's done fraction at `fraction` of `phase`; `verify_only` when no write
    // came before; without `erase_reported` the write's records cover the erase's share too
    // (dfu-util 0.9 erases each sector as it writes and prints no erase stage).
    static double overall(Phase phase, double fraction, bool verify_only, bool erase_reported);
    // The restart phase's fraction after elapsed_ms: up to nine tenths in the usual time, then
    // ever slower towards its end, so the bar keeps moving, yet only the read-back takes it on.
    static double restart_fraction(qint64 elapsed_ms);

    // Whether the bar belongs to a running upgrade, which a passing "no unit" must not hide.
    bool upgrading() const { return state == State::Writing || state == State::Restarting; }

public slots:
    // The flow's steps: the time-based run stands until dfu-util's first progress record
    // replaces it, and stays for a tool that prints none.
    void downloadStarted();
    void verificationStarted();
    void toolProgress(DFU::Phase phase, double fraction);
    void downloadEnded(Upgrade::WriteEnd end);
    void unitBack();
    // The read-back matched: full, with what to do now.
    void matches();
    // The read-back differed: the bar goes, for the offer to install again.
    void differs();
    // No upgrade needs the bar any more (no unit, another unit), unless one is running: a unit
    // away for its restart does.
    void hideUnlessUpgrading();

private:
    enum class State { Idle, Writing, Restarting, Back, Verifying };

    void show(Phase phase, double fraction);
    // A layout text, or the English words where an outside layout file lacks the id.
    QString caption(const char* id, const char* english) const;
    void stop();

    ProgressBar* bar;
    std::function<QString(const QString&)> text;
    State state = State::Idle;
    bool streamed = false;    // dfu-util's records arrived in this upgrade
    bool verify_only = false; // the verification of a unit that was not written first
    bool erase_reported = false; // dfu-util printed an erase stage in this upgrade
    int shown = 0;            // the bar never goes back
    Phase logged_phase = Phase::Verifying;
    QTimer restart_tick;
    QElapsedTimer restart_clock;
};
