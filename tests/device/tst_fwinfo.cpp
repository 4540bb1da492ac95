// Tests of the firmware information block reader: markers, limits, text fields, printable form.
#include <memory>

#include <QtTest>

#include "device/fwinfo.h"
#include "common/logcapture.h"
#include "recordbuilders.h"

using namespace Device;
using namespace builders;

Q_DECLARE_METATYPE(Device::Type)

namespace {

// "key=value" per pair, so a failing row shows the whole list readably.
QStringList flat(const QList<QPair<QString, QString>>& details)
{
    QStringList out;
    for (const auto& [key, value] : details)
        out << key + QLatin1Char('=') + value;
    return out;
}

QString index_line(int beg, int end)
{
    return QStringLiteral("debug: index_beg =  %1 index_end =  %2").arg(beg).arg(end);
}

QString length_line(int beg, int end)
{
    return index_line(beg, end) + QStringLiteral(" nr_of_pair_bytes = %1").arg(end - beg - 72);
}

// A header at beg and a bare end marker at end, for rows about where the markers lie.
QByteArray markers_at(int beg, int end)
{
    return Bytes(2048).put(beg, InfoBlock().header()).put(end, le32(fw_end_marker));
}

// A block with the given number of pairs "key<i>" = "value<i>", placed so that its end marker
// lands at end.
QByteArray block_ending_at(int end, int pairs)
{
    QList<Pair> details;
    for (int i = 0; i < pairs; ++i)
        details << Pair("key" + QByteArray::number(i), "value" + QByteArray::number(i));
    return Bytes(2048).put(end - 72 - 64 * pairs, InfoBlock().with_details(details));
}

QStringList numbered_details(int pairs)
{
    QStringList out;
    for (int i = 0; i < pairs; ++i)
        out << QStringLiteral("key%1=value%1").arg(i);
    return out;
}

const QList<Pair> three_details = {
    {"build", "2026-11-01"}, {"hardware", "rev C"}, {"bootloader", "DfuSe 2.2"}};

} // namespace

class tst_FwInfo : public QObject
{
    Q_OBJECT

private slots:
    void parse_data();
    void parse();
    void product_fields();
    void get_string_data();
    void get_string();
    void local_strlen_data();
    void local_strlen();
    void printable_data();
    void printable();
    void printable_does_not_truncate();
    void debug_stream_unquoted();
    void from_file();
    void hostile_input_data();
    void hostile_input();
    void random_input();
};

void tst_FwInfo::parse_data()
{
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("revision");
    QTest::addColumn<QStringList>("details");
    QTest::addColumn<QStringList>("log");

    const QStringList none;
    const QString name = QStringLiteral("Vega-5 LinkSync");
    const QString rev = QStringLiteral("2.3.0");

    QTest::newRow("block at 0, no pairs (d = 72)")
        << Bytes(2048).put(0, InfoBlock()).bytes() << true << name << rev << none << none;
    QTest::newRow("block at 0x200 with three details")
        << Bytes(2048, '\xFF').put(0x200, InfoBlock().with_details(three_details)).bytes() << true
        << name << rev << QStringList{"build=2026-11-01", "hardware=rev C", "bootloader=DfuSe 2.2"}
        << none;
    QTest::newRow("block is the whole image") << InfoBlock().with_details({{"k", "v"}}).bytes()
                                              << true << name << rev << QStringList{"k=v"} << none;
    QTest::newRow("29 pairs, the most that fit")
        << block_ending_at(1928, 29) << true << name << rev << numbered_details(29) << none;

    QTest::newRow("end marker at 1948")
        << block_ending_at(1948, 1) << true << name << rev << numbered_details(1) << none;
    QTest::newRow("end marker at 1949, silently out")
        << block_ending_at(1949, 1) << false << QString() << QString() << none << none;
    QTest::newRow("begin marker at 1948 passes the limit")
        << markers_at(1948, 1000) << false << QString() << QString() << none
        << QStringList{length_line(1948, 1000)};
    QTest::newRow("begin marker at 1949, silently out")
        << markers_at(1949, 1000) << false << QString() << QString() << none << none;

    QTest::newRow("d = 71") << markers_at(0, 71) << false << QString() << QString() << none
                            << QStringList{length_line(0, 71)};
    QTest::newRow("d = 73") << markers_at(0, 73) << false << QString() << QString() << none
                            << QStringList{length_line(0, 73)};
    QTest::newRow("d = 100") << markers_at(0, 100) << false << QString() << QString() << none
                             << QStringList{length_line(0, 100)};
    QTest::newRow("negative d") << markers_at(200, 100) << false << QString() << QString() << none
                                << QStringList{length_line(200, 100)};

    QTest::newRow("no begin marker")
        << Bytes(2048).put(100, le32(fw_end_marker)).bytes() << false << QString() << QString()
        << none << QStringList{index_line(-1, 100)};
    QTest::newRow("no end marker")
        << Bytes(2048).put(0, InfoBlock().header()).bytes() << false << QString() << QString()
        << none << QStringList{index_line(0, -1)};
    QTest::newRow("empty image") << QByteArray() << false << QString() << QString() << none
                                 << QStringList{index_line(-1, -1)};
    QTest::newRow("erased flash") << QByteArray(2048, '\xFF') << false << QString() << QString()
                                  << none << QStringList{index_line(-1, -1)};

    QTest::newRow("first begin marker counts")
        << Bytes(2048)
               .put(0, InfoBlock().with_revision("1.0.0"))
               .put(600, InfoBlock().with_revision("9.9.9"))
               .bytes()
        << true << name << QStringLiteral("1.0.0") << none << none;
    QTest::newRow("name of 32 bytes without NUL reads empty")
        << InfoBlock().with_name(QByteArray(32, 'N')).bytes() << true << QString() << rev << none
        << none;
    QTest::newRow("name of 31 characters reads whole")
        << InfoBlock().with_name(QByteArray(31, 'N')).bytes() << true
        << QString(31, QLatin1Char('N')) << rev << none << none;
    QTest::newRow("UTF-8 name") << InfoBlock()
                                       .with_name("Vega-5 \xC3\x9C"
                                                  "bersicht")
                                       .bytes()
                                << true << QStringLiteral("Vega-5 \u00DCbersicht") << rev << none
                                << none;
    QTest::newRow("empty revision is still a block")
        << InfoBlock().with_revision("").bytes() << true << name << QString() << none << none;
    QTest::newRow("empty value ends the list")
        << InfoBlock().with_details({{"a", "1"}, {"b", ""}, {"c", "3"}}).bytes() << true << name
        << rev << QStringList{"a=1"} << none;
    QTest::newRow("empty key ends the list")
        << InfoBlock().with_details({{"", "0"}, {"b", "2"}}).bytes() << true << name << rev << none
        << none;
    QTest::newRow("key without NUL ends the list")
        << InfoBlock().with_details({{"a", "1"}, {QByteArray(32, 'k'), "2"}, {"c", "3"}}).bytes()
        << true << name << rev << QStringList{"a=1"} << none;
}

void tst_FwInfo::parse()
{
    QFETCH(QByteArray, image);
    QFETCH(bool, valid);
    QFETCH(QString, name);
    QFETCH(QString, revision);
    QFETCH(QStringList, details);
    QFETCH(QStringList, log);

    LogCapture capture;
    const FW_Info info = make_FW_Info(ExactBytes(image).bytes());
    QCOMPARE(capture.lines(), log);
    QCOMPARE(info.valid, valid);
    QCOMPARE(info.name, name);
    QCOMPARE(info.revision, revision);
    QCOMPARE(flat(info.details), details);
    if (!valid)
        QCOMPARE(info.product.type, Invalid);
}

void tst_FwInfo::product_fields()
{
    const FW_Info unlisted =
        make_FW_Info(InfoBlock().with_type(0x51).with_qualifier(0x01, 0x02, 0x03).bytes());
    QVERIFY(unlisted.valid);
    QCOMPARE(unlisted.product.type, Unknown);
    QCOMPARE(unlisted.product.raw_type, 0x51);
    QCOMPARE(unlisted.product.qualifier, (std::array<std::uint8_t, 3>{0x01, 0x02, 0x03}));

    // No '#' substitution here: that belongs to the OTP record alone.
    QCOMPARE(make_FW_Info(InfoBlock().with_type('#').bytes()).product.type, Unknown);
    QCOMPARE(make_FW_Info(InfoBlock().with_type(Garnet).bytes()).product.type, Garnet);
}

void tst_FwInfo::get_string_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<int>("pos");
    QTest::addColumn<QString>("text");

    QTest::newRow("text field") << Bytes(64).put(16, text_field("abc")).bytes() << 16
                                << QStringLiteral("abc");
    QTest::newRow("bytes after the NUL ignored")
        << QByteArray("ab\0cd", 5) << 0 << QStringLiteral("ab");
    QTest::newRow("first byte NUL") << QByteArray(40, '\0') << 0 << QString();
    QTest::newRow("32 bytes without NUL") << QByteArray(40, 'x') << 0 << QString();
    QTest::newRow("NUL as 32nd byte")
        << QByteArray(31, 'x') + QByteArray(9, '\0') << 0 << QString(31, QLatin1Char('x'));
    QTest::newRow("slice cut short by the end")
        << QByteArray("0123456789") << 4 << QStringLiteral("456789");
    QTest::newRow("last byte") << QByteArray("0123456789") << 9 << QStringLiteral("9");
    QTest::newRow("at the end") << QByteArray("0123456789") << 10 << QString();
    QTest::newRow("past the end") << QByteArray("0123456789") << 1000 << QString();
    QTest::newRow("negative position") << QByteArray("0123456789") << -1 << QString();
    QTest::newRow("empty data") << QByteArray() << 0 << QString();
}

void tst_FwInfo::get_string()
{
    QFETCH(QByteArray, data);
    QFETCH(int, pos);
    QFETCH(QString, text);
    QCOMPARE(Device::get_string(ExactBytes(data).bytes(), pos), text);
}

void tst_FwInfo::local_strlen_data()
{
    QTest::addColumn<QByteArray>("field");
    QTest::addColumn<quint32>("length");

    QTest::newRow("empty") << text_field("") << 0u;
    QTest::newRow("three characters") << text_field("abc") << 3u;
    QTest::newRow("31 characters") << text_field(QByteArray(31, 'x')) << 31u;
    QTest::newRow("no NUL in 32 bytes") << QByteArray(32, 'x') << 0xFFFFFFFFu;
}

void tst_FwInfo::local_strlen()
{
    QFETCH(QByteArray, field);
    QFETCH(quint32, length);
    // Exactly 32 bytes on the heap, so a sanitizer build catches a look one byte too far.
    const auto buffer = std::make_unique<char[]>(32);
    std::memcpy(buffer.get(), field.constData(), 32);
    QCOMPARE(Device::local_strlen(buffer.get()), length);
}

void tst_FwInfo::printable_data()
{
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<QString>("text");

    QTest::newRow("invalid") << QByteArray() << QStringLiteral("FW info:\n\tInvalid");
    QTest::newRow("no details") << InfoBlock().bytes()
                                << QStringLiteral("FW info:\n"
                                                  "  Type: ProductInfo: KSTR (3)\n"
                                                  "  Name: Vega-5 LinkSync\n"
                                                  "  Rev.: 2.3.0\n"
                                                  "  Details:");
    QTest::newRow("two details, padded")
        << InfoBlock().with_details({{"build", "2026-11-01"}, {"hardware", "rev C"}}).bytes()
        << QStringLiteral("FW info:\n"
                          "  Type: ProductInfo: KSTR (3)\n"
                          "  Name: Vega-5 LinkSync\n"
                          "  Rev.: 2.3.0\n"
                          "  Details:"
                          "\n    build                          : 2026-11-01                     "
                          "\n    hardware                       : rev C                          ");
    QTest::newRow("odd qualifiers shown")
        << InfoBlock().with_type(Cinder).with_qualifier(0xFF, 0x00, 0xFF).with_name("T80").bytes()
        << QStringLiteral("FW info:\n"
                          "  Type: ProductInfo: CNDR (140) [8c ff 00 ff]\n"
                          "  Name: T80\n"
                          "  Rev.: 2.3.0\n"
                          "  Details:");
}

void tst_FwInfo::printable()
{
    QFETCH(QByteArray, image);
    QFETCH(QString, text);
    LogCapture capture;
    QCOMPARE(QString(make_FW_Info(image)), text);
}

void tst_FwInfo::printable_does_not_truncate()
{
    FW_Info info;
    info.valid = true;
    info.details.append({QString(40, QLatin1Char('k')), QString(35, QLatin1Char('v'))});
    QVERIFY(QString(info).endsWith(QStringLiteral("\n    ") + QString(40, QLatin1Char('k')) +
                                   QStringLiteral(": ") + QString(35, QLatin1Char('v'))));
}

void tst_FwInfo::debug_stream_unquoted()
{
    QString text;
    QDebug(&text) << FW_Info() << QStringLiteral("x");
    QCOMPARE(text, QStringLiteral("FW info:\n\tInvalid \"x\" "));
}

void tst_FwInfo::from_file()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());

    LogCapture capture;
    QVERIFY(!make_FW_Info(dir.filePath(QStringLiteral("absent.bin"))).valid);
    QCOMPARE(capture.lines(), QStringList());

    const QString path = dir.filePath(QStringLiteral("uploaded_FW_info.bin"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(Bytes(2048, '\xFF').put(0x200, InfoBlock().with_details(three_details)));
    file.close();
    const FW_Info info = make_FW_Info(path);
    QVERIFY(info.valid);
    QCOMPARE(info.product.type, Kestrel);
    QCOMPARE(info.revision, QStringLiteral("2.3.0"));
    QCOMPARE(info.details.size(), 3);
}

void tst_FwInfo::hostile_input_data()
{
    QTest::addColumn<QByteArray>("image");

    QTest::newRow("block with details")
        << Bytes(600, '\xFF').put(0x40, InfoBlock().with_details(three_details)).bytes();
    QTest::newRow("fields without NUL")
        << InfoBlock()
               .with_name(QByteArray(40, 'n'))
               .with_revision(QByteArray(40, 'r'))
               .with_details({{QByteArray(40, 'k'), QByteArray(40, 'v')}})
               .bytes();
    QTest::newRow("end marker inside the header") << markers_at(0, 8).left(80);
    QTest::newRow("markers only") << le32(fw_end_marker) + le32(fw_begin_marker);
    QTest::newRow("all zero") << QByteArray(300, '\0');
}

// Every prefix of each input must parse without reading past it (run under ASan to prove it).
void tst_FwInfo::hostile_input()
{
    QFETCH(QByteArray, image);
    LogCapture capture;
    for (int n = 0; n <= image.size(); ++n) {
        const ExactBytes prefix(image.left(n));
        const FW_Info info = make_FW_Info(prefix.bytes());
        QVERIFY(info.valid || info.details.isEmpty());
    }
}

void tst_FwInfo::random_input()
{
    QRandomGenerator rng(20261101);
    LogCapture capture;
    for (int round = 0; round < 2000; ++round) {
        QByteArray image(int(rng.bounded(2200)), '\0');
        for (auto& c : image)
            c = char(rng.bounded(256));
        // Plant both markers in most rounds, with a pair-aligned distance in some, so the
        // block path is reached.
        if (round % 4 != 0 && image.size() >= 80) {
            const int beg = int(rng.bounded(image.size() - 79));
            int end = beg + 72 + 64 * int(rng.bounded(30));
            if (round % 4 == 3)
                end = int(rng.bounded(image.size() - 3));
            if (end + 4 <= image.size()) {
                image.replace(beg, 4, le32(fw_begin_marker));
                image.replace(end, 4, le32(fw_end_marker));
            }
        }
        const FW_Info info = make_FW_Info(ExactBytes(image).bytes());
        QVERIFY(info.details.size() <= 29);
        QVERIFY(info.valid || info.details.isEmpty());
    }
}

QTEST_GUILESS_MAIN(tst_FwInfo)
#include "tst_fwinfo.moc"
