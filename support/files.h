// The per-run temporary directory, the fixed names of the files in it, and resource extraction.
#pragma once

#include <vector>

#include <QMap>
#include <QString>
#include <QTemporaryDir>
#include <QtGlobal>

namespace Files {

enum ID : qint32 {
    dfu_util = 0,
    libusb = 1,
    desired_FW_dfu = 2,
    desired_FW_bin = 3,
    uploaded_FW_bin = 4,
    uploaded_FW_info_bin = 5,
    uploaded_OTP_bin = 6,
};

// The names and the map are inline variables: any static defined after this header's inclusion
// is initialised after them, so other tables may be built from them before main.
inline const QString dfu_util_executable_fileName = QStringLiteral("dfu-util");
inline const QString desired_FW_fileName_dfu = QStringLiteral("firmware.dfu");
inline const QString desired_FW_fileName_bin = QStringLiteral("firmware.bin");
inline const QString uploaded_FW_fileName_bin = QStringLiteral("uploaded_FW.bin");
inline const QString uploaded_FW_info_fileName_bin = QStringLiteral("uploaded_FW_info.bin");
inline const QString uploaded_OTP_fileName_bin = QStringLiteral("uploaded_OTP.bin");

// The tool loads the library from its own directory, under exactly this name.
#if defined(Q_OS_MACOS)
inline const QString libusb_fileName = QStringLiteral("libusb-1.0.0.dylib");
#else
inline const QString libusb_fileName = QStringLiteral("libusb-1.0.so.0");
#endif

// Mutable: a look-up of an unknown identifier adds it with an empty name.
inline QMap<ID, QString> basename = {
    {dfu_util, dfu_util_executable_fileName},
    {libusb, libusb_fileName},
    {desired_FW_dfu, desired_FW_fileName_dfu},
    {desired_FW_bin, desired_FW_fileName_bin},
    {uploaded_FW_bin, uploaded_FW_fileName_bin},
    {uploaded_FW_info_bin, uploaded_FW_info_fileName_bin},
    {uploaded_OTP_bin, uploaded_OTP_fileName_bin},
};

// Created before main under the system's temporary path; removed with its contents at exit.
// move_to_private_folder() may replace it once, at start-up.
extern QTemporaryDir external_dir;

// The folder the temporary one is made in: the system's temporary path as configured.
QString temporary_base();
// The user's own folder beside the cache, for a tool the temporary folder will not let run;
// empty without a cache folder (no home).
QString private_base();
// Makes a fresh working folder under private_base() (both mode 0700) and removes the old one with
// its files; false with the reason when it cannot be made. private_base() goes at exit too, once
// no run of the program uses it.
bool move_to_private_folder(QString* reason);

// Free bytes where the working files lie, as this user may use them; -1 when unknown.
qint64 free_bytes();

// Where the working file `name` lies: external_dir's path, "/", name.
QString working_path(const QString& name);

// Copies ":resources/<name>" of each identifier into external_dir. A failed copy is logged and
// skipped; the result is false only when strict and a copy failed, or without a directory. The
// first failure's folder and reason go to *problem_folder and *problem_reason when given.
bool extract_resources(std::vector<ID> ids, bool strict, QString* problem_folder = nullptr,
                       QString* problem_reason = nullptr);

} // namespace Files
