// Tests of the OTP record reader: locating the record, type checks, log lines, printable form.
#include <QtTest>

#include "device/otpinfo.h"
#include "common/logcapture.h"
#include "recordbuilders.h"

using namespace Device;
using namespace builders;

Q_DECLARE_METATYPE(Device::Type)

namespace {

const QString unknown_line = QStringLiteral("info: Unknown device type according to OTP info,  ");
const QString not_used_line =
    QStringLiteral("info: Device not used, has invalid info in its OTP info.");

OtpRecord record(std::uint8_t type)
{
    return OtpRecord().with_type(type);
}

} // namespace

class tst_OtpInfo : public QObject
{
    Q_OBJECT

private slots:
    void parse_data();
    void parse();
    void fields_copied_from_record();
    void printable_data();
    void printable();
    void product_name();
    void debug_stream_unquoted();
    void from_file();
    void hostile_input_data();
    void hostile_input();
    void random_input();
};

void tst_OtpInfo::parse_data()
{
    QTest::addColumn<QByteArray>("otp");
    QTest::addColumn<Type>("type");
    QTest::addColumn<int>("raw_type");
    QTest::addColumn<bool>("marker_valid");
    QTest::addColumn<bool>("empty");
    QTest::addColumn<QStringList>("log");

    const QStringList quiet;

    QTest::newRow("no bytes") << QByteArray() << Invalid << 0 << false << true << quiet;
    QTest::newRow("erased area") << otp_area().bytes() << Invalid << 0 << false << true << quiet;
    QTest::newRow("one erased byte")
        << QByteArray(1, '\xFF') << Invalid << 0 << false << true << quiet;
    QTest::newRow("all zero, no marker")
        << QByteArray(512, '\0') << Invalid << 0 << false << false << quiet;
    QTest::newRow("stray byte, no marker")
        << otp_area().put(100, "\x42").bytes() << Invalid << 0 << false << false << quiet;

    QTest::newRow("record at 0") << otp_area().put(0, record(Kestrel)).bytes() << Kestrel << 3
                                 << true << false << quiet;
    QTest::newRow("record at 480")
        << otp_area().put(480, record(Verdant)).bytes() << Verdant << 4 << true << false << quiet;
    QTest::newRow("record at 496, the last slot")
        << otp_area().put(496, record(Cinder)).bytes() << Cinder << 140 << true << false << quiet;
    QTest::newRow("marker at 497, misaligned")
        << otp_area().put(497, record(Kestrel).bytes().left(15)).bytes() << Invalid << 0 << false
        << false << quiet;
    QTest::newRow("aligned marker at 512 of a longer area")
        << Bytes(1024, '\xFF').put(512, record(Kestrel)).bytes() << Invalid << 0 << false << false
        << quiet;
    QTest::newRow("two records, the later wins")
        << otp_area().put(0, record(Kestrel)).put(16, record(Garnet)).bytes() << Garnet << 36
        << true << false << quiet;
    QTest::newRow("later misaligned marker hides an aligned record")
        << otp_area().put(0, record(Kestrel)).put(40, le32(otp_marker)).bytes() << Invalid << 0
        << false << false << quiet;
    QTest::newRow("later record unusable, earlier one not consulted")
        << otp_area().put(0, record(Kestrel)).put(32, record(0x00)).bytes() << Invalid << 0 << false
        << false << QStringList{not_used_line};

    QTest::newRow("'#' read as '+'")
        << otp_area().put(0, record('#')).bytes() << Monolith << 43 << true << false << quiet;
    QTest::newRow("'+' is Monolith")
        << otp_area().put(0, record('+')).bytes() << Monolith << 43 << true << false << quiet;

    QTest::newRow("unlisted type 0x51")
        << otp_area().put(0, record(0x51)).bytes() << Invalid << 0x51 << false << false
        << QStringList{unknown_line +
                       QStringLiteral("\"ProductInfo: unknown (254) [51 ff ff ff]\"")};
    QTest::newRow("stored Unknown 0xFE, odd qualifiers")
        << otp_area().put(0, record(0xFE).with_qualifier(0x01, 0x02, 0xFF)).bytes() << Invalid
        << 0xFE << false << false
        << QStringList{unknown_line +
                       QStringLiteral("\"ProductInfo: unknown (254) [fe 01 02 ff]\"")};
    QTest::newRow("type 0x00") << otp_area().put(0, record(0x00)).bytes() << Invalid << 0 << false
                               << false << QStringList{not_used_line};
    QTest::newRow("type 0xFF") << otp_area().put(0, record(0xFF)).bytes() << Undefined << 0xFF
                               << false << false << QStringList{not_used_line};

    QTest::newRow("record cut short by the end of the bytes")
        << otp_area().put(496, record(Kestrel)).truncate(506).bytes() << Invalid << 0 << false
        << false
        << QStringList{QStringLiteral(
               "warning: OTP record at offset 496 is cut short (10 of 16 bytes); ignored.")};
    QTest::newRow("bare marker as the whole input")
        << le32(otp_marker) << Invalid << 0 << false << false
        << QStringList{
               QStringLiteral("warning: OTP record at offset 0 is cut short (4 of 16 bytes); "
                              "ignored.")};
}

void tst_OtpInfo::parse()
{
    QFETCH(QByteArray, otp);
    QFETCH(Type, type);
    QFETCH(int, raw_type);
    QFETCH(bool, marker_valid);
    QFETCH(bool, empty);
    QFETCH(QStringList, log);

    LogCapture capture;
    const OTP_Info info = make_OTP_Info(ExactBytes(otp).bytes());
    QCOMPARE(capture.lines(), log);
    QCOMPARE(info.product.type, type);
    QCOMPARE(info.product.raw_type, raw_type);
    QCOMPARE(info.marker_valid, marker_valid);
    QCOMPARE(info.empty, empty);
}

void tst_OtpInfo::fields_copied_from_record()
{
    const auto rec = record(Halcyon)
                         .with_qualifier(0x10, 0x20, 0x30)
                         .with_data({0x00, 0x01, 0x02, 0x03, 0xFC, 0xFD, 0xFE, 0xFF});
    const OTP_Info info = make_OTP_Info(otp_area().put(64, rec).bytes());
    QCOMPARE(info.product.type, Halcyon);
    QCOMPARE(info.product.qualifier, (std::array<std::uint8_t, 3>{0x10, 0x20, 0x30}));
    QCOMPARE(info.data,
             (std::array<std::uint8_t, 8>{0x00, 0x01, 0x02, 0x03, 0xFC, 0xFD, 0xFE, 0xFF}));

    // Whatever went wrong before the record was read, nothing of it is carried.
    const OTP_Info blank = make_OTP_Info(otp_area().bytes());
    QCOMPARE(blank.data, (std::array<std::uint8_t, 8>{}));
    QCOMPARE(blank.product.qualifier, (std::array<std::uint8_t, 3>{0xFF, 0xFF, 0xFF}));
}

void tst_OtpInfo::printable_data()
{
    QTest::addColumn<QByteArray>("otp");
    QTest::addColumn<QString>("text");

    QTest::newRow("valid unit") << otp_area().put(0, record(Kestrel)).bytes()
                                << QStringLiteral("OTP info:\nOTP info:\nMarker valid\n"
                                                  "Product: ProductInfo: KSTR (3)\n");
    QTest::newRow("blank unit") << otp_area().bytes()
                                << QStringLiteral("OTP info:\nOTP info:\nMarker invalid\n"
                                                  "Product: ProductInfo: invalid (0)\n");
    QTest::newRow("unknown type keeps stored bytes")
        << otp_area().put(0, record(0x51).with_qualifier(0x01, 0xFF, 0xFF)).bytes()
        << QStringLiteral("OTP info:\nOTP info:\nMarker invalid\n"
                          "Product: ProductInfo: invalid (0) [51 01 ff ff]\n");
}

void tst_OtpInfo::printable()
{
    QFETCH(QByteArray, otp);
    QFETCH(QString, text);
    LogCapture capture;
    QCOMPARE(QString(make_OTP_Info(otp)), text);
}

void tst_OtpInfo::product_name()
{
    QCOMPARE(make_OTP_Info(otp_area().put(0, record(Garnet)).bytes()).product_name(),
             QStringLiteral("M2"));
    QCOMPARE(make_OTP_Info(otp_area().bytes()).product_name(), QStringLiteral("N/A"));
}

void tst_OtpInfo::debug_stream_unquoted()
{
    QString text;
    QDebug(&text) << make_OTP_Info(otp_area().put(0, record(Kestrel)).bytes());
    QCOMPARE(text, QStringLiteral("OTP info:\nOTP info:\nMarker valid\n"
                                  "Product: ProductInfo: KSTR (3)\n "));
}

void tst_OtpInfo::from_file()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());

    const OTP_Info missing = make_OTP_Info(dir.filePath(QStringLiteral("absent.bin")));
    QCOMPARE(missing.product.type, Invalid);
    QCOMPARE(missing.product.raw_type, 0);
    QVERIFY(!missing.marker_valid);
    QVERIFY(!missing.empty);

    const QString empty_path = dir.filePath(QStringLiteral("empty.bin"));
    QFile empty_file(empty_path);
    QVERIFY(empty_file.open(QIODevice::WriteOnly));
    empty_file.close();
    QVERIFY(make_OTP_Info(empty_path).empty);

    const QString path = dir.filePath(QStringLiteral("uploaded_OTP.bin"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(otp_area().put(32, record(Breeze)));
    file.close();
    const OTP_Info read = make_OTP_Info(path);
    QCOMPARE(read.product.type, Breeze);
    QVERIFY(read.marker_valid);
}

void tst_OtpInfo::hostile_input_data()
{
    QTest::addColumn<QByteArray>("otp");

    QTest::newRow("all zero") << QByteArray(512, '\0');
    QTest::newRow("marker repeated everywhere") << le32(otp_marker).repeated(128);
    QTest::newRow("marker at every slot, last cut") << le32(otp_marker).repeated(125);
    QTest::newRow("three bytes of a marker at the end")
        << otp_area().put(509, le32(otp_marker).left(3)).bytes();
}

// Every prefix of each input must parse without reading past it (run under ASan to prove it).
void tst_OtpInfo::hostile_input()
{
    QFETCH(QByteArray, otp);
    LogCapture capture;
    for (int n = 0; n <= otp.size(); ++n) {
        const ExactBytes prefix(otp.left(n));
        const OTP_Info info = make_OTP_Info(prefix.bytes());
        QVERIFY(!info.marker_valid || is_known(info.product.type));
    }
}

void tst_OtpInfo::random_input()
{
    QRandomGenerator rng(20261101);
    LogCapture capture;
    for (int round = 0; round < 2000; ++round) {
        QByteArray otp(int(rng.bounded(600)), '\0');
        for (auto& c : otp)
            c = char(rng.bounded(256));
        // Plant a marker at a random place in half the rounds, so the record path is exercised.
        if (round % 2 && otp.size() >= 4)
            otp.replace(int(rng.bounded(otp.size() - 3)), 4, le32(otp_marker));
        const OTP_Info info = make_OTP_Info(ExactBytes(otp).bytes());
        QVERIFY(!info.marker_valid || is_known(info.product.type));
        QVERIFY(!(info.marker_valid && info.empty));
    }
}

QTEST_GUILESS_MAIN(tst_OtpInfo)
#include "tst_otpinfo.moc"
