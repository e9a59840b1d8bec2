// The process's message routing, kept in the library beside the log so that
// an owner's program, and the tests, send their messages through the very
// handler the daemon installs.
#include "main.h"

#include "shutLog.h"

#include <QDebug>
#include <QLoggingCategory>

#include <cstdio>
#include <cstring>

shutLog* logFlag = nullptr;

const char logDirectory[] = "/tmp/mnt/dev/mmcblk0p3/softShutDownLogFiles";
const char logFileName[] = "shutDown.log";
const int logMaxSize = 102400;
const int logOlderFiles = 6;

namespace {

// Set while this thread is inside the handler: a message the handler raises
// about itself must not come back into it.
thread_local bool inHandler = false;

QLoggingCategory::CategoryFilter qtFilter = nullptr;

// The daemon reads no configuration, so neither Qt's logging rules from the
// environment nor a qtlogging.ini may silence its own messages, which all go
// through the default category. Qt's own categories follow the rules as usual.
void keepDefaultCategory(QLoggingCategory* category)
{
    qtFilter(category);
    if (qstrcmp(category->categoryName(), "default") == 0) {
        category->setEnabled(QtDebugMsg, true);
        category->setEnabled(QtWarningMsg, true);
        category->setEnabled(QtCriticalMsg, true);
    }
}

} // namespace

void keepOwnMessages()
{
    qtFilter = QLoggingCategory::installFilter(keepDefaultCategory);
}

void onShowMsg(QtMsgType type, const QMessageLogContext& context, const QString& msg)
{
    if (inHandler) {
        fprintf(stderr, "%s\n", msg.toLocal8Bit().constData());
        return;
    }
    inHandler = true;
    if (!logFlag) {
        qDebug() << "main" << "onShowMsg" << "  log not open: ";
    } else {
        const int saved = logFlag->saveLog(type, context, msg);
        if (saved < 0)
            qDebug() << "main" << "onShowMsg" << "  write log error: " << strerror(-saved);
    }
    inHandler = false;
}
