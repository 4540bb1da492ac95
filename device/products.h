// Device types, the fixed product table and the product identity that records carry.
#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <QDebug>
#include <QString>

namespace Device {

// Unscoped on purpose: both Device::Kestrel and Device::Type::Kestrel read naturally, and the
// value prints as its type byte.
enum Type : std::uint8_t {
    Invalid = 0,
    Kestrel = 3,
    Verdant = 4,
    K3i = 11,
    Breeze = 30,
    Garnet = 36,
    Monolith = 43,
    Halcyon = 132,
    Cinder = 140,
    Unknown = 254,
    Undefined = 255,
};

struct Product
{
    Type type;
    QString code;
    QString name;
    QString short_name;
    QString full_name;
};

// The known products in lookup order; every lookup takes the first match.
class Products
{
public:
    using const_iterator = std::vector<Product>::const_iterator;

    explicit Products(std::vector<Product> rows) : rows_(std::move(rows)) {}

    const_iterator begin() const { return rows_.begin(); }
    const_iterator end() const { return rows_.end(); }
    std::size_t size() const { return rows_.size(); }
    const Product& operator[](std::size_t i) const { return rows_[i]; }

    const_iterator find(Type t) const;
    const_iterator find(unsigned char b) const;
    const_iterator find(const QString& code) const;

private:
    std::vector<Product> rows_;
};

extern const Products products;

bool is_valid(Type t);
bool is_known(Type t);
Type to_Type(unsigned char b);
Type to_Type(const QString& code);
QString to_QString(Type t);
std::string to_string(Type t);

std::ostream& operator<<(std::ostream& os, Type t);
QDebug operator<<(QDebug dbg, Type t);

// The four bytes as a record stores them: type byte, then three qualifier bytes.
using ProductInfoRaw = std::array<std::uint8_t, 4>;

struct ProductInfo
{
    Type type = Invalid;
    // Opaque: carried and printed, never interpreted.
    std::array<std::uint8_t, 3> qualifier{0xFF, 0xFF, 0xFF};
    std::int32_t raw_type = 0;

    QString product_name() const;
    QString product_name_full() const;
    operator QString() const;
};

ProductInfo make_ProductInfo(ProductInfoRaw raw);

// Identity is the type alone; qualifiers and the raw byte do not take part.
bool operator==(const ProductInfo& a, const ProductInfo& b);
bool operator!=(const ProductInfo& a, const ProductInfo& b);

QDebug operator<<(QDebug dbg, const ProductInfo& info);

} // namespace Device
