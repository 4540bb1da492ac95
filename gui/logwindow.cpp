#include "gui/logwindow.h"

#include <cstdio>
#include <cstdlib>

#include <QByteArray>
#include <QCloseEvent>
#include <QDebug>
#include <QDir>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QMainWindow>
#include <QMessageBox>
#include <QPushButton>
#include <QSaveFile>
#include <QTextBrowser>
#include <QThread>
#include <QVBoxLayout>

QPointer<LogWindow> logWindow;

namespace {

const char* or_empty(const char* s)
{
    return s ? s : "";
}

} // namespace

LogWindowDialog::LogWindowDialog()
    : QDialog(nullptr), text_(new QTextBrowser), clear_(new QPushButton(tr("clear"))),
      save_(new QPushButton(tr("save output"))), hide_(new QPushButton(tr("hide log")))
{
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(text_);
    auto* buttons = new QHBoxLayout;
    buttons->setContentsMargins(0, 0, 0, 0);
    layout->addLayout(buttons);
    buttons->addStretch(10);
    buttons->addWidget(clear_);
    buttons->addWidget(save_);
    buttons->addWidget(hide_);

    connect(clear_, &QPushButton::clicked, text_, &QTextBrowser::clear);
    connect(save_, &QPushButton::clicked, this, &LogWindowDialog::save);
    connect(hide_, &QPushButton::clicked, this, [this] { hide(); });

    resize(600, 400);
}

void LogWindowDialog::outputMessage(QtMsgType type, const QMessageLogContext& context,
                                    const QString& message)
{
    const QByteArray local = message.toLocal8Bit();
    const char* format = nullptr;
    switch (type) {
    case QtDebugMsg:
        text_->append(tr("Debug: %1").arg(message));
        format = "Debug: %s (%s:%u, %s)\n";
        break;
    case QtInfoMsg:
        // Info lines carry no prefix in the dialog, unlike the other four.
        text_->append(tr("%1").arg(message));
        format = "Info: %s (%s:%u, %s)\n";
        break;
    case QtWarningMsg:
        text_->append(tr("Warning: %1").arg(message));
        format = "Warning: %s (%s:%u, %s)\n";
        break;
    case QtCriticalMsg:
        text_->append(tr("CRITICAL: %1").arg(message));
        format = "Critical: %s (%s:%u, %s)\n";
        break;
    case QtFatalMsg:
        text_->append(tr("FATAL: %1").arg(message));
        format = "Fatal: %s (%s:%u, %s)\n";
        break;
    default:
        return;
    }
    std::fprintf(stderr, format, local.constData(), or_empty(context.file), unsigned(context.line),
                 or_empty(context.function));
    if (type == QtFatalMsg)
        std::abort();
}

void LogWindowDialog::save()
{
    // The three apostrophes in the first filter are kept as the tool always had them.
    const QString file_name = QFileDialog::getSaveFileName(
        this, tr("Save Log Output"), tr("%1/logfile.txt").arg(QDir::homePath()),
        tr("Text Files ('''.txt);;All Files (*)"));
    if (file_name.isEmpty())
        return;
    saveTo(file_name);
}

bool LogWindowDialog::saveTo(const QString& file_name)
{
    // Written aside and renamed into place, so a failed write never leaves half a log behind.
    // Over a writable file in a folder the user may not write to, that is impossible: then the
    // file itself is overwritten, as a plain write would.
    QSaveFile file(file_name);
    file.setDirectWriteFallback(true);
    bool ok = file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    if (ok) {
        // Flushed before the commit: a failed flush must not be renamed into place.
        const QByteArray bytes = text_->toPlainText().toUtf8();
        ok = file.write(bytes) == bytes.size() && file.flush() && file.commit();
    }
    if (!ok) {
        qWarning() << "Could not save the log to" << file_name << ":" << file.errorString();
        QMessageBox::warning(this, tr("Error"),
                             tr("<nobr>File '%1'<br/>cannot be opened for writing.<br/><br/>"
                                "The log output could <b>not</b> be saved!</nobr>")
                                 .arg(file_name),
                             QMessageBox::Ok);
    }
    return ok;
}

void LogWindowDialog::closeEvent(QCloseEvent* event)
{
    // Closing the frame only hides the log; its contents stay.
    event->accept();
}

void LogWindowDialog::keyPressEvent(QKeyEvent* event)
{
    // Escape must not close the log and Return must not press a button.
    event->ignore();
}

LogWindow::LogWindow(QObject* parent) : QObject(parent), dialog_(new LogWindowDialog)
{
    // The context is not copyable, so a queued connection cannot carry it; deliver() copies its
    // fields when the message comes from another thread.
    connect(this, &LogWindow::sendMessage, this, &LogWindow::deliver, Qt::DirectConnection);
}

LogWindow::~LogWindow()
{
    delete dialog_;
}

void LogWindow::deliver(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (QThread::currentThread() == dialog_->thread()) {
        dialog_->outputMessage(type, context, message);
        return;
    }
    const QByteArray file(context.file);
    const QByteArray function(context.function);
    const QByteArray category(context.category);
    const int line = context.line;
    LogWindowDialog* dialog = dialog_;
    // The dialog is the context object: if it is gone before the event runs, Qt drops the call.
    QMetaObject::invokeMethod(
        dialog_,
        [dialog, type, file, line, function, category, message] {
            const QMessageLogContext copy(file.constData(), line, function.constData(),
                                          category.constData());
            dialog->outputMessage(type, copy, message);
        },
        Qt::QueuedConnection);
}

void LogWindow::toggle_visibility(QMainWindow* main)
{
    if (dialog_->isVisible()) {
        dialog_->hide();
        return;
    }
    dialog_->show();
    if (main) {
        // Attach the log to the main window's right edge, even if the user moved it before.
        const QRect g = main->geometry();
        dialog_->setGeometry(g.x() + g.width() - 1, g.y(), dialog_->width(), dialog_->height());
    }
}

void logWindowMessageHandler(QtMsgType type, const QMessageLogContext& context,
                             const QString& message)
{
    if (!logWindow)
        return;
    emit logWindow->sendMessage(type, context, message);
}
