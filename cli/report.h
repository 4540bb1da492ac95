// How the companion prints units and results: pure functions on the records, so that text and JSON
// say the same. What happens to a unit is decided by the upgrade's rules (dfu/upgraderules.h).
#pragma once

#include <QJsonObject>
#include <QString>

#include <QList>

#include "dfu/deviceinfo.h"
#include "dfu/scan.h"

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

// One attached bootloader as `list` shows it; product and revision stay empty when it could not
// be read, node is set only for a unit this user may not open.
struct ListedUnit
{
    QString serial;
    QString path; // the USB path, where the listing gives one
    QString product;
    QString revision;
    bool accessible = true;
    QString node;
    QString problem; // why product and revision are missing
};

ListedUnit listed_unit(const DFU::DeviceItem& unit, const DFU::DeviceInfo& info);
QString list_line(const ListedUnit& unit);
QJsonObject list_json(const ListedUnit& unit);

QString info_text(const QString& serial, const DFU::DeviceInfo& info);
QJsonObject info_json(const QString& serial, const DFU::DeviceInfo& info);

// What `upgrade` or `verify` did with one unit: the record a bench keeps.
struct UnitResult
{
    struct Phase
    {
        QString name; // identity, check, write, verify, leave
        double seconds = 0;
    };
    struct Run
    {
        QString command; // the command table's name: upload_OTP, download_FW_staying, ...
        int exit_code = 0;
    };

    QString serial;
    QString path;
    QString product; // as `list` names it; empty when the identity could not be read
    int type = -1;   // the identity's type byte
    QString verdict; // Upgrade::verdict_name of the unit as it was read
    QString old_revision;
    QString new_revision; // what the unit holds now, as far as a verification showed
    Exit exit = ReadFailed;
    bool current = false;  // the unit already held the carried firmware
    bool repaired = false; // its revision matched but its flash did not, and a write mended it
    Upgrade::ReadBack read_back; // the last one
    bool read_back_taken = false;
    QString note; // the reason of a failure
    QList<Phase> phases;
    QList<Run> runs;
    double seconds = 0;
};

QString result_word(const UnitResult& result);
// One line: serial, old and new revision, result, time.
QString summary_line(const UnitResult& result);
// One JSON object: the fields the manual page documents.
QJsonObject result_json(const UnitResult& result);

// "with serial S at path P" (either part left out where empty), as the companion names a unit.
QString unit_words(const QString& serial, const QString& path);

// The fix for a unit this user may not open.
QString permission_fix(const QString& node);

} // namespace Cli
