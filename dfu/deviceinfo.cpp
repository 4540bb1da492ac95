#include "dfu/deviceinfo.h"

#include <QFile>
#include <QThread>

#include "support/buildinfo.h"
#include "support/files.h"
#include "support/support_misc.h"

namespace DFU {

namespace {

// The bootloader's DFU transfer size: every upload block but a final short one has this length.
constexpr int transfer_size = 2048;
constexpr int OTP_area_size = 512;
constexpr int FW_info_size = 2048;

// dfu-util ends an upload with exit code 0 at the first short block, so a unit that stops
// answering mid-read can leave a short file behind a "successful" run. Such a read-out is a
// failed one: the caller must not take a few bytes for an identity or a firmware block.
bool complete_read_out(const QString& path, int expected, CommandResult* result)
{
    const int got = size_of_binary_file(path);
    if (got == expected)
        return true;
    const QString text = QStringLiteral("Short read-out of %1: expected %2 bytes, got %3.")
                             .arg(path)
                             .arg(expected)
                             .arg(got < 0 ? 0 : got);
    qWarning().noquote() << text;
    result->exit_code = short_read_exit_code;
    result->output += text;
    return false;
}

// Reads the firmware information block into path: the run's result, failed when it came back short.
CommandResult upload_FW_info_into(const QString& path)
{
    support_misc::ensure_file_is_deleted(path);
    CommandResult result = run_command(upload_FW_info, {path});
    if (result.exit_code == 0)
        complete_read_out(path, FW_info_size, &result);
    return result;
}

} // namespace

DeviceInfo::operator QString() const
{
    QString text = QStringLiteral("DeviceInfo:\n");
    if (!valid)
        return text + QStringLiteral("Invalid");
    return text + QStringLiteral("\tDevice type:\t%1\n\tFW_revision:\t%2\n")
                      .arg(int(type))
                      .arg(FW_revision);
}

QDebug operator<<(QDebug dbg, const DeviceInfo& info)
{
    const QDebugStateSaver saver(dbg);
    dbg.noquote() << QString(info);
    return dbg;
}

CommandResult read_device_info(const DeviceItem* /*device*/, DeviceInfo* info)
{
    const QString path = Files::working_path(Files::uploaded_OTP_fileName_bin);
    support_misc::ensure_file_is_deleted(path);

    CommandResult result = run_command(upload_OTP, {path});
    if (result.exit_code != 0 || !complete_read_out(path, OTP_area_size, &result))
        return result;

    info->OTP_info = Device::make_OTP_Info(path);
    if (info->OTP_info.empty)
        qInfo().noquote() << result.output << "OTP is blank.\n";
    info->type = info->OTP_info.product.type;
    info->valid = true;
    qInfo() << QString(info->OTP_info);

    // A failed or short information read says nothing about the firmware: the whole read-out
    // failed. Only a complete block that holds no valid information counts as a product mismatch,
    // which still lets a unit whose earlier write broke off be repaired.
    const CommandResult info_read =
        upload_FW_info_into(Files::working_path(Files::uploaded_FW_info_fileName_bin));
    if (info_read.exit_code != 0) {
        result.exit_code = info_read.exit_code;
        result.output += info_read.output;
        return result;
    }
    info->FW_info = Device::make_FW_Info(Files::working_path(Files::uploaded_FW_info_fileName_bin));
    if (info->FW_info.product != info->OTP_info.product) {
        // A service build may give a blank unit its first firmware.
        const bool accept = info->OTP_info.empty && have_service_build();
        if (!accept) {
            result.output +=
                QStringLiteral("FW assumed invalid because of product type mismatch.") +
                QStringLiteral("\nOTP contains") + QString(info->OTP_info.product) +
                QStringLiteral("\nwhereas FW contains\n") + QString(info->FW_info);
            qInfo().noquote() << result.output;
            info->FW_info.valid = false;
            return result;
        }
    }

    info->FW_revision = info->FW_info.revision;
    qInfo() << *info << info->FW_info;
    return result;
}

Device::FW_Info read_FW_Info(const DeviceItem* /*device*/)
{
    const QString path = Files::working_path(Files::uploaded_FW_info_fileName_bin);
    if (upload_FW_info_into(path).exit_code != 0)
        return {};
    return Device::make_FW_Info(path);
}

Upgrade::WriteEnd write_FW(const QString& path, bool leave, const ProgressHandler& on_progress)
{
    Upgrade::WriteTally tally(on_progress);
    const int exit_code =
        run_command(leave ? download_FW : download_FW_staying, {path}, tally.handler()).exit_code;
    return Upgrade::write_end(exit_code, tally.bytes_written(), size_of_binary_file(path));
}

int upload_FW_from_device(const QString& target, int byte_count,
                          const ProgressHandler& on_progress)
{
    // dfu-util refuses to upload into an existing file; an old one must never be compared.
    support_misc::ensure_file_is_deleted(target);
    return run_command(upload_FW,
                       {QStringLiteral("-s"), QStringLiteral("0x08000000:%1").arg(byte_count),
                        QStringLiteral("-U"), target},
                       on_progress)
        .exit_code;
}

int leave_bootloader(const QString& target)
{
    support_misc::ensure_file_is_deleted(target);
    const int exit_code =
        run_command(upload_FW, {QStringLiteral("-s"),
                                QStringLiteral("0x08000000:%1:leave").arg(transfer_size),
                                QStringLiteral("-U"), target})
            .exit_code;
    support_misc::ensure_file_is_deleted(target);
    return exit_code;
}

int whole_blocks(int byte_count)
{
    return (byte_count + transfer_size - 1) / transfer_size * transfer_size;
}

Upgrade::ReadBack read_back_FW(const QString& reference, const QString& target,
                               const ProgressHandler& on_progress)
{
    QFile file(reference);
    const QByteArray image = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    // Whole blocks only: bootloaders differ in where they read a short last block from (at the
    // transfer size's stride or at the requested length's), and a whole block reads the same on
    // every one of them. The flash beyond the image is read along and not compared.
    const int asked = whole_blocks(int(image.size()));
    Upgrade::ReadBack judged;
    for (int attempt = 1; attempt <= Upgrade::read_attempts && !image.isEmpty(); ++attempt) {
        const int exit_code = upload_FW_from_device(target, asked, on_progress);
        QFile read(target);
        judged = Upgrade::judge_read_back(
            image, exit_code == 0 && read.open(QIODevice::ReadOnly) ? read.readAll() : QByteArray(),
            asked);
        // A complete read-back is final, whether it matches or not.
        if (judged.complete)
            break;
        CommandResult result;
        if (exit_code == 0)
            complete_read_out(target, asked, &result);
        if (attempt < Upgrade::read_attempts) {
            qInfo() << "Reading back failed, attempt" << attempt << "of" << Upgrade::read_attempts;
            QThread::msleep(Upgrade::retry_pause_ms);
        }
    }
    return judged;
}

bool upload_and_compare_FW_bin(const QString& reference, const QString& target,
                               const ProgressHandler& on_progress)
{
    return read_back_FW(reference, target, on_progress).matches;
}

int size_of_binary_file(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    return int(file.size());
}

Device::FW_Info read_FW_Info_from_desired_FW()
{
    const QString path = Files::working_path(Files::desired_FW_fileName_bin);
    qDebug() << "Reading desired FW_Info from " << path;
    return Device::make_FW_Info(path);
}

const Device::FW_Info& desired_FW_Info()
{
    static const Device::FW_Info cached = read_FW_Info_from_desired_FW();
    return cached;
}

Upgrade::Carried carried_firmware()
{
    return {desired_FW_Info().product.type, desired_FW_Info().revision};
}

} // namespace DFU
