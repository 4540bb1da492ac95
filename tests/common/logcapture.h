// Records the log lines written while it lives, as "level: text", for exact comparison.
#pragma once

#include <QMutex>
#include <QMutexLocker>
#include <QString>
#include <QStringList>
#include <QtGlobal>

class LogCapture final
{
public:
    LogCapture() : previous_(qInstallMessageHandler(&LogCapture::handle)) { current_ = this; }
    ~LogCapture()
    {
        qInstallMessageHandler(previous_);
        current_ = nullptr;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QStringList lines() const
    {
        const QMutexLocker lock(&mutex_);
        return lines_;
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext&, const QString& text)
    {
        static const char* const levels[] = {"debug", "warning", "critical", "fatal", "info"};
        if (!current_)
            return;
        const QMutexLocker lock(&current_->mutex_);
        current_->lines_ << QString::fromLatin1(levels[type]) + QStringLiteral(": ") + text;
    }

    static inline LogCapture* current_ = nullptr;
    QtMessageHandler previous_;
    mutable QMutex mutex_;
    QStringList lines_;
};
