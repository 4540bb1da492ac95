// Builds firmware images, DfuSe files and OTP areas from fields, for the build and for tests.
#pragma once

#include <array>
#include <cstdint>

#include <QByteArray>
#include <QList>
#include <QPair>

namespace ImageTool {

constexpr std::uint32_t flash_address = 0x08000000;
constexpr int info_block_offset = 0x200;
constexpr int default_image_size = 573088;
constexpr int otp_area_size = 512;

// The identity carried by an information block or an OTP record.
struct Identity
{
    std::uint8_t type = 3;
    std::array<std::uint8_t, 3> qualifiers{0xFF, 0xFF, 0xFF};
};

struct InfoBlock
{
    Identity identity;
    QByteArray name = "Vega-5 LinkSync";
    QByteArray revision = "2.3.0";
    QList<QPair<QByteArray, QByteArray>> details = {
        {"build", "2026-11-01"}, {"hardware", "rev C"}, {"bootloader", "DfuSe 2.2"}};
};

enum class BlockForm {
    Intact,
    Absent,        // no markers at all
    NoEndMarker,   // begin marker only
    BadPairLength, // end marker one byte off the 64-byte pair grid
};

// A 32-byte text field: the text, a NUL, zero padding. Texts of 32 bytes or more fill the field
// without a NUL, which readers treat as empty.
QByteArray text_field(const QByteArray& text);

// The block with its begin and end markers; form chooses a deliberate defect.
QByteArray make_info_block(const InfoBlock& block, BlockForm form = BlockForm::Intact);

// A raw image of size bytes: vector table, the block at 0x200, seeded pseudo-random fill that
// never holds a marker outside the block. An image too small to hold the block carries none.
QByteArray make_image(const InfoBlock& block, BlockForm form = BlockForm::Intact,
                      int size = default_image_size, std::uint32_t seed = 0x4C554D58);

// The same bytes as one DfuSe target (alternate setting 0) with one element at address, and
// the 16-byte DFU suffix for 0483:df11.
QByteArray make_dfuse_file(const QByteArray& raw, std::uint32_t address = flash_address);

// CRC of a DFU suffix: CRC-32 without the final inversion, over everything before the CRC.
std::uint32_t dfu_crc(const QByteArray& bytes);

// The 16-byte OTP record: marker, type, qualifiers, eight data bytes.
QByteArray make_otp_record(const Identity& identity, const std::array<std::uint8_t, 8>& data = {});

// A 512-byte OTP area, erased (0xFF) but for the record at offset. Readers expect a multiple of
// 16; other offsets are allowed for tests, and a record running past the end is cut off there.
QByteArray make_otp_area(const QByteArray& record, int offset = 0);
QByteArray blank_otp_area();

} // namespace ImageTool
