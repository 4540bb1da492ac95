// The log window: a dialog with the running log, its controller, and the message handler.
#pragma once

#include <QDialog>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QtGlobal>

class QCloseEvent;
class QKeyEvent;
class QMainWindow;
class QPushButton;
class QTextBrowser;

class LogWindowDialog final : public QDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(LogWindowDialog)

public:
    LogWindowDialog();

    // Writes the log to file_name; on failure shows the "Error" box and returns false.
    bool saveTo(const QString& file_name);

    QTextBrowser* textBrowser() const { return text_; }

public slots:
    void outputMessage(QtMsgType type, const QMessageLogContext& context, const QString& message);
    void save();

protected:
    void closeEvent(QCloseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    QTextBrowser* text_ = nullptr;
    QPushButton* clear_ = nullptr;
    QPushButton* save_ = nullptr;
    QPushButton* hide_ = nullptr;
};

class LogWindow final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(LogWindow)

public:
    explicit LogWindow(QObject* parent = nullptr);
    ~LogWindow() override;

    LogWindowDialog* dialog() const { return dialog_; }

signals:
    void sendMessage(QtMsgType type, const QMessageLogContext& context, const QString& message);

public slots:
    void toggle_visibility(QMainWindow* main);

private:
    void deliver(QtMsgType type, const QMessageLogContext& context, const QString& message);

    LogWindowDialog* dialog_ = nullptr;
};

// Null until start-up creates the controller; the message handler reads it from any thread.
extern QPointer<LogWindow> logWindow;

void logWindowMessageHandler(QtMsgType type, const QMessageLogContext& context,
                             const QString& message);
