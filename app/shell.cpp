#include "app/shell.h"

#include <QApplication>
#include <QDebug>
#include <QThread>

#include "app/connections.h"
#include "app/options.h"
#include "app/statusline.h"
#include "app/termination.h"
#include "dfu/deviceinfo.h"
#include "gui/languages.h"
#include "gui/logwindow.h"
#include "gui/mainwindow.h"
#include "gui/settings.h"
#include "simulator/simulator.h"
#include "simulator/toolsetup.h"
#include "statemachines/sm_a.h"
#include "statemachines/sm_b.h"
#include "support/files.h"
#include "support/fonts.h"
#include "support/support_misc.h"

QPointer<MainWindow> mainWindow;
Settings::Settings settings;
Settings::GUI english_layout;
SM_B* sm_B = nullptr;

void GUI_init()
{
    parse_arguments(QCoreApplication::instance());
    support::setup_fonts();

    logWindow = new LogWindow(nullptr);
    if (use_log_window)
        qInstallMessageHandler(logWindowMessageHandler);

    if (simulator::use)
        qInfo() << "Will use simulator (i.e. option 'use_simulator).";
    else
        qInfo() << "Will use real device (i.e. no option 'use_simulator'.)";

    qInfo() << "Compiled for platform (OS):" << support_misc::compiled_for_platform()
            << "with 'DEBUG'"
            << "not defined";

    // Start-up goes on whatever went wrong here: the status line names the folder and the reason.
    const Tool::StartProblem problem = Tool::set_up(
        {Files::desired_FW_dfu, Files::desired_FW_bin, Files::dfu_util, Files::libusb});

    const Device::FW_Info& desired = DFU::desired_FW_Info();
    qInfo().noquote() << "Desired (embedded)" << desired;

    Settings::Settings built;
    built.gui = Settings::make_GUI(QStringLiteral(":resources/settings_GUI.json"));
    english_layout = built.gui;
    Languages::use_system_language(built.gui);
    built.desired_FW_name = desired.name;
    built.desired_FW_type = desired.product.type;
    built.desired_FW_revision = desired.revision;
    settings = built;

    mainWindow = MainWindow_factory(&settings, nullptr, simulator::use);
    mainWindow->setWindowTitle(QStringLiteral("Lumaxis Firmware Upgrade Tool"));

    sm_A = new SM_A(Files::working_path(Files::desired_FW_fileName_dfu),
                    Files::working_path(Files::desired_FW_fileName_bin),
                    Files::working_path(Files::uploaded_FW_fileName_bin), nullptr);
    sm_A->set_poll_pauses(500, 1000);
    sm_A->watch_device_access(!simulator::use);
    sm_A->enable_debug_output();

    sm_B = new SM_B(sm_A, settings.desired_FW_type, settings.desired_FW_revision);
    sm_B->enable_debug_output();

    add_connections(qApp);
    if (problem.kind != Tool::StartProblem::None)
        statusLine->setStartProblem(problem.layout_id(), problem.folder, problem.reason);
    close_on_termination_signals(mainWindow.data());

    QObject::connect(sm_B, &QStateMachine::started, [] {
        qInfo() << "Starting sm_A";
        sm_A->start(QThread::InheritPriority);
    });
    sm_B->start();
    mainWindow->show();
}

int GUI_cleanup(int exec_result)
{
    qInfo() << "app.exec() returns: " << exec_result;
    sm_B->stop();
    sm_A->do_stop();
    qInfo() << "Waiting 2 s before deleting objects";
    // The worker polls its stop flag well within this pause; the destructor then waits for it.
    QThread::sleep(2);
    if (sm_A)
        delete sm_A;
    if (sm_B)
        delete sm_B;
    return exec_result;
}
