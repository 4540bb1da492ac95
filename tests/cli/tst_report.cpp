// The companion's decision on a unit's record: the window's rule, and what --force may change.
#include <QTest>

#include "cli/report.h"

namespace {

DFU::DeviceInfo record(Device::Type type, const QString& revision, bool blank = false)
{
    DFU::DeviceInfo info;
    info.valid = true;
    info.type = type;
    info.OTP_info.empty = blank;
    info.OTP_info.product.type = type;
    info.FW_revision = revision;
    return info;
}

} // namespace

class tst_Report final : public QObject
{
    Q_OBJECT

private slots:
    void decision_data();
    void decision();
};

void tst_Report::decision_data()
{
    QTest::addColumn<DFU::DeviceInfo>("info");
    QTest::addColumn<bool>("force");
    QTest::addColumn<int>("expected");
    const int write = int(Cli::Decision::Write), current = int(Cli::Decision::Current),
              other = int(Cli::Decision::OtherProduct), blank = int(Cli::Decision::Blank);
    const QString same = QStringLiteral("2.3.0");
    QTest::newRow("older revision") << record(Device::Kestrel, "2.2.0") << false << write;
    QTest::newRow("same revision") << record(Device::Kestrel, same) << false << current;
    QTest::newRow("same revision, --force") << record(Device::Kestrel, same) << true << write;
    // An unreadable information block leaves no revision: a write repairs the unit.
    QTest::newRow("no firmware block") << record(Device::Kestrel, "") << false << write;
    QTest::newRow("another product") << record(Device::Verdant, same) << false << other;
    QTest::newRow("another product, --force") << record(Device::Verdant, "1.4.0") << true << other;
    QTest::newRow("blank, --force") << record(Device::Invalid, "", true) << true << blank;
    QTest::newRow("blank with the right type byte")
        << record(Device::Kestrel, "2.2.0", true) << false << blank;
    DFU::DeviceInfo unread = record(Device::Kestrel, "2.2.0");
    unread.valid = false;
    QTest::newRow("identity not read, --force") << unread << true << other;
}

void tst_Report::decision()
{
    QFETCH(DFU::DeviceInfo, info);
    QFETCH(bool, force);
    QFETCH(int, expected);
    QCOMPARE(int(Cli::decide(info, Device::Kestrel, QStringLiteral("2.3.0"), force)), expected);
}

QTEST_GUILESS_MAIN(tst_Report)
#include "tst_report.moc"
