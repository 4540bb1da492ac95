// What the companion decides about a unit and how it prints units and results: pure functions on
// the records, so that text and JSON say the same.
#pragma once

#include <QJsonObject>
#include <QString>

#include "dfu/deviceinfo.h"

namespace Cli {

// Each outcome has its own status, so that a script can tell them apart.
enum Exit : int {
    Done = 0, // written and verified, or already current
    StartFailed = 1,
    Usage = 2,
    NoUnit = 3,
    SeveralUnits = 4,
    OtherProduct = 5,
    BlankIdentity = 6,
    NoPermission = 7,
    WriteFailed = 8,
    VerificationFailed = 9,
    ReadFailed = 10, // the identity could not be read in full
};

// The window's rule: only the carried firmware's product, never a blank identity, and a write
// only where the revision differs, unless forced.
enum class Decision { Write, Current, OtherProduct, Blank };
Decision decide(const DFU::DeviceInfo& info, Device::Type desired_type,
                const QString& desired_revision, bool force);

// One attached bootloader as `list` shows it; product and revision stay empty when it could not
// be read, node is set only for a unit this user may not open.
struct ListedUnit
{
    QString serial;
    QString product;
    QString revision;
    bool accessible = true;
    QString node;
    QString problem; // why product and revision are missing
};

ListedUnit listed_unit(const QString& serial, const DFU::DeviceInfo& info);
QString list_line(const ListedUnit& unit);
QJsonObject list_json(const ListedUnit& unit);

QString info_text(const QString& serial, const DFU::DeviceInfo& info);
QJsonObject info_json(const QString& serial, const DFU::DeviceInfo& info);

// What `upgrade` did with one unit.
struct UnitResult
{
    QString serial;
    QString old_revision;
    QString new_revision; // what the unit holds now, as far as a verification showed
    Exit exit = ReadFailed;
    bool current = false; // the unit already held the carried firmware
    QString note;         // the reason of a failure
    double seconds = 0;
};

QString result_word(const UnitResult& result);
// One line: serial, old and new revision, result, time.
QString summary_line(const UnitResult& result);

// The fix for a unit this user may not open.
QString permission_fix(const QString& node);

} // namespace Cli
