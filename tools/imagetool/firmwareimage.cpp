#include "tools/imagetool/firmwareimage.h"

namespace ImageTool {

namespace {

const QByteArray otp_marker("\x11\x47\x23\x01", 4);
const QByteArray begin_marker("\x12\x47\x23\x01", 4);
const QByteArray end_marker("\x13\x47\x23\x01", 4);

void append_le16(QByteArray& out, std::uint16_t v)
{
    out.append(char(v & 0xFF));
    out.append(char(v >> 8));
}

void append_le32(QByteArray& out, std::uint32_t v)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.append(char((v >> shift) & 0xFF));
}

void put_le32(QByteArray& out, int pos, std::uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out[pos + i] = char((v >> (8 * i)) & 0xFF);
}

// xorshift32: small, fast and the same on every machine, so images are byte-identical.
std::uint32_t next(std::uint32_t& state)
{
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state;
}

// Breaks every marker sequence in [from, to) by changing its second byte.
void remove_markers(QByteArray& image, int from, int to)
{
    for (const QByteArray& marker : {otp_marker, begin_marker, end_marker}) {
        for (int at = image.indexOf(marker, from); at >= 0 && at + 4 <= to;
             at = image.indexOf(marker, at + 1))
            image[at + 1] = char(0x48);
    }
}

} // namespace

QByteArray text_field(const QByteArray& text)
{
    QByteArray field = text.left(32);
    field.append(QByteArray(32 - field.size(), '\0'));
    return field;
}

QByteArray make_info_block(const InfoBlock& block, BlockForm form)
{
    if (form == BlockForm::Absent)
        return {};
    QByteArray out = begin_marker;
    out.append(char(block.identity.type));
    for (std::uint8_t q : block.identity.qualifiers)
        out.append(char(q));
    out.append(text_field(block.name));
    out.append(text_field(block.revision));
    for (const auto& [key, value] : block.details) {
        out.append(text_field(key));
        out.append(text_field(value));
    }
    switch (form) {
    case BlockForm::NoEndMarker:
        out.append(QByteArray(4, '\0'));
        break;
    case BlockForm::BadPairLength:
        out.append('\0');
        out.append(end_marker);
        break;
    default:
        out.append(end_marker);
        break;
    }
    return out;
}

QByteArray make_image(const InfoBlock& block, BlockForm form, int size, std::uint32_t seed)
{
    QByteArray image(size, '\0');
    std::uint32_t state = seed ? seed : 1;
    for (int i = 0; i + 4 <= size; i += 4)
        put_le32(image, i, next(state));
    for (int i = size - size % 4; i < size; ++i)
        image[i] = char(next(state) & 0xFF);

    // Cortex-M vector table: initial stack at the top of 128 KiB SRAM, then handlers inside the
    // image with the Thumb bit set.
    const int vectors = 98;
    if (size >= vectors * 4) {
        put_le32(image, 0, 0x20020000);
        for (int v = 1; v < vectors; ++v)
            put_le32(image, v * 4, flash_address + 0x400 + 8 * std::uint32_t(v) + 1);
    }

    const QByteArray info = make_info_block(block, form);
    remove_markers(image, 0, size);
    if (!info.isEmpty() && info_block_offset + info.size() <= size)
        image.replace(info_block_offset, info.size(), info);
    return image;
}

std::uint32_t dfu_crc(const QByteArray& bytes)
{
    std::uint32_t crc = 0xFFFFFFFF;
    for (char c : bytes) {
        crc ^= std::uint8_t(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return crc;
}

QByteArray make_dfuse_file(const QByteArray& raw, std::uint32_t address)
{
    QByteArray element;
    append_le32(element, address);
    append_le32(element, std::uint32_t(raw.size()));
    element.append(raw);

    QByteArray target("Target");
    target.append(char(0));               // alternate setting
    append_le32(target, 0);               // not named
    target.append(QByteArray(255, '\0')); // name
    append_le32(target, std::uint32_t(element.size()));
    append_le32(target, 1); // one element
    target.append(element);

    QByteArray file("DfuSe");
    file.append(char(0x01));
    append_le32(file, std::uint32_t(11 + target.size()));
    file.append(char(1)); // one target
    file.append(target);

    append_le16(file, 0xFFFF); // any device release
    append_le16(file, 0xDF11);
    append_le16(file, 0x0483);
    append_le16(file, 0x011A);
    file.append("UFD", 3);
    file.append(char(16));
    append_le32(file, dfu_crc(file));
    return file;
}

QByteArray make_otp_record(const Identity& identity, const std::array<std::uint8_t, 8>& data)
{
    QByteArray record = otp_marker;
    record.append(char(identity.type));
    for (std::uint8_t q : identity.qualifiers)
        record.append(char(q));
    for (std::uint8_t d : data)
        record.append(char(d));
    return record;
}

QByteArray make_otp_area(const QByteArray& record, int offset)
{
    QByteArray area = blank_otp_area();
    if (offset >= 0 && offset < area.size()) {
        const QByteArray fitting = record.left(area.size() - offset);
        area.replace(offset, fitting.size(), fitting);
    }
    return area;
}

QByteArray blank_otp_area()
{
    return QByteArray(otp_area_size, char(0xFF));
}

} // namespace ImageTool
