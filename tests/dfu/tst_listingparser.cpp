// Classification of dfu-util listings and the scan result built from them.
#include <QtTest>

#include "dfu/listingparser.h"
#include "dfu/scan.h"
#include "listings.h"
#include "common/logcapture.h"

using listings::banner;
using listings::line;
using listings::unit;

namespace {

const QString A = QStringLiteral("3473375A3334");
const QString B = QStringLiteral("205F32845431");

} // namespace

class tst_ListingParser final : public QObject
{
    Q_OBJECT

private slots:
    void classifies_listing_data();
    void classifies_listing();
    void line_without_serial_stops_parsing();
    void status_as_string_data();
    void status_as_string();
};

void tst_ListingParser::classifies_listing_data()
{
    QTest::addColumn<QString>("listing");
    QTest::addColumn<int>("status");
    QTest::addColumn<QStringList>("serials");
    QTest::addColumn<int>("scan_status");

    const int none = DfuUtilParser::no_dfu_device;
    const int one = DfuUtilParser::one_dfu_device;
    const int invalid = DfuUtilParser::invalid_dfu_device;
    const int multiple = DfuUtilParser::multiple_dfu_devices;

    QTest::newRow("empty text") << QString() << none << QStringList() << 1;
    QTest::newRow("banner only, nothing attached") << banner << none << QStringList() << 1;
    QTest::newRow("one unit on four lines") << banner + unit(A) << one << QStringList{A} << 0;
    QTest::newRow("one unit without banner") << unit(A) << one << QStringList{A} << 0;
    QTest::newRow("three lines") << banner + unit(A, 3) << invalid << QStringList{A} << 1;
    QTest::newRow("five lines") << banner + unit(A, 5) << invalid << QStringList{A} << 1;
    QTest::newRow("two units, four lines each")
        << banner + unit(A) + unit(B, 4, 9) << multiple << QStringList{A, B} << 1;
    QTest::newRow("alternating units")
        << banner + line(A, 3) + line(B, 3, QStringLiteral("2200"), 9) + line(A, 2) +
               line(B, 2, QStringLiteral("2200"), 9)
        << multiple << QStringList{A, B, A, B} << 1;
    QTest::newRow("other device release is not seen")
        << banner + line(A, 3, QStringLiteral("2201")) + line(A, 2, QStringLiteral("2201")) +
               line(A, 1, QStringLiteral("2201")) + line(A, 0, QStringLiteral("2201"))
        << none << QStringList() << 1;
    QTest::newRow("one line of another release among four good ones")
        << banner + unit(A) + line(A, 0, QStringLiteral("2201")) << one << QStringList{A} << 0;
    QTest::newRow("leading blanks do not count")
        << banner + QStringLiteral("  ") + line(A, 3) + line(A, 2) + line(A, 1) + line(A, 0)
        << invalid << QStringList{A} << 1;
    QTest::newRow("CRLF line ends")
        << QString(banner + unit(A)).replace(QStringLiteral("\n"), QStringLiteral("\r\n")) << one
        << QStringList{A} << 0;
    QTest::newRow("lower-case serial kept as written")
        << banner + unit(QStringLiteral("3473375a3334")) << one
        << QStringList{QStringLiteral("3473375a3334")} << 0;
    QTest::newRow("serial with a non-hex digit")
        << banner + unit(QStringLiteral("UNKNOWN")) << none << QStringList() << 1;
    QTest::newRow("other vendor's DFU device ignored")
        << banner +
               QStringLiteral("Found DFU: [1d50:6017] ver=2200, devnum=3, cfg=1, intf=0, "
                              "path=\"1-1\", alt=0, name=\"UNKNOWN\", serial=\"12AB\"\n") +
               unit(A)
        << one << QStringList{A} << 0;
}

void tst_ListingParser::classifies_listing()
{
    QFETCH(QString, listing);
    QFETCH(int, status);
    QFETCH(QStringList, serials);
    QFETCH(int, scan_status);

    const DfuUtilParser parser(listing);
    QCOMPARE(int(parser.status), status);
    QCOMPARE(parser.serials, serials);
    QCOMPARE(parser.number_of_devices, int(serials.size()));

    const DFU::ScanResult scan = DFU::scan_for_devices(listing);
    QCOMPARE(scan.status, scan_status);
    QStringList scanned;
    for (const DFU::DeviceItem& item : scan.devices)
        scanned << item.serial;
    QCOMPARE(scanned, serials);
}

void tst_ListingParser::line_without_serial_stops_parsing()
{
    const QString bad = line(QString(), 1);
    const QString listing = banner + line(A, 3) + line(B, 2) + bad + line(A, 0);

    LogCapture log;
    const DfuUtilParser parser(listing);

    QCOMPARE(parser.status, DfuUtilParser::no_dfu_device);
    QCOMPARE(parser.number_of_devices, 0);
    QCOMPARE(parser.serials, (QStringList{A, B}));
    QCOMPARE(log.lines(),
             QStringList{QStringLiteral(
                 "debug: Listing line without serial number: \"Found DFU: [0483:df11] ver=2200, "
                 "devnum=7, cfg=1, intf=0, path=\\\"1-2.4\\\", alt=1, "
                 "name=\\\"@Option Bytes  /0x1FFFC000/01*016 e\\\"\"")});

    const DFU::ScanResult scan = DFU::scan_for_devices(listing);
    QCOMPARE(scan.status, 1);
    QCOMPARE(scan.devices.size(), 2);
}

void tst_ListingParser::status_as_string_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("text");

    QTest::newRow("none") << 0 << QStringLiteral("no_dfu_device");
    QTest::newRow("one") << 1 << QStringLiteral("one_dfu_device");
    QTest::newRow("invalid") << 2 << QStringLiteral("invalid_dfu_device");
    QTest::newRow("multiple") << 3 << QStringLiteral("multiple_dfu_devices");
    QTest::newRow("outside the four") << 7 << QString();
}

void tst_ListingParser::status_as_string()
{
    QFETCH(int, status);
    QFETCH(QString, text);

    DfuUtilParser parser{QString()};
    parser.status = DfuUtilParser::Status(status);
    QCOMPARE(parser.status_as_string(), text);
}

QTEST_GUILESS_MAIN(tst_ListingParser)
#include "tst_listingparser.moc"
