#include "dfu/deviceinfo.h"

#include <QFile>

#include "support/buildinfo.h"
#include "support/files.h"
#include "support/support_misc.h"

namespace DFU {

namespace {

QString working_file(const QString& name)
{
    return Files::external_dir.path() + QLatin1Char('/') + name;
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

CommandResult read_device_info(const DeviceItem* device, DeviceInfo* info)
{
    const QString path = working_file(Files::uploaded_OTP_fileName_bin);
    support_misc::ensure_file_is_deleted(path);

    CommandResult result = run_command(upload_OTP, {path});
    if (result.exit_code != 0)
        return result;

    info->OTP_info = Device::make_OTP_Info(path);
    if (info->OTP_info.empty)
        qInfo().noquote() << result.output << "OTP is blank.\n";
    info->type = info->OTP_info.product.type;
    info->valid = true;
    qInfo() << QString(info->OTP_info);

    info->FW_info = read_FW_Info(device);
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
    const QString path = working_file(Files::uploaded_FW_info_fileName_bin);
    support_misc::ensure_file_is_deleted(path);

    if (run_command(upload_FW_info, {path}).exit_code != 0)
        return {};
    return Device::make_FW_Info(path);
}

int download_FW_to_device(const QString& path)
{
    return run_command(download_FW, {path}).exit_code;
}

int upload_FW_from_device(const QString& target, int byte_count)
{
    // dfu-util refuses to upload into an existing file; an old one must never be compared.
    support_misc::ensure_file_is_deleted(target);
    return run_command(upload_FW,
                       {QStringLiteral("-s"), QStringLiteral("0x08000000:%1").arg(byte_count),
                        QStringLiteral("-U"), target})
        .exit_code;
}

bool upload_and_compare_FW_bin(const QString& reference, const QString& target)
{
    const int size = size_of_binary_file(reference);
    if (size < 1)
        return false;
    if (upload_FW_from_device(target, size) != 0)
        return false;
    return compare_FW_bin_files(reference, target);
}

int size_of_binary_file(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    return int(file.size());
}

bool compare_FW_bin_files(const QString& first, const QString& second)
{
    const int size = size_of_binary_file(first);
    if (size < 1 || size_of_binary_file(second) != size)
        return false;

    QFile a(first);
    QFile b(second);
    if (!a.open(QIODevice::ReadOnly) || !b.open(QIODevice::ReadOnly))
        return false;
    // Exact bytes: a read-back that misses one block must not pass.
    return a.readAll() == b.readAll();
}

Device::FW_Info read_FW_Info_from_desired_FW()
{
    const QString path = working_file(Files::desired_FW_fileName_bin);
    qDebug() << "Reading desired FW_Info from " << path;
    return Device::make_FW_Info(path);
}

const Device::FW_Info& desired_FW_Info()
{
    static const Device::FW_Info cached = read_FW_Info_from_desired_FW();
    return cached;
}

} // namespace DFU
