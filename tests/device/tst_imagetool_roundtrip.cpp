// Proves that what the image tool writes (information blocks, OTP areas, the generated firmware)
// reads back field for field through the device readers.
#include <QtTest>

#include "device/fwinfo.h"
#include "device/otpinfo.h"
#include "common/logcapture.h"
#include "tools/imagetool/firmwareimage.h"

using namespace Device;

Q_DECLARE_METATYPE(ImageTool::InfoBlock)
Q_DECLARE_METATYPE(ImageTool::BlockForm)

namespace {

// The block's bytes as the readers should see them, "key=value" per pair.
QStringList flat(const QList<QPair<QByteArray, QByteArray>>& details)
{
    QStringList out;
    for (const auto& [key, value] : details)
        out << QString::fromUtf8(key) + QLatin1Char('=') + QString::fromUtf8(value);
    return out;
}

QStringList flat(const QList<QPair<QString, QString>>& details)
{
    QStringList out;
    for (const auto& [key, value] : details)
        out << key + QLatin1Char('=') + value;
    return out;
}

ImageTool::InfoBlock block(std::uint8_t type, std::array<std::uint8_t, 3> qualifiers,
                           const QByteArray& name, const QByteArray& revision,
                           const QList<QPair<QByteArray, QByteArray>>& details)
{
    ImageTool::InfoBlock b;
    b.identity = {type, qualifiers};
    b.name = name;
    b.revision = revision;
    b.details = details;
    return b;
}

QList<QPair<QByteArray, QByteArray>> numbered(int n)
{
    QList<QPair<QByteArray, QByteArray>> out;
    for (int i = 0; i < n; ++i)
        out.append({"key" + QByteArray::number(i), "value" + QByteArray::number(i)});
    return out;
}

constexpr std::array<std::uint8_t, 3> plain{0xFF, 0xFF, 0xFF};

} // namespace

class tst_ImageToolRoundTrip : public QObject
{
    Q_OBJECT

private slots:
    void info_block_fields_data();
    void info_block_fields();
    void broken_blocks_data();
    void broken_blocks();
    void otp_fields_data();
    void otp_fields();
    void blank_otp_area();
    void generated_firmware();
};

void tst_ImageToolRoundTrip::info_block_fields_data()
{
    QTest::addColumn<ImageTool::InfoBlock>("written");
    QTest::addColumn<int>("image_size");

    QTest::newRow("default block, full-size image")
        << ImageTool::InfoBlock() << ImageTool::default_image_size;
    QTest::newRow("other product, odd qualifiers")
        << block(Cinder, {0x01, 0x02, 0x03}, "T80X", "4.0.1", {{"build", "x"}}) << 2048;
    QTest::newRow("unlisted type byte") << block(0x51, plain, "Proto", "0.0.1", {}) << 2048;
    QTest::newRow("31-character texts")
        << block(Kestrel, plain, QByteArray(31, 'n'), QByteArray(31, 'r'),
                 {{QByteArray(31, 'k'), QByteArray(31, 'v')}})
        << 2048;
    QTest::newRow("UTF-8 texts") << block(Garnet, plain,
                                          "M2 \xC3\xBC"
                                          "ber",
                                          "1.0", {{"k", "\xE2\x82\xAC"}})
                                 << 2048;
    QTest::newRow("21 details, the most that fit at 0x200")
        << block(Kestrel, plain, "Vega-5 LinkSync", "2.3.0", numbered(21)) << 2048;
}

void tst_ImageToolRoundTrip::info_block_fields()
{
    QFETCH(ImageTool::InfoBlock, written);
    QFETCH(int, image_size);

    LogCapture capture;
    const QByteArray image =
        ImageTool::make_image(written, ImageTool::BlockForm::Intact, image_size);
    QCOMPARE(image.size(), image_size);
    const FW_Info read = make_FW_Info(image);
    QCOMPARE(capture.lines(), QStringList());
    QVERIFY(read.valid);
    QCOMPARE(read.product.raw_type, int(written.identity.type));
    QCOMPARE(read.product.type, to_Type(written.identity.type));
    QCOMPARE(read.product.qualifier, written.identity.qualifiers);
    QCOMPARE(read.name, QString::fromUtf8(written.name));
    QCOMPARE(read.revision, QString::fromUtf8(written.revision));
    QCOMPARE(flat(read.details), flat(written.details));
}

void tst_ImageToolRoundTrip::broken_blocks_data()
{
    QTest::addColumn<ImageTool::InfoBlock>("written");
    QTest::addColumn<ImageTool::BlockForm>("form");
    QTest::addColumn<QStringList>("log");

    // The default block has three pairs: the end marker is due at 0x200 + 72 + 192 = 776.
    QTest::newRow("absent") << ImageTool::InfoBlock() << ImageTool::BlockForm::Absent
                            << QStringList{"debug: index_beg =  -1 index_end =  -1"};
    QTest::newRow("no end marker") << ImageTool::InfoBlock() << ImageTool::BlockForm::NoEndMarker
                                   << QStringList{"debug: index_beg =  512 index_end =  -1"};
    QTest::newRow("end marker off the pair grid")
        << ImageTool::InfoBlock() << ImageTool::BlockForm::BadPairLength
        << QStringList{"debug: index_beg =  512 index_end =  777 nr_of_pair_bytes = 193"};
    QTest::newRow("22 details push the end marker past 1949")
        << block(Kestrel, plain, "Vega-5 LinkSync", "2.3.0", numbered(22))
        << ImageTool::BlockForm::Intact << QStringList();
}

void tst_ImageToolRoundTrip::broken_blocks()
{
    QFETCH(ImageTool::InfoBlock, written);
    QFETCH(ImageTool::BlockForm, form);
    QFETCH(QStringList, log);

    LogCapture capture;
    const FW_Info read = make_FW_Info(ImageTool::make_image(written, form, 4096));
    QCOMPARE(capture.lines(), log);
    QVERIFY(!read.valid);
}

void tst_ImageToolRoundTrip::otp_fields_data()
{
    QTest::addColumn<int>("type_byte");
    QTest::addColumn<QByteArray>("qualifiers");
    QTest::addColumn<int>("offset");
    QTest::addColumn<int>("raw_type");
    QTest::addColumn<Type>("type");
    QTest::addColumn<bool>("marker_valid");

    QTest::newRow("Kestrel at 0, odd qualifiers")
        << 3 << QByteArray("\x01\x02\x03") << 0 << 3 << Kestrel << true;
    QTest::newRow("Halcyon in the last slot")
        << 132 << QByteArray("\xFF\xFF\xFF") << 496 << 132 << Halcyon << true;
    QTest::newRow("'#' reads as Monolith")
        << int('#') << QByteArray("\xFF\xFF\xFF") << 16 << 43 << Monolith << true;
    QTest::newRow("unlisted type is refused")
        << 0x51 << QByteArray("\xFF\x00\xFF", 3) << 0 << 0x51 << Invalid << false;
}

void tst_ImageToolRoundTrip::otp_fields()
{
    QFETCH(int, type_byte);
    QFETCH(QByteArray, qualifiers);
    QFETCH(int, offset);
    QFETCH(int, raw_type);
    QFETCH(Type, type);
    QFETCH(bool, marker_valid);

    const std::array<std::uint8_t, 3> q{std::uint8_t(qualifiers[0]), std::uint8_t(qualifiers[1]),
                                        std::uint8_t(qualifiers[2])};
    const std::array<std::uint8_t, 8> data{1, 2, 3, 4, 5, 6, 7, 0xFE};
    const QByteArray area = ImageTool::make_otp_area(
        ImageTool::make_otp_record({std::uint8_t(type_byte), q}, data), offset);
    QCOMPARE(area.size(), 512);

    LogCapture capture;
    const OTP_Info read = make_OTP_Info(area);
    QCOMPARE(read.product.raw_type, raw_type);
    QCOMPARE(read.product.type, type);
    QCOMPARE(read.product.qualifier, q);
    QCOMPARE(read.data, data);
    QCOMPARE(read.marker_valid, marker_valid);
    QVERIFY(!read.empty);
}

void tst_ImageToolRoundTrip::blank_otp_area()
{
    const OTP_Info read = make_OTP_Info(ImageTool::blank_otp_area());
    QVERIFY(read.empty);
    QCOMPARE(read.product.type, Invalid);
}

void tst_ImageToolRoundTrip::generated_firmware()
{
#ifndef LUMAXIS_GENERATED_FIRMWARE
    QSKIP("This build generates no firmware assets");
#else
    const QString path = QStringLiteral(LUMAXIS_GENERATED_FIRMWARE);
    QCOMPARE(QFileInfo(path).size(), qint64(573088));
    const FW_Info read = make_FW_Info(path);
    QVERIFY(read.valid);
    QCOMPARE(read.product.type, Kestrel);
    QCOMPARE(read.product.qualifier, plain);
    QCOMPARE(read.name, QStringLiteral("Vega-5 LinkSync"));
    QCOMPARE(read.revision, QStringLiteral("2.3.0"));
    QCOMPARE(flat(read.details),
             (QStringList{"build=2026-11-01", "hardware=rev C", "bootloader=DfuSe 2.2"}));
#endif
}

QTEST_GUILESS_MAIN(tst_ImageToolRoundTrip)
#include "tst_imagetool_roundtrip.moc"
