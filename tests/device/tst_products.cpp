// Tests of the product table, the type conversions and the product identity record.
#include <sstream>

#include <QtTest>

#include "device/products.h"

using namespace Device;

Q_DECLARE_METATYPE(Device::Type)

namespace {

ProductInfo product(int type, int raw_type, std::array<std::uint8_t, 3> qualifier)
{
    ProductInfo info;
    info.type = Type(type);
    info.raw_type = raw_type;
    info.qualifier = qualifier;
    return info;
}

} // namespace

class tst_Products : public QObject
{
    Q_OBJECT

private slots:
    void type_facts_data();
    void type_facts();
    void to_Type_from_byte_data();
    void to_Type_from_byte();
    void to_Type_from_code_data();
    void to_Type_from_code();
    void make_ProductInfo_copies_bytes();
    void equality_data();
    void equality();
    void printable_data();
    void printable();
    void debug_streams_unquoted_and_restore_state();
};

void tst_Products::type_facts_data()
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
    QTest::newRow("Monolith") << 43 << true << true << "MNLT"
                              << "K3"
                              << "K3 LinkSync";
    QTest::newRow("K3i, the irregular row") << 11 << true << true << "K3I"
                                            << "K3 Industrial"
                                            << "K3 Industrial";
    QTest::newRow("Halcyon") << 132 << true << true << "HLCN"
                             << "M4X"
                             << "Lumaxis M4 & M4X";
    QTest::newRow("Cinder, two products") << 140 << true << true << "CNDR"
                                          << "T80 or T80X"
                                          << "Lumaxis T80X & T80 series";
    QTest::newRow("unlisted 7") << 7 << true << true << "impossible type"
                                << ""
                                << "";
}

void tst_Products::type_facts()
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
    QCOMPARE(QString::fromStdString(to_string(t)), code);
    std::ostringstream os;
    os << t;
    QCOMPARE(QString::fromStdString(os.str()), code);

    const ProductInfo info = product(type, type, {0xFF, 0xFF, 0xFF});
    QCOMPARE(info.product_name(), short_name);
    QCOMPARE(info.product_name_full(), full_name);
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
    QTest::newRow("Breeze") << 0x1E << Breeze;
    QTest::newRow("unlisted 7") << 7 << Unknown;
}

void tst_Products::to_Type_from_byte()
{
    QFETCH(int, byte);
    QFETCH(Type, expected);
    QCOMPARE(to_Type(static_cast<unsigned char>(byte)), expected);
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

void tst_Products::make_ProductInfo_copies_bytes()
{
    const ProductInfo unlisted = make_ProductInfo({0x51, 0x01, 0x02, 0x03});
    QCOMPARE(unlisted.type, Unknown);
    QCOMPARE(unlisted.raw_type, 0x51);
    QCOMPARE(unlisted.qualifier, (std::array<std::uint8_t, 3>{0x01, 0x02, 0x03}));

    const ProductInfo cinder = make_ProductInfo({0x8C, 0xFF, 0xFF, 0xFF});
    QCOMPARE(cinder.type, Cinder);
    QCOMPARE(cinder.raw_type, 140);

    const ProductInfo unset;
    QCOMPARE(unset.type, Invalid);
    QCOMPARE(unset.raw_type, 0);
    QCOMPARE(unset.qualifier, (std::array<std::uint8_t, 3>{0xFF, 0xFF, 0xFF}));
}

void tst_Products::equality_data()
{
    QTest::addColumn<QByteArray>("a");
    QTest::addColumn<QByteArray>("b");
    QTest::addColumn<bool>("equal");

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
    const auto info = [](const QByteArray& x) {
        return make_ProductInfo(
            {std::uint8_t(x[0]), std::uint8_t(x[1]), std::uint8_t(x[2]), std::uint8_t(x[3])});
    };
    QCOMPARE(info(a) == info(b), equal);
    QCOMPARE(info(a) != info(b), !equal);
}

void tst_Products::printable_data()
{
    QTest::addColumn<ProductInfo>("info");
    QTest::addColumn<QString>("text");

    QTest::newRow("known, plain qualifiers")
        << product(3, 3, {0xFF, 0xFF, 0xFF}) << QStringLiteral("ProductInfo: KSTR (3)");
    QTest::newRow("known, one qualifier set")
        << product(3, 3, {0xFF, 0xFF, 0x01})
        << QStringLiteral("ProductInfo: KSTR (3) [03 ff ff 01]");
    QTest::newRow("unlisted raw type")
        << product(254, 0x51, {0x01, 0xFF, 0xFF})
        << QStringLiteral("ProductInfo: unknown (254) [51 01 ff ff]");
    QTest::newRow("Unknown always shows bytes")
        << product(254, 0xFE, {0xFF, 0xFF, 0xFF})
        << QStringLiteral("ProductInfo: unknown (254) [fe ff ff ff]");
    QTest::newRow("hex padded to two digits")
        << product(132, 132, {0x0A, 0x00, 0xFF})
        << QStringLiteral("ProductInfo: HLCN (132) [84 0a 00 ff]");
    QTest::newRow("type without a row")
        << product(7, 7, {0xFF, 0xFF, 0xFF}) << QStringLiteral("ProductInfo: impossible type (7)");
    QTest::newRow("unset") << ProductInfo() << QStringLiteral("ProductInfo: invalid (0)");
}

void tst_Products::printable()
{
    QFETCH(ProductInfo, info);
    QFETCH(QString, text);
    QCOMPARE(QString(info), text);
}

void tst_Products::debug_streams_unquoted_and_restore_state()
{
    QString spaced;
    QDebug(&spaced) << Kestrel << QStringLiteral("x") << Type(7)
                    << make_ProductInfo({0x03, 0xFF, 0xFF, 0xFF}) << QStringLiteral("y");
    QCOMPARE(spaced, QStringLiteral("KSTR \"x\" impossible type ProductInfo: KSTR (3) \"y\" "));

    QString packed;
    QDebug(&packed).nospace() << Kestrel << Cinder << QStringLiteral("x");
    QCOMPARE(packed, QStringLiteral("KSTRCNDR\"x\""));
}

QTEST_GUILESS_MAIN(tst_Products)
#include "tst_products.moc"
