#include "main.h"

#include "mainwindow.h"
#include "monitor.h"
#include "shutLog.h"

#include <QApplication>
#include <QDebug>
#include <QDir>
#include <QFile>

#include <cstdio>
#include <cstring>

shutLog* logFlag = nullptr;

namespace {

const char logDirectory[] = "/tmp/mnt/dev/mmcblk0p3/softShutDownLogFiles";
const char logFileName[] = "shutDown.log";
const int logMaxSize = 102400;
const int logOlderFiles = 6;

// Set while this thread is inside the handler: a message the handler raises
// about itself must not come back into it.
thread_local bool inHandler = false;

} // namespace

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

int main(int argc, char** argv)
{
    holdChildSignal();
    QApplication app(argc, argv);
    if (!QFile::exists(logDirectory))
        QDir().mkdir(logDirectory);

    qDebug() << "main" << "main" << " add new";
    logFlag = new shutLog(logDirectory, logFileName, logMaxSize, logOlderFiles);
    qDebug() << "open a log";
    const int opened = logFlag->openLog();
    if (opened < 0) {
        qDebug() << logDirectory;
        qDebug() << "main" << "main" << "  open log error: " << strerror(-opened);
        return -1;
    }
    qInstallMessageHandler(onShowMsg);

    MainWindow window;
    app.exec();

    // The log goes first; the window and then the application follow as
    // they leave the stack.
    delete logFlag;
    logFlag = nullptr;
    return 0;
}
