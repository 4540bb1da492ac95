// Tests of the product table and of the two records read from a unit: the firmware information
// block and the OTP record. Bytes come from the image tool, so writer and readers must agree.
#include <QtTest>

#include "common/logcapture.h"
#include "device/fwinfo.h"
#include "device/otpinfo.h"
#include "tools/imagetool/firmwareimage.h"

using namespace Device;
using Details = QList<QPair<QByteArray, QByteArray>>;

Q_DECLARE_METATYPE(Device::Type)

namespace {

const QByteArray end_marker("\x13\x47\x23\x01", 4);
const QByteArray otp_marker("\x11\x47\x23\x01", 4);

// size bytes of fill with piece at pos, grown when piece reaches past the end.
QByteArray at(int pos, const QByteArray& piece, int size = 2048, char fill = '\0')
{
    QByteArray out(qMax(size, pos + int(piece.size())), fill);
    return out.replace(pos, piece.size(), piece);
}

QByteArray block(const Details& details = {}, const QByteArray& name = "Vega-5 LinkSync",
                 const QByteArray& revision = "2.3.0", ImageTool::Identity identity = {})
{
    return ImageTool::make_info_block({identity, name, revision, details});
}

Details numbered(int n)
{
    Details out;
    for (int i = 0; i < n; ++i)
        out.append({"key" + QByteArray::number(i), "value" + QByteArray::number(i)});
    return out;
}

QStringList flat(const Details& details)
{
    QStringList out;
    for (const auto& [key, value] : details)
        out << QString::fromUtf8(key + '=' + value);
    return out;
}

QStringList flat(const QList<QPair<QString, QString>>& details)
{
    QStringList out;
    for (const auto& [key, value] : details)
        out << key + QLatin1Char('=') + value;
    return out;
}

// A header at beg and a lone end marker at end, for rows about where the markers lie.
QByteArray markers_at(int beg, int end)
{
    return at(beg, block().left(72)).replace(end, 4, end_marker);
}

QString index_line(int beg, int end)
{
    return QStringLiteral("debug: index_beg =  %1 index_end =  %2").arg(beg).arg(end);
}

QString length_line(int beg, int end)
{
    return index_line(beg, end) + QStringLiteral(" nr_of_pair_bytes = %1").arg(end - beg - 72);
}

QByteArray otp(int type, int offset = 0, std::array<std::uint8_t, 3> q = {0xFF, 0xFF, 0xFF})
{
    return ImageTool::make_otp_area(ImageTool::make_otp_record({std::uint8_t(type), q}), offset);
}

} // namespace

class tst_Device : public QObject
{
    Q_OBJECT

private slots:
    void type_facts_data();
    void type_facts();
    void to_Type_data();
    void to_Type();
    void identity_ignores_qualifiers();
    void fw_info_data();
    void fw_info();
    void fw_info_printable();
    void otp_info_data();
    void otp_info();
    void otp_info_fields_and_printable();
    void generated_firmware();
};

void tst_Device::type_facts_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<bool>("known");
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("short_name");
    QTest::addColumn<QString>("full_name");

    QTest::newRow("Invalid") << 0 << false << false << "invalid"
                             << "N/A"
                             << "N/A";
    QTest::newRow("Undefined") << 255 << false << false << "undefined"
                               << "?"
                               << "?";
    QTest::newRow("Unknown") << 254 << true << false << "unknown"
                             << "unknown"
                             << "unknown";
    QTest::newRow("Kestrel") << 3 << true << true << "KSTR"
                             << "Vega-5"
                             << "Vega-5 LinkSync";
    QTest::newRow("K3i, irregular") << 11 << true << true << "K3I"
                                    << "K3 Industrial"
                                    << "K3 Industrial";
    QTest::newRow("Cinder") << 140 << true << true << "CNDR"
                            << "T80 or T80X"
                            << "Lumaxis T80X & T80 series";
    QTest::newRow("no row") << 7 << true << true << "impossible type"
                            << ""
                            << "";
}

void tst_Device::type_facts()
{
    QFETCH(int, type);
    QFETCH(bool, valid);
    QFETCH(bool, known);
    QFETCH(QString, code);
    QFETCH(QString, short_name);
    QFETCH(QString, full_name);

    const Type t = Type(type);
    QCOMPARE(is_valid(t), valid);
    QCOMPARE(is_known(t), known);
    QCOMPARE(to_QString(t), code);
    ProductInfo info;
    info.type = t;
    QCOMPARE(info.product_name(), short_name);
    QCOMPARE(info.product_name_full(), full_name);
}

void tst_Device::to_Type_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<int>("byte");
    QTest::addColumn<Type>("expected");

    // byte < 0: convert the code; otherwise the byte.
    QTest::newRow("empty code") << QString() << -1 << Invalid;
    QTest::newRow("K3I is a code") << QStringLiteral("K3I") << -1 << K3i;
    QTest::newRow("K3i is a name") << QStringLiteral("K3i") << -1 << Unknown;
    QTest::newRow("case matters") << QStringLiteral("kstr") << -1 << Unknown;
    QTest::newRow("'+' is Monolith") << QString() << 0x2B << Monolith;
    QTest::newRow("'#' only in OTP") << QString() << 0x23 << Unknown;
    QTest::newRow("255") << QString() << 0xFF << Undefined;
}

void tst_Device::to_Type()
{
    QFETCH(QString, code);
    QFETCH(int, byte);
    QFETCH(Type, expected);
    QCOMPARE(byte < 0 ? Device::to_Type(code) : Device::to_Type(std::uint8_t(byte)), expected);
}

void tst_Device::identity_ignores_qualifiers()
{
    QVERIFY(make_ProductInfo({3, 0xFF, 0xFF, 0xFF}) == make_ProductInfo({3, 1, 2, 3}));
    QVERIFY(make_ProductInfo({3, 0xFF, 0xFF, 0xFF}) != make_ProductInfo({4, 0xFF, 0xFF, 0xFF}));
    QVERIFY(make_ProductInfo({0, 0xFF, 0xFF, 0xFF}) != make_ProductInfo({255, 0xFF, 0xFF, 0xFF}));
}

void tst_Device::fw_info_data()
{
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<QString>("product"); // empty: the block is refused
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("revision");
    QTest::addColumn<QStringList>("details");
    QTest::addColumn<QStringList>("log");

    const QString kstr = QStringLiteral("ProductInfo: KSTR (3)");
    const QString name = QStringLiteral("Vega-5 LinkSync");
    const QString rev = QStringLiteral("2.3.0");
    const QStringList none;
    const auto row = [&](const char* tag, const QByteArray& image, const QStringList& details = {},
                         const QString& n = QStringLiteral("Vega-5 LinkSync")) {
        QTest::newRow(tag) << image << kstr << n << rev << details << QStringList();
    };
    const auto refused = [&](const char* tag, const QByteArray& image, const QStringList& log) {
        QTest::newRow(tag) << image << QString() << QString() << QString() << none << log;
    };

    row("image tool default at 0x200",
        ImageTool::make_image({}, ImageTool::BlockForm::Intact, 2048),
        flat(ImageTool::InfoBlock().details));
    row("block is the whole image", block({{"k", "v"}}), {"k=v"});
    row("29 pairs end at 1948", at(1948 - 72 - 64 * 29, block(numbered(29))), flat(numbered(29)));
    refused("end marker at 1949, silently", at(1949 - 72 - 64, block(numbered(1))), none);
    refused("begin marker at 1948 within limit, end before it", markers_at(1948, 1000),
            {length_line(1948, 1000)});
    refused("begin marker at 1949, silently", markers_at(1949, 1000), none);
    refused("d = 71", markers_at(0, 71), {length_line(0, 71)});
    refused("d = 73", markers_at(0, 73), {length_line(0, 73)});
    refused("end before begin", markers_at(200, 100), {length_line(200, 100)});
    refused("no begin marker", at(100, end_marker), {index_line(-1, 100)});
    refused("no end marker", at(0, block().left(72)), {index_line(0, -1)});
    refused("erased flash", QByteArray(2048, '\xFF'), {index_line(-1, -1)});
    row("first block counts", at(0, block()).replace(600, 72, block({}, "x", "9.9")));
    row("32-byte name reads empty", block({}, QByteArray(32, 'N')), none, QString());
    row("UTF-8 name",
        block({}, "M2 \xC3\xBC"
                  "ber"),
        none, QStringLiteral("M2 \u00FCber"));
    row("empty value ends the list", block({{"a", "1"}, {"b", ""}, {"c", "3"}}), {"a=1"});
    row("key without NUL ends the list", block({{"a", "1"}, {QByteArray(32, 'k'), "2"}}), {"a=1"});
    QTest::newRow("unlisted type, no '#' mapping here")
        << block({}, "P", "0.1", {'#', {1, 2, 3}}) << "ProductInfo: unknown (254) [23 01 02 03]"
        << "P"
        << "0.1" << none << none;
}

void tst_Device::fw_info()
{
    QFETCH(QByteArray, image);
    QFETCH(QString, product);
    QFETCH(QString, name);
    QFETCH(QString, revision);
    QFETCH(QStringList, details);
    QFETCH(QStringList, log);

    LogCapture capture;
    const FW_Info info = make_FW_Info(image);
    QCOMPARE(capture.lines(), log);
    QCOMPARE(info.valid, !product.isEmpty());
    QCOMPARE(info.valid ? QString(info.product) : QString(), product);
    QCOMPARE(info.name, name);
    QCOMPARE(info.revision, revision);
    QCOMPARE(flat(info.details), details);
}

void tst_Device::fw_info_printable()
{
    QCOMPARE(QString(make_FW_Info(QByteArray())), QStringLiteral("FW info:\n\tInvalid"));
    QCOMPARE(
        QString(make_FW_Info(block({{"build", "2026-11-01"}, {"hardware", "rev C"}}, "T80", "2.3.0",
                                   {Cinder, {0xFF, 0x00, 0xFF}}))),
        QStringLiteral("FW info:\n"
                       "  Type: ProductInfo: CNDR (140) [8c ff 00 ff]\n"
                       "  Name: T80\n"
                       "  Rev.: 2.3.0\n"
                       "  Details:"
                       "\n    build                          : 2026-11-01                     "
                       "\n    hardware                       : rev C                          "));
    QVERIFY(!make_FW_Info(QStringLiteral("/nonexistent/uploaded_FW_info.bin")).valid);
}

void tst_Device::otp_info_data()
{
    QTest::addColumn<QByteArray>("area");
    QTest::addColumn<QString>("product");
    QTest::addColumn<bool>("marker_valid");
    QTest::addColumn<bool>("empty");
    QTest::addColumn<QStringList>("log");

    const QString invalid = QStringLiteral("ProductInfo: invalid (0)");
    const QString not_used =
        QStringLiteral("info: Device not used, has invalid info in its OTP info.");
    const QString unknown =
        QStringLiteral("info: Unknown device type according to OTP info,  \"%1\"");
    const QStringList quiet;

    QTest::newRow("no bytes") << QByteArray() << invalid << false << true << quiet;
    QTest::newRow("erased") << ImageTool::blank_otp_area() << invalid << false << true << quiet;
    QTest::newRow("all zero") << QByteArray(512, '\0') << invalid << false << false << quiet;
    QTest::newRow("record at 0") << otp(Kestrel) << "ProductInfo: KSTR (3)" << true << false
                                 << quiet;
    QTest::newRow("last slot, 496")
        << otp(Cinder, 496) << "ProductInfo: CNDR (140)" << true << false << quiet;
    QTest::newRow("misaligned, 497") << otp(Kestrel, 497) << invalid << false << false << quiet;
    QTest::newRow("aligned but at 512 of a longer area")
        << at(512, otp(Kestrel), 1024, '\xFF') << invalid << false << false << quiet;
    QTest::newRow("later record wins")
        << otp(Kestrel).replace(16, 16, ImageTool::make_otp_record({Garnet}))
        << "ProductInfo: GRNT (36)" << true << false << quiet;
    QTest::newRow("later unusable record hides the earlier")
        << otp(Kestrel).replace(32, 16, ImageTool::make_otp_record({0})) << invalid << false
        << false << QStringList{not_used};
    QTest::newRow("'#' read as Monolith")
        << otp('#') << "ProductInfo: MNLT (43)" << true << false << quiet;
    QTest::newRow("unlisted type keeps its bytes")
        << otp(0x51, 0, {1, 0xFF, 0xFF}) << "ProductInfo: invalid (0) [51 01 ff ff]" << false
        << false << QStringList{unknown.arg("ProductInfo: unknown (254) [51 01 ff ff]")};
    QTest::newRow("type 0xFF") << otp(0xFF) << "ProductInfo: undefined (255)" << false << false
                               << QStringList{not_used};
    QTest::newRow("cut short")
        << otp(Kestrel, 496).left(506) << invalid << false << false
        << QStringList{"warning: OTP record at offset 496 is cut short (10 of 16 bytes); ignored."};
}

void tst_Device::otp_info()
{
    QFETCH(QByteArray, area);
    QFETCH(QString, product);
    QFETCH(bool, marker_valid);
    QFETCH(bool, empty);
    QFETCH(QStringList, log);

    LogCapture capture;
    const OTP_Info info = make_OTP_Info(area);
    QCOMPARE(capture.lines(), log);
    QCOMPARE(QString(info.product), product);
    QCOMPARE(info.marker_valid, marker_valid);
    QCOMPARE(info.empty, empty);
}

void tst_Device::otp_info_fields_and_printable()
{
    const std::array<std::uint8_t, 8> data{0, 1, 2, 3, 0xFC, 0xFD, 0xFE, 0xFF};
    const OTP_Info info =
        make_OTP_Info(ImageTool::make_otp_area(ImageTool::make_otp_record({Garnet}, data), 64));
    QCOMPARE(info.data, data);
    QCOMPARE(info.product_name(), QStringLiteral("M2"));
    QCOMPARE(QString(info), QStringLiteral("OTP info:\nOTP info:\nMarker valid\n"
                                           "Product: ProductInfo: GRNT (36)\n"));

    const OTP_Info missing = make_OTP_Info(QStringLiteral("/nonexistent/uploaded_OTP.bin"));
    QVERIFY(!missing.empty);
    QCOMPARE(QString(missing), QStringLiteral("OTP info:\nOTP info:\nMarker invalid\n"
                                              "Product: ProductInfo: invalid (0)\n"));
}

void tst_Device::generated_firmware()
{
#ifndef LUMAXIS_GENERATED_FIRMWARE
    QSKIP("This build generates no firmware assets");
#else
    const QString path = QStringLiteral(LUMAXIS_GENERATED_FIRMWARE);
    QCOMPARE(QFileInfo(path).size(), qint64(ImageTool::default_image_size));
    const FW_Info read = make_FW_Info(path);
    QCOMPARE(QString(read.product), QStringLiteral("ProductInfo: KSTR (3)"));
    QCOMPARE(read.name, QStringLiteral("Vega-5 LinkSync"));
    QCOMPARE(read.revision, QStringLiteral("2.3.0"));
    QCOMPARE(flat(read.details), flat(ImageTool::InfoBlock().details));
#endif
}

QTEST_GUILESS_MAIN(tst_Device)
#include "tst_device.moc"
