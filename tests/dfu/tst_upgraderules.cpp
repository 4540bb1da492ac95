// The rules of an upgrade that the window's flow and the companion both follow: one table a rule.
#include <QTest>

#include "dfu/deviceinfo.h"
#include "dfu/upgraderules.h"

namespace {

const Upgrade::Carried carried{Device::Kestrel, QStringLiteral("2.3.0")};

// A unit as a read-out leaves it: "unread", "blank", or "<type>:<revision>".
DFU::DeviceInfo unit(const QString& kind)
{
    DFU::DeviceInfo info;
    info.valid = kind != QLatin1String("unread");
    info.OTP_info.empty = kind.startsWith(QLatin1String("blank"));
    info.type = kind.startsWith(QLatin1String("other")) ? Device::Verdant : Device::Kestrel;
    info.OTP_info.product.type = info.type;
    info.FW_revision = kind.section(QLatin1Char(':'), 1);
    return info;
}

} // namespace

class tst_UpgradeRules final : public QObject
{
    Q_OBJECT

private slots:
    void verdict_data();
    void verdict();
    void write_end_data();
    void write_end();
    void read_back_data();
    void read_back();
};

void tst_UpgradeRules::verdict_data()
{
    QTest::addColumn<QString>("unit");
    QTest::addColumn<QString>("verdict");
    // "check write forced repair": read back first; may be written as it is, when forced, after
    // a check that did not match.
    QTest::addColumn<QString>("rules");
    QTest::newRow("older revision") << "kestrel:2.2.0" << "other-revision" << "0 1 1 1";
    QTest::newRow("same revision") << "kestrel:2.3.0" << "same-revision" << "1 0 1 1";
    // A complete block without valid information: a write broken off early is repaired.
    QTest::newRow("no firmware block") << "kestrel:" << "other-revision" << "0 1 1 1";
    QTest::newRow("another product") << "other:2.3.0" << "other-product" << "0 0 0 0";
    // Only a service build gives a blank unit its first firmware; this build is none.
    QTest::newRow("blank, whatever its type byte") << "blank:2.2.0" << "blank" << "0 0 0 0";
    // A read-out that failed or came back short proves nothing, whatever it left behind.
    QTest::newRow("unreadable") << "unread" << "unreadable" << "0 0 0 0";
}

void tst_UpgradeRules::verdict()
{
    QFETCH(QString, unit);
    const Upgrade::Verdict verdict = Upgrade::verdict(::unit(unit), carried);
    QTEST(Upgrade::verdict_name(verdict), "verdict");
    QTEST(QStringLiteral("%1 %2 %3 %4")
              .arg(int(Upgrade::needs_check(verdict, false)))
              .arg(int(Upgrade::may_write(verdict, false)))
              .arg(int(Upgrade::may_write(verdict, true)))
              .arg(int(Upgrade::may_write(verdict, false, true))),
          "rules");
}

void tst_UpgradeRules::write_end_data()
{
    QTest::addColumn<int>("exit_code");
    QTest::addColumn<qint64>("written");
    QTest::addColumn<int>("end");
    const int written = int(Upgrade::WriteEnd::Written),
              unconfirmed = int(Upgrade::WriteEnd::Unconfirmed),
              not_written = int(Upgrade::WriteEnd::NotWritten);
    QTest::newRow("success") << 0 << qint64(573088) << written;
    // A tool that prints no progress is taken at its word.
    QTest::newRow("success without records") << 0 << qint64(0) << written;
    // The leave's last poll failed after the last block (every release exits 74 then).
    QTest::newRow("every byte out, end unconfirmed") << 74 << qint64(573088) << unconfirmed;
    QTest::newRow("broken off in the last block") << 74 << qint64(571392) << not_written;
    QTest::newRow("crashed before writing") << -1 << qint64(0) << not_written;
}

void tst_UpgradeRules::write_end()
{
    QFETCH(int, exit_code);
    QFETCH(qint64, written);
    // Records of the erase count nothing, only the write's.
    Upgrade::WriteTally tally;
    tally.handler()({DFU::Phase::Erasing, 100, 573088});
    tally.handler()({DFU::Phase::Writing, 100, written});
    QTEST(int(Upgrade::write_end(exit_code, tally.bytes_written(), 573088)), "end");
}

void tst_UpgradeRules::read_back_data()
{
    QTest::addColumn<QByteArray>("read");
    QTest::addColumn<bool>("complete");
    QTest::addColumn<bool>("matches");
    QTest::addColumn<qint64>("first_difference");
    QTest::addColumn<int>("sector");

    // 150 KB of image, read back in whole 2048-byte blocks.
    const QByteArray image = QByteArray(150 * 1024, 'i');
    QByteArray flipped = image;
    flipped[0x10000] = 'x';
    QByteArray past_128k = image;
    past_128k[0x20000 + 5] = 'x';
    QTest::newRow("the same bytes") << image << true << true << qint64(-1) << -1;
    QTest::newRow("a byte differs in the 64 KB sector") << flipped << true << false
                                                       << qint64(0x10000) << 4;
    QTest::newRow("a byte differs in the first 128 KB sector")
        << past_128k << true << false << qint64(0x20005) << 5;
    // A read cut short after 16 KB: what came back matches, the rest is missing.
    QTest::newRow("short") << image.left(16 * 1024) << false << false << qint64(16 * 1024) << 1;
    QTest::newRow("nothing") << QByteArray() << false << false << qint64(0) << 0;
}

void tst_UpgradeRules::read_back()
{
    QFETCH(QByteArray, read);
    const QByteArray image = QByteArray(150 * 1024, 'i');
    const Upgrade::ReadBack judged = Upgrade::judge_read_back(image, read, image.size());
    QTEST(judged.complete, "complete");
    QTEST(judged.matches, "matches");
    QTEST(judged.first_difference, "first_difference");
    QTEST(judged.sector, "sector");
    QCOMPARE(judged.sha256.size(), 32);
}

QTEST_GUILESS_MAIN(tst_UpgradeRules)
#include "tst_upgraderules.moc"
