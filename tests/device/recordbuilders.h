// Builders that assemble OTP areas and firmware information blocks from fields, for tests.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>

#include <QByteArray>
#include <QList>
#include <QPair>

namespace builders {

constexpr std::uint32_t otp_marker = 0x01234711;
constexpr std::uint32_t fw_begin_marker = 0x01234712;
constexpr std::uint32_t fw_end_marker = 0x01234713;

inline QByteArray le32(std::uint32_t v)
{
    QByteArray b(4, '\0');
    for (int i = 0; i < 4; ++i)
        b[i] = char((v >> (8 * i)) & 0xFF);
    return b;
}

// A byte buffer of a given size and fill, with pieces put at chosen offsets; grows when a piece
// reaches past the end, so a row can say where things lie and nothing else.
class Bytes
{
public:
    explicit Bytes(int size = 0, char fill = '\0') : bytes_(size, fill), fill_(fill) {}

    Bytes& put(int offset, const QByteArray& piece)
    {
        if (offset + piece.size() > bytes_.size())
            bytes_.resize(offset + piece.size(), fill_);
        bytes_.replace(offset, piece.size(), piece);
        return *this;
    }
    Bytes& truncate(int size)
    {
        bytes_.truncate(size);
        return *this;
    }
    operator QByteArray() const { return bytes_; }
    QByteArray bytes() const { return bytes_; }

private:
    QByteArray bytes_;
    char fill_;
};

// One 16-byte OTP record.
struct OtpRecord
{
    std::uint32_t marker = otp_marker;
    std::uint8_t type = 3;
    std::array<std::uint8_t, 3> qualifier{0xFF, 0xFF, 0xFF};
    std::array<std::uint8_t, 8> data{};

    OtpRecord& with_type(std::uint8_t t)
    {
        type = t;
        return *this;
    }
    OtpRecord& with_qualifier(std::uint8_t a, std::uint8_t b, std::uint8_t c)
    {
        qualifier = {a, b, c};
        return *this;
    }
    OtpRecord& with_data(std::array<std::uint8_t, 8> d)
    {
        data = d;
        return *this;
    }
    QByteArray bytes() const
    {
        QByteArray b = le32(marker);
        b += char(type);
        for (auto q : qualifier)
            b += char(q);
        for (auto d : data)
            b += char(d);
        return b;
    }
    operator QByteArray() const { return bytes(); }
};

// The erased 512-byte OTP area: everything 0xFF until programmed.
inline Bytes otp_area()
{
    return Bytes(512, '\xFF');
}

// A 32-byte text field: the text, a NUL, then zeros. A text of 32 bytes or more fills the
// field without any NUL (cut to 32).
inline QByteArray text_field(const QByteArray& text)
{
    QByteArray f = text.left(32);
    f.resize(32, '\0');
    return f;
}

using Pair = QPair<QByteArray, QByteArray>;

// A complete firmware information block, begin marker to end marker.
struct InfoBlock
{
    std::uint8_t type = 3;
    std::array<std::uint8_t, 3> qualifier{0xFF, 0xFF, 0xFF};
    QByteArray name = "Vega-5 LinkSync";
    QByteArray revision = "2.3.0";
    QList<Pair> details;

    InfoBlock& with_type(std::uint8_t t)
    {
        type = t;
        return *this;
    }
    InfoBlock& with_qualifier(std::uint8_t a, std::uint8_t b, std::uint8_t c)
    {
        qualifier = {a, b, c};
        return *this;
    }
    InfoBlock& with_name(const QByteArray& n)
    {
        name = n;
        return *this;
    }
    InfoBlock& with_revision(const QByteArray& r)
    {
        revision = r;
        return *this;
    }
    InfoBlock& with_details(const QList<Pair>& d)
    {
        details = d;
        return *this;
    }

    // Begin marker and the 68 header bytes after it, without pairs or end marker.
    QByteArray header() const
    {
        QByteArray b = le32(fw_begin_marker);
        b += char(type);
        for (auto q : qualifier)
            b += char(q);
        b += text_field(name);
        b += text_field(revision);
        return b;
    }
    QByteArray bytes() const
    {
        QByteArray b = header();
        for (const auto& [key, value] : details)
            b += text_field(key) + text_field(value);
        return b + le32(fw_end_marker);
    }
    operator QByteArray() const { return bytes(); }
};

// A copy of some bytes in a heap block of exactly their size, seen through a QByteArray that does
// not own it: unlike an ordinary QByteArray there is no terminating NUL or spare capacity after
// the data, so a sanitizer build reports any read past the end.
class ExactBytes
{
public:
    explicit ExactBytes(const QByteArray& src) : storage_(new char[std::size_t(src.size())])
    {
        if (!src.isEmpty())
            std::memcpy(storage_.get(), src.constData(), std::size_t(src.size()));
        view_ = QByteArray::fromRawData(storage_.get(), src.size());
    }
    ExactBytes(const ExactBytes&) = delete;
    ExactBytes& operator=(const ExactBytes&) = delete;

    const QByteArray& bytes() const { return view_; }

private:
    std::unique_ptr<char[]> storage_;
    QByteArray view_;
};

} // namespace builders
