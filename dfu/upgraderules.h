// The rules of an upgrade, decided here for the window's flow and the companion alike: what a unit
// that was read is, whether it may be written, how often a read is tried, what a write's end and a
// read-back mean, and how far a transfer has come.
#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QString>
#include <QtGlobal>

#include "device/products.h"
#include "dfu/progress.h"

namespace DFU {
struct DeviceInfo;
}

namespace Upgrade {

// What the program carries: the product its firmware is for and the firmware's revision text.
struct Carried
{
    Device::Type type = Device::Invalid;
    QString revision;
};

// A unit as its read-out shows it against the carried firmware.
enum class Verdict {
    Unreadable,    // the identity could not be read in full
    Blank,         // the identity area was read and is empty
    OtherProduct,  // another product, or one whose information block names another product
    SameRevision,  // the carried revision, as far as the information block says
    OtherRevision, // the carried product with another revision, or with no readable block
};
Verdict verdict(const DFU::DeviceInfo& unit, const Carried& carried);
// One word for logs and the companion's records: "unreadable", "blank", ...
QString verdict_name(Verdict verdict);

// Whether a unit with the carried revision is read back first, to prove it holds the image: an
// unforced one is, and only a read-back that matches makes it current.
bool needs_check(Verdict verdict, bool force);
// Whether a unit of that verdict may be written. Another revision may; the carried one when
// forced, or when its check did not match (a write broken off after its first sectors leaves the
// new information block over old code, which a write repairs); a blank identity only by a service
// build; another product or an unreadable unit never.
bool may_write(Verdict verdict, bool force, bool check_failed = false);

// A read-out or a read-back is tried this many times before it counts as failed: a unit that is
// still enumerating (after its restart, or before udev has granted access) refuses the first
// opens.
constexpr int read_attempts = 3;
// The pause before a read is tried again.
constexpr int retry_pause_ms = 500;
// How many writes a unit gets in one upgrade: one more after a read-back that differs.
constexpr int write_attempts = 2;

// What a write's end means, whatever the tool's version prints. dfu-util exits 74 when the unit
// fails the leave's last poll after the whole image went out (real units often reset first), and
// its wording differs between releases; its progress records do not.
enum class WriteEnd {
    Written,     // the tool reported success
    Unconfirmed, // every byte went out but the end was not confirmed: the read-back decides
    NotWritten,  // the write broke off before the last byte
};
WriteEnd write_end(int exit_code, qint64 bytes_written, qint64 image_size);

// Counts what a write's progress records report written, and hands each record on.
class WriteTally
{
public:
    explicit WriteTally(DFU::ProgressHandler next = {}) : next(std::move(next)) {}
    DFU::ProgressHandler handler();
    qint64 bytes_written() const { return written; }

private:
    DFU::ProgressHandler next;
    qint64 written = 0;
};

// A read-back judged against the image.
struct ReadBack
{
    bool complete = false; // the whole length asked for came back
    bool matches = false;  // complete, and the image's bytes are all equal
    qint64 first_difference = -1; // offset of the first byte that differs, or the first missing
    int sector = -1;              // the flash sector that offset falls in
    QByteArray sha256;            // of the bytes read back, the image's length of them
};
// read holds what came back from `asked` bytes at the flash's start (whole transfer blocks).
ReadBack judge_read_back(const QByteArray& image, const QByteArray& read, qint64 asked);

// The internal flash sector holding an offset from the flash's start: 4 x 16 KB, 1 x 64 KB, then
// 128 KB sectors (the bootloader's layout string "04*016Kg,01*064Kg,07*128Kg"); -1 outside.
int flash_sector(qint64 offset);

// The done fraction (0 to 1) of a transfer of total bytes; the byte count is finer than the
// printed percentage, which stands in when the total is unknown.
double fraction(const DFU::ToolProgress& record, qint64 total);

} // namespace Upgrade

// Handed from the worker to the window with the end of a write.
Q_DECLARE_METATYPE(Upgrade::WriteEnd)
