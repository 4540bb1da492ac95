// The upgrade's progress bar fed as the worker and the flow feed it: each phase weighted by its
// share, whole percent, never back, and short of 100 until "Done".
#include <QTest>

#include "app/upgradeprogress.h"
#include "gui/progressbar.h"

class tst_Progress final : public QObject
{
    Q_OBJECT

private slots:
    void bar_data();
    void bar();
};

void tst_Progress::bar_data()
{
    // Steps: "download", "end" (written), "broken" (broke off), "back", "verify", or
    // "E|W|R|V:fraction" for a record of the
    // erase, the write or the read-back, or the restart's fraction; after each, "value text".
    QTest::addColumn<QString>("steps");
    QTest::addColumn<QString>("shown");
    QTest::addColumn<bool>("upgrading"); // the bar stays while no unit is attached

    QTest::newRow("an upgrade, phase by phase")
        << "download E:0 E:0.5 E:1 W:0.5 W:1 end back verify V:0.5 V:1"
        << "0 progress_upgrading|0 progress_erasing|7 progress_erasing|15 progress_erasing|"
           "55 progress_writing|94 progress_writing|94 progress_restarting|94 progress_restarting|"
           "98 progress_verifying|99 progress_verifying|99 progress_verifying"
        << false;
    // The restart fills by time (here its fraction after 1 and 2 s), and only the read-back takes
    // the bar past its phase.
    QTest::newRow("waiting for the unit")
        << "download W:1 end R:0.286 R:0.571"
        << "0 progress_upgrading|94 progress_writing|94 progress_restarting|"
           "95 progress_restarting|96 progress_restarting"
        << true;
    // Without an erase stage (dfu-util 0.9 erases as it writes) the write covers the erase's
    // share too; a late record does not take the bar back.
    QTest::newRow("no erase stage, a late record")
        << "download W:0.5 W:1 E:1 W:0.4"
        << "0 progress_upgrading|47 progress_writing|94 progress_writing|94 progress_erasing|"
           "94 progress_writing"
        << true;
    QTest::newRow("verifying a unit that was not written")
        << "verify V:0.5 V:1"
        << "0 progress_uploadingVerifying|50 progress_verifying|99 progress_verifying" << false;
    QTest::newRow("a write that broke off restarts nothing")
        << "download W:0.5 broken"
        << "0 progress_upgrading|47 progress_writing|47 progress_writing" << false;
    // A tool that prints nothing keeps the time-based run, which the flow ends as it always has.
    QTest::newRow("no records") << "download end"
                                << "0 progress_upgrading|0 progress_upgrading" << false;
}

void tst_Progress::bar()
{
    QFETCH(QString, steps);
    QFETCH(QString, shown);
    ProgressBar progress_bar(nullptr);
    UpgradeProgress upgrade(&progress_bar, [](const QString& id) { return id; });
    QStringList seen;
    for (const QString& step : steps.split(QLatin1Char(' '))) {
        const QString what = step.section(QLatin1Char(':'), 0, 0);
        const double fraction = step.section(QLatin1Char(':'), 1).toDouble();
        if (what == QLatin1String("download"))
            upgrade.downloadStarted();
        else if (what == QLatin1String("end") || what == QLatin1String("broken"))
            upgrade.downloadEnded(what == QLatin1String("end") ? Upgrade::WriteEnd::Written
                                                               : Upgrade::WriteEnd::NotWritten);
        else if (what == QLatin1String("back"))
            upgrade.unitBack();
        else if (what == QLatin1String("verify"))
            upgrade.verificationStarted();
        else
            upgrade.toolProgress(what == QLatin1String("E")   ? DFU::Phase::Erasing
                                 : what == QLatin1String("W") ? DFU::Phase::Writing
                                 : what == QLatin1String("R") ? DFU::Phase::Restarting
                                                              : DFU::Phase::Verifying,
                                 fraction);
        seen << QStringLiteral("%1 %2").arg(progress_bar.value()).arg(progress_bar.format());
    }
    QCOMPARE(seen.join(QLatin1Char('|')), shown);
    QTEST(upgrade.upgrading(), "upgrading");
}

QTEST_MAIN(tst_Progress)
#include "tst_progress.moc"
