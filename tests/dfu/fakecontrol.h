// Drives tests/dfu/fake_dfu_util: points the command table at it and prepares its control folder.
#pragma once

#include <QDir>
#include <QFile>
#include <QList>
#include <QStringList>
#include <QTemporaryDir>
#include <QtGlobal>

#include "dfu/commands.h"

class FakeDfuUtil final
{
public:
    FakeDfuUtil() : previous_path_(DFU::Command::path)
    {
        qputenv("FAKE_DFU_UTIL_CONTROL", control_.path().toUtf8());
        DFU::Command::path = QStringLiteral(FAKE_DFU_UTIL_DIR);
    }
    ~FakeDfuUtil()
    {
        qunsetenv("FAKE_DFU_UTIL_CONTROL");
        DFU::Command::path = previous_path_;
    }
    FakeDfuUtil(const FakeDfuUtil&) = delete;
    FakeDfuUtil& operator=(const FakeDfuUtil&) = delete;

    // Forget every setting, memory and recorded call.
    void reset()
    {
        QDir dir(control_.path());
        for (const QString& name : dir.entryList(QDir::Files))
            dir.remove(name);
    }

    // Command words: version, list, upload_OTP, upload_FW_info, upload_FW, download_FW.
    void set_exit(const QString& command, int code)
    {
        write(command + QStringLiteral(".exit"), QByteArray::number(code));
    }
    void set_stdout(const QString& command, const QString& text)
    {
        write(command + QStringLiteral(".stdout"), text.toUtf8());
    }
    void set_otp(const QByteArray& area) { write(QStringLiteral("otp.bin"), area); }
    void set_flash(const QByteArray& image) { write(QStringLiteral("flash.bin"), image); }

    // One entry per run, each the run's arguments.
    QList<QStringList> calls() const
    {
        QList<QStringList> result;
        for (const QString& line : QString::fromUtf8(read(QStringLiteral("calls")))
                                       .split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            result << line.split(QLatin1Char('\t'));
        return result;
    }

private:
    void write(const QString& name, const QByteArray& bytes)
    {
        QFile file(control_.filePath(name));
        if (file.open(QIODevice::WriteOnly))
            file.write(bytes);
    }
    QByteArray read(const QString& name) const
    {
        QFile file(control_.filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QTemporaryDir control_;
    QString previous_path_;
};
