// Tests of the product table, the type conversions and the product identity record.
#include <sstream>

#include <QtTest>

#include "device/products.h"

using namespace Device;

Q_DECLARE_METATYPE(Device::Type)

class tst_Products : public QObject
{
    Q_OBJECT

private slots:
    void table_rows_in_order();
    void to_Type_from_byte_data();
    void to_Type_from_byte();
    void to_Type_from_code_data();
    void to_Type_from_code();
    void predicates_data();
    void predicates();
    void type_texts_data();
    void type_texts();
    void type_debug_stream_keeps_stream_state();
    void make_ProductInfo_copies_bytes();
    void default_ProductInfo();
    void equality_data();
    void equality();
    void printable_data();
    void printable();
    void names_data();
    void names();
    void product_debug_stream_unquoted();
};

void tst_Products::table_rows_in_order()
{
    struct Row
    {
        int type;
        const char* code;
        const char* name;
        const char* short_name;
        const char* full_name;
    };
    const Row expected[] = {
        {0, "invalid", "Invalid", "N/A", "N/A"},
        {255, "undefined", "Undefined", "?", "?"},
        {3, "KSTR", "Kestrel", "Vega-5", "Vega-5 LinkSync"},
        {4, "VRDN", "Verdant", "Vega-6", "Lumaxis Vega-6"},
        {43, "MNLT", "Monolith", "K3", "K3 LinkSync"},
        {11, "K3I", "K3i", "K3 Industrial", "K3 Industrial"},
        {132, "HLCN", "Halcyon", "M4X", "Lumaxis M4 & M4X"},
        {30, "BRZE", "Breeze", "M70", "Lumaxis M70"},
        {36, "GRNT", "Garnet", "M2", "Lumaxis M2"},
        {140, "CNDR", "Cinder", "T80 or T80X", "Lumaxis T80X & T80 series"},
        {254, "unknown", "Unknown", "unknown", "unknown"},
    };
    QCOMPARE(products.size(), std::size(expected));
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        const Product& p = products[i];
        QCOMPARE(int(p.type), expected[i].type);
        QCOMPARE(p.code, QString::fromUtf8(expected[i].code));
        QCOMPARE(p.name, QString::fromUtf8(expected[i].name));
        QCOMPARE(p.short_name, QString::fromUtf8(expected[i].short_name));
        QCOMPARE(p.full_name, QString::fromUtf8(expected[i].full_name));
    }
}

void tst_Products::to_Type_from_byte_data()
{
    QTest::addColumn<int>("byte");
    QTest::addColumn<Type>("expected");

    QTest::newRow("'+' is Monolith") << 0x2B << Monolith;
    QTest::newRow("'#' stays unknown here") << 0x23 << Unknown;
    QTest::newRow("0 maps to itself") << 0x00 << Invalid;
    QTest::newRow("255 maps to itself") << 0xFF << Undefined;
    QTest::newRow("254 maps to itself") << 0xFE << Unknown;
    QTest::newRow("high byte Halcyon") << 0x84 << Halcyon;
    QTest::newRow("three-letter K3i") << 0x0B << K3i;
    QTest::newRow("unlisted 7") << 7 << Unknown;
}

void tst_Products::to_Type_from_byte()
{
    QFETCH(int, byte);
    QFETCH(Type, expected);
    QCOMPARE(to_Type(static_cast<unsigned char>(byte)), expected);
    const auto row = products.find(static_cast<unsigned char>(byte));
    QCOMPARE(row == products.end(), expected == Unknown && byte != 0xFE);
}

void tst_Products::to_Type_from_code_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<Type>("expected");

    QTest::newRow("null string") << QString() << Invalid;
    QTest::newRow("empty string") << QStringLiteral("") << Invalid;
    QTest::newRow("KSTR") << QStringLiteral("KSTR") << Kestrel;
    QTest::newRow("case matters") << QStringLiteral("kstr") << Unknown;
    QTest::newRow("K3I is a code") << QStringLiteral("K3I") << K3i;
    QTest::newRow("K3i is a name, not a code") << QStringLiteral("K3i") << Unknown;
    QTest::newRow("names do not match") << QStringLiteral("Kestrel") << Unknown;
    QTest::newRow("trailing blank") << QStringLiteral("KSTR ") << Unknown;
    QTest::newRow("prefix of a code") << QStringLiteral("KST") << Unknown;
    QTest::newRow("invalid row") << QStringLiteral("invalid") << Invalid;
    QTest::newRow("undefined row") << QStringLiteral("undefined") << Undefined;
    QTest::newRow("unknown row") << QStringLiteral("unknown") << Unknown;
}

void tst_Products::to_Type_from_code()
{
    QFETCH(QString, code);
    QFETCH(Type, expected);
    QCOMPARE(to_Type(code), expected);
}

void tst_Products::predicates_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<bool>("known");

    QTest::newRow("Invalid") << 0 << false << false;
    QTest::newRow("Undefined") << 255 << false << false;
    QTest::newRow("Unknown") << 254 << true << false;
    QTest::newRow("Kestrel") << 3 << true << true;
    QTest::newRow("unlisted 7") << 7 << true << true;
}

void tst_Products::predicates()
{
    QFETCH(int, type);
    QFETCH(bool, valid);
    QFETCH(bool, known);
    QCOMPARE(is_valid(Type(type)), valid);
    QCOMPARE(is_known(Type(type)), known);
}

void tst_Products::type_texts_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("text");

    QTest::newRow("Kestrel") << 3 << QStringLiteral("KSTR");
    QTest::newRow("Invalid") << 0 << QStringLiteral("invalid");
    QTest::newRow("Cinder") << 140 << QStringLiteral("CNDR");
    QTest::newRow("unlisted 7") << 7 << QStringLiteral("impossible type");
}

void tst_Products::type_texts()
{
    QFETCH(int, type);
    QFETCH(QString, text);
    const Type t = Type(type);
    QCOMPARE(to_QString(t), text);
    QCOMPARE(QString::fromStdString(to_string(t)), text);
    std::ostringstream os;
    os << t;
    QCOMPARE(QString::fromStdString(os.str()), text);
}

void tst_Products::type_debug_stream_keeps_stream_state()
{
    QString spaced;
    QDebug(&spaced) << Kestrel << QStringLiteral("x") << Type(7);
    QCOMPARE(spaced, QStringLiteral("KSTR \"x\" impossible type "));

    QString packed;
    QDebug(&packed).nospace() << Kestrel << Cinder << QStringLiteral("x");
    QCOMPARE(packed, QStringLiteral("KSTRCNDR\"x\""));
}

void tst_Products::make_ProductInfo_copies_bytes()
{
    const ProductInfo unlisted = make_ProductInfo({0x51, 0x01, 0x02, 0x03});
    QCOMPARE(unlisted.type, Unknown);
    QCOMPARE(unlisted.raw_type, 0x51);
    QCOMPARE(unlisted.qualifier, (std::array<std::uint8_t, 3>{0x01, 0x02, 0x03}));

    const ProductInfo hash = make_ProductInfo({0x23, 0xFF, 0xFF, 0xFF});
    QCOMPARE(hash.type, Unknown);
    QCOMPARE(hash.raw_type, 0x23);

    const ProductInfo cinder = make_ProductInfo({0x8C, 0xFF, 0xFF, 0xFF});
    QCOMPARE(cinder.type, Cinder);
    QCOMPARE(cinder.raw_type, 140);
}

void tst_Products::default_ProductInfo()
{
    const ProductInfo info;
    QCOMPARE(info.type, Invalid);
    QCOMPARE(info.raw_type, 0);
    QCOMPARE(info.qualifier, (std::array<std::uint8_t, 3>{0xFF, 0xFF, 0xFF}));
    QCOMPARE(QString(info), QStringLiteral("ProductInfo: invalid (0)"));
}

void tst_Products::equality_data()
{
    QTest::addColumn<QByteArray>("a");
    QTest::addColumn<QByteArray>("b");
    QTest::addColumn<bool>("equal");

    QTest::newRow("same bytes") << QByteArray("\x03\xFF\xFF\xFF", 4)
                                << QByteArray("\x03\xFF\xFF\xFF", 4) << true;
    QTest::newRow("qualifiers ignored")
        << QByteArray("\x03\xFF\xFF\xFF", 4) << QByteArray("\x03\x01\x02\x03", 4) << true;
    QTest::newRow("different types")
        << QByteArray("\x03\xFF\xFF\xFF", 4) << QByteArray("\x04\xFF\xFF\xFF", 4) << false;
    QTest::newRow("two unlisted raw bytes are both Unknown")
        << QByteArray("\x51\xFF\xFF\xFF", 4) << QByteArray("\x52\xFF\xFF\xFF", 4) << true;
    QTest::newRow("Invalid is not Undefined")
        << QByteArray("\x00\xFF\xFF\xFF", 4) << QByteArray("\xFF\xFF\xFF\xFF", 4) << false;
}

void tst_Products::equality()
{
    QFETCH(QByteArray, a);
    QFETCH(QByteArray, b);
    QFETCH(bool, equal);
    const auto raw = [](const QByteArray& x) {
        return ProductInfoRaw{std::uint8_t(x[0]), std::uint8_t(x[1]), std::uint8_t(x[2]),
                              std::uint8_t(x[3])};
    };
    const ProductInfo pa = make_ProductInfo(raw(a));
    const ProductInfo pb = make_ProductInfo(raw(b));
    QCOMPARE(pa == pb, equal);
    QCOMPARE(pa != pb, !equal);
}

void tst_Products::printable_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("raw_type");
    QTest::addColumn<QByteArray>("qualifier");
    QTest::addColumn<QString>("text");

    QTest::newRow("known, plain qualifiers")
        << 3 << 3 << QByteArray("\xFF\xFF\xFF") << QStringLiteral("ProductInfo: KSTR (3)");
    QTest::newRow("known, one qualifier set")
        << 3 << 3 << QByteArray("\xFF\xFF\x01")
        << QStringLiteral("ProductInfo: KSTR (3) [03 ff ff 01]");
    QTest::newRow("unlisted raw type")
        << 254 << 0x51 << QByteArray("\x01\xFF\xFF")
        << QStringLiteral("ProductInfo: unknown (254) [51 01 ff ff]");
    QTest::newRow("Unknown always shows bytes")
        << 254 << 0xFE << QByteArray("\xFF\xFF\xFF")
        << QStringLiteral("ProductInfo: unknown (254) [fe ff ff ff]");
    QTest::newRow("hex padded to two digits")
        << 132 << 132 << QByteArray("\x0a\x00\xFF", 3)
        << QStringLiteral("ProductInfo: HLCN (132) [84 0a 00 ff]");
    QTest::newRow("type without a row") << 7 << 7 << QByteArray("\xFF\xFF\xFF")
                                        << QStringLiteral("ProductInfo: impossible type (7)");
}

void tst_Products::printable()
{
    QFETCH(int, type);
    QFETCH(int, raw_type);
    QFETCH(QByteArray, qualifier);
    QFETCH(QString, text);
    ProductInfo info;
    info.type = Type(type);
    info.raw_type = raw_type;
    info.qualifier = {std::uint8_t(qualifier[0]), std::uint8_t(qualifier[1]),
                      std::uint8_t(qualifier[2])};
    QCOMPARE(QString(info), text);
}

void tst_Products::names_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("short_name");
    QTest::addColumn<QString>("full_name");

    QTest::newRow("Cinder") << 140 << QStringLiteral("T80 or T80X")
                            << QStringLiteral("Lumaxis T80X & T80 series");
    QTest::newRow("K3i") << 11 << QStringLiteral("K3 Industrial")
                         << QStringLiteral("K3 Industrial");
    QTest::newRow("Invalid") << 0 << QStringLiteral("N/A") << QStringLiteral("N/A");
    QTest::newRow("no row") << 7 << QString() << QString();
}

void tst_Products::names()
{
    QFETCH(int, type);
    QFETCH(QString, short_name);
    QFETCH(QString, full_name);
    ProductInfo info;
    info.type = Type(type);
    QCOMPARE(info.product_name(), short_name);
    QCOMPARE(info.product_name_full(), full_name);
}

void tst_Products::product_debug_stream_unquoted()
{
    QString text;
    QDebug(&text) << make_ProductInfo({0x03, 0xFF, 0xFF, 0xFF}) << QStringLiteral("x");
    QCOMPARE(text, QStringLiteral("ProductInfo: KSTR (3) \"x\" "));
}

QTEST_GUILESS_MAIN(tst_Products)
#include "tst_products.moc"
