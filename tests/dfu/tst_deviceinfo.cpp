// Device read-out, download, read-back and comparison, run against the fake dfu-util.
#include <QtTest>

#include "common/logcapture.h"
#include "device/recordbuilders.h"
#include "dfu/deviceinfo.h"
#include "fakecontrol.h"
#include "support/files.h"

namespace {

const QString upload_done = QStringLiteral("Upload done.\n");
const QString otp_text_kestrel = QStringLiteral(
    R"(info: "OTP info:\nOTP info:\nMarker valid\nProduct: ProductInfo: KSTR (3)\n")");

QString working_file(const QString& name)
{
    return Files::external_dir.path() + QLatin1Char('/') + name;
}

QByteArray otp_area_of(std::uint8_t type)
{
    return builders::otp_area().put(0, builders::OtpRecord().with_type(type));
}

// Vector-table-like head, the information block at 0x200, then a pattern that is never 0xFF.
QByteArray image_of(std::uint8_t type, const QByteArray& revision = "2.3.0", int size = 4096)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 31 + 7) % 251);
    const QByteArray block = builders::InfoBlock().with_type(type).with_revision(revision);
    return builders::Bytes().put(0, bytes).put(0x200, block);
}

void write_file(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

// The runner's own start and exit lines are its business; keep the read-out's lines.
QStringList own_lines(const LogCapture& log)
{
    QStringList lines;
    for (const QString& line : log.lines()) {
        if (!line.startsWith(QStringLiteral("info: Start ")) &&
            !line.startsWith(QStringLiteral("info: Exit with")))
            lines << line;
    }
    return lines;
}

QStringList upload_args(const QString& range, const QString& alt, const QString& target)
{
    return {QStringLiteral("-d"), QStringLiteral("0483"),
            QStringLiteral("-a"), alt,
            QStringLiteral("-s"), range,
            QStringLiteral("-U"), target};
}

} // namespace

class tst_DeviceInfo final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void text_form_data();
    void text_form();
    void read_device_info_data();
    void read_device_info();

    void upload_passes_byte_count();
    void download_passes_file_and_exit_code();
    void upload_and_compare_data();
    void upload_and_compare();
    void compare_files_data();
    void compare_files();

    void desired_FW_Info_is_read_once();

private:
    FakeDfuUtil fake;
};

void tst_DeviceInfo::initTestCase()
{
    QVERIFY(Files::external_dir.isValid());
}

void tst_DeviceInfo::init()
{
    fake.reset();
    fake.set_stdout(QStringLiteral("upload_OTP"), upload_done);
}

void tst_DeviceInfo::text_form_data()
{
    QTest::addColumn<bool>("valid");
    QTest::addColumn<QString>("text");

    QTest::newRow("unread") << false << QStringLiteral("DeviceInfo:\nInvalid");
    QTest::newRow("read") << true
                          << QStringLiteral(
                                 "DeviceInfo:\n\tDevice type:\t43\n\tFW_revision:\t2.3.0\n");
}

void tst_DeviceInfo::text_form()
{
    QFETCH(bool, valid);
    QFETCH(QString, text);

    DFU::DeviceInfo info;
    info.valid = valid;
    info.type = Device::Monolith;
    info.FW_revision = QStringLiteral("2.3.0");
    QCOMPARE(QString(info), text);

    // The debug form prints the same text unquoted and leaves the stream quoting afterwards.
    QString streamed;
    QDebug(&streamed) << info << QStringLiteral("x");
    QCOMPARE(streamed, text + QStringLiteral(" \"x\" "));
}

void tst_DeviceInfo::read_device_info_data()
{
    QTest::addColumn<QByteArray>("otp");
    QTest::addColumn<QByteArray>("flash");
    QTest::addColumn<int>("otp_exit");
    QTest::addColumn<int>("fw_info_exit");
    QTest::addColumn<int>("exit_code");
    QTest::addColumn<QString>("text"); // the DeviceInfo's text form afterwards
    QTest::addColumn<bool>("fw_valid");
    QTest::addColumn<QString>("output"); // the result's output text
    QTest::addColumn<QStringList>("log");

    const QString kestrel_block =
        QStringLiteral("FW info:\n  Type: ProductInfo: KSTR (3)\n"
                       "  Name: Vega-5 LinkSync\n  Rev.: 2.3.0\n  Details:");
    const QString mismatch = QStringLiteral("FW assumed invalid because of product type mismatch."
                                            "\nOTP contains%1\nwhereas FW contains\n%2");

    QTest::newRow("OTP upload fails")
        << otp_area_of(Device::Kestrel) << image_of(Device::Kestrel) << 1 << 0 << 1
        << QStringLiteral("DeviceInfo:\nInvalid") << false << upload_done << QStringList();

    QTest::newRow("products match")
        << otp_area_of(Device::Kestrel) << image_of(Device::Kestrel) << 0 << 0 << 0
        << QStringLiteral("DeviceInfo:\n\tDevice type:\t3\n\tFW_revision:\t2.3.0\n") << true
        << upload_done
        << QStringList{
               otp_text_kestrel,
               QStringLiteral("info: DeviceInfo:\n\tDevice type:\t3\n\tFW_revision:\t2.3.0\n ") +
                   kestrel_block};

    const QString other =
        upload_done + mismatch.arg(QStringLiteral("ProductInfo: VRDN (4)"), kestrel_block);
    QTest::newRow("products differ")
        << otp_area_of(Device::Verdant) << image_of(Device::Kestrel) << 0 << 0 << 0
        << QStringLiteral("DeviceInfo:\n\tDevice type:\t4\n\tFW_revision:\told\n") << false << other
        << QStringList{QStringLiteral(R"(info: "OTP info:\nOTP info:\nMarker valid\nProduct: )"
                                      R"(ProductInfo: VRDN (4)\n")"),
                       QStringLiteral("info: ") + other};

    const QString no_block = upload_done + mismatch.arg(QStringLiteral("ProductInfo: KSTR (3)"),
                                                        QStringLiteral("FW info:\n\tInvalid"));
    QTest::newRow("firmware-info upload fails")
        << otp_area_of(Device::Kestrel) << image_of(Device::Kestrel) << 0 << 74 << 0
        << QStringLiteral("DeviceInfo:\n\tDevice type:\t3\n\tFW_revision:\told\n") << false
        << no_block << QStringList{otp_text_kestrel, QStringLiteral("info: ") + no_block};

    const QString blank =
        upload_done + mismatch.arg(QStringLiteral("ProductInfo: invalid (0)"), kestrel_block);
    QTest::newRow("blank OTP in a normal build")
        << builders::otp_area().bytes() << image_of(Device::Kestrel) << 0 << 0 << 0
        << QStringLiteral("DeviceInfo:\n\tDevice type:\t0\n\tFW_revision:\told\n") << false << blank
        << QStringList{QStringLiteral("info: Upload done.\n OTP is blank.\n"),
                       QStringLiteral(R"(info: "OTP info:\nOTP info:\nMarker invalid\nProduct: )"
                                      R"(ProductInfo: invalid (0)\n")"),
                       QStringLiteral("info: ") + blank};
}

void tst_DeviceInfo::read_device_info()
{
    QFETCH(QByteArray, otp);
    QFETCH(QByteArray, flash);
    QFETCH(int, otp_exit);
    QFETCH(int, fw_info_exit);
    QFETCH(int, exit_code);
    QFETCH(QString, text);
    QFETCH(bool, fw_valid);
    QFETCH(QString, output);
    QFETCH(QStringList, log);

    // A failing run still leaves the uploaded bytes behind; they must not be read. The fake, like
    // dfu-util, refuses an existing target, so each row after the first also proves that the
    // upload files of the row before were deleted.
    fake.set_otp(otp);
    fake.set_flash(flash);
    fake.set_exit(QStringLiteral("upload_OTP"), otp_exit);
    fake.set_exit(QStringLiteral("upload_FW_info"), fw_info_exit);

    DFU::DeviceInfo info;
    info.FW_revision = QStringLiteral("old"); // the read-out fills fields, never resets
    DFU::CommandResult result;
    {
        LogCapture capture;
        result = DFU::read_device_info(nullptr, &info);
        QCOMPARE(own_lines(capture), log);
    }

    QCOMPARE(result.exit_code, exit_code);
    QCOMPARE(result.output, output);
    QCOMPARE(QString(info), text);
    QCOMPARE(info.FW_info.valid, fw_valid);

    const QString otp_path = working_file(Files::uploaded_OTP_fileName_bin);
    const QString info_path = working_file(Files::uploaded_FW_info_fileName_bin);
    QList<QStringList> calls{
        upload_args(QStringLiteral("0x1FFF7800:512"), QStringLiteral("2"), otp_path)};
    if (otp_exit == 0)
        calls << upload_args(QStringLiteral("0x08000000:2048"), QStringLiteral("0"), info_path);
    QCOMPARE(fake.calls(), calls);
}

void tst_DeviceInfo::upload_passes_byte_count()
{
    const QString target = working_file(Files::uploaded_FW_fileName_bin);
    write_file(target, "stale");
    fake.set_flash(image_of(Device::Kestrel, "2.3.0", 573088));

    QCOMPARE(DFU::upload_FW_from_device(target, 573088), 0);
    QCOMPARE(fake.calls(), QList<QStringList>{upload_args(QStringLiteral("0x08000000:573088"),
                                                          QStringLiteral("0"), target)});
    QCOMPARE(DFU::size_of_binary_file(target), 573088);
}

void tst_DeviceInfo::download_passes_file_and_exit_code()
{
    const QString path = working_file(QStringLiteral("download.bin"));
    write_file(path, image_of(Device::Kestrel));
    fake.set_exit(QStringLiteral("download_FW"), 74);

    QCOMPARE(DFU::download_FW_to_device(path), 74);
    QCOMPARE(fake.calls(), (QList<QStringList>{
                               {QStringLiteral("-d"), QStringLiteral("0483"), QStringLiteral("-a"),
                                QStringLiteral("0"), QStringLiteral("-s"),
                                QStringLiteral("0x08000000:leave"), QStringLiteral("-D"), path}}));
}

void tst_DeviceInfo::upload_and_compare_data()
{
    QTest::addColumn<QByteArray>("reference"); // a null array: no reference file at all
    QTest::addColumn<QByteArray>("flash");
    QTest::addColumn<int>("upload_exit");
    QTest::addColumn<bool>("equal");
    QTest::addColumn<int>("runs");

    const QByteArray image = image_of(Device::Kestrel, "2.3.0", 10000);
    QByteArray last_differs = image;
    last_differs[last_differs.size() - 1] = char(image.back() ^ 0x01);

    QTest::newRow("flash equals the image")
        << image << image + QByteArray(500, '\xFF') << 0 << true << 1;
    QTest::newRow("last byte differs") << image << last_differs << 0 << false << 1;
    QTest::newRow("read-back short") << image << image.left(8192) << 0 << false << 1;
    QTest::newRow("upload fails") << image << image << 74 << false << 1;
    QTest::newRow("empty reference") << QByteArray("") << image << 0 << false << 0;
    QTest::newRow("missing reference") << QByteArray() << image << 0 << false << 0;
}

void tst_DeviceInfo::upload_and_compare()
{
    QFETCH(QByteArray, reference);
    QFETCH(QByteArray, flash);
    QFETCH(int, upload_exit);
    QFETCH(bool, equal);
    QFETCH(int, runs);

    const QString reference_path = working_file(QStringLiteral("reference.bin"));
    const QString target = working_file(Files::uploaded_FW_fileName_bin);
    QFile::remove(reference_path);
    if (!reference.isNull())
        write_file(reference_path, reference);
    fake.set_flash(flash);
    fake.set_exit(QStringLiteral("upload_FW"), upload_exit);

    QCOMPARE(DFU::upload_and_compare_FW_bin(reference_path, target), equal);
    const QList<QStringList> calls = fake.calls();
    QCOMPARE(calls.size(), runs);
    if (runs == 1)
        QCOMPARE(calls.first().at(5), QStringLiteral("0x08000000:%1").arg(reference.size()));
}

void tst_DeviceInfo::compare_files_data()
{
    QTest::addColumn<QByteArray>("first"); // a null array: the file does not exist
    QTest::addColumn<QByteArray>("second");
    QTest::addColumn<bool>("equal");

    const QByteArray bytes = image_of(Device::Kestrel, "2.3.0", 3000);
    QByteArray last_differs = bytes;
    last_differs[last_differs.size() - 1] = char(bytes.back() + 1);

    QTest::newRow("identical") << bytes << bytes << true;
    QTest::newRow("last byte differs") << bytes << last_differs << false;
    QTest::newRow("second missing") << bytes << QByteArray() << false;
    QTest::newRow("both empty") << QByteArray("") << QByteArray("") << false;
}

void tst_DeviceInfo::compare_files()
{
    QFETCH(QByteArray, first);
    QFETCH(QByteArray, second);
    QFETCH(bool, equal);

    const QString a = working_file(QStringLiteral("first.bin"));
    const QString b = working_file(QStringLiteral("second.bin"));
    QFile::remove(a);
    QFile::remove(b);
    if (!first.isNull())
        write_file(a, first);
    if (!second.isNull())
        write_file(b, second);

    QCOMPARE(DFU::compare_FW_bin_files(a, b), equal);
    QCOMPARE(DFU::size_of_binary_file(a), first.isNull() ? -1 : int(first.size()));
}

void tst_DeviceInfo::desired_FW_Info_is_read_once()
{
    const QString path = working_file(Files::desired_FW_fileName_bin);
    write_file(path, image_of(Device::Kestrel, "2.3.0"));

    const Device::FW_Info* first = nullptr;
    {
        LogCapture capture;
        first = &DFU::desired_FW_Info();
        QCOMPARE(
            capture.lines(),
            QStringList{QStringLiteral("debug: Reading desired FW_Info from  \"%1\"").arg(path)});
    }
    QVERIFY(first->valid);
    QCOMPARE(first->revision, QStringLiteral("2.3.0"));

    write_file(path, image_of(Device::Kestrel, "2.4.0"));
    LogCapture capture;
    QCOMPARE(&DFU::desired_FW_Info(), first);
    QCOMPARE(first->revision, QStringLiteral("2.3.0"));
    QVERIFY(capture.lines().isEmpty());
    QCOMPARE(DFU::read_FW_Info_from_desired_FW().revision, QStringLiteral("2.4.0"));
}

QTEST_GUILESS_MAIN(tst_DeviceInfo)
#include "tst_deviceinfo.moc"
