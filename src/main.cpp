#include "main.h"

#include "mainwindow.h"
#include "monitor.h"
#include "shutLog.h"

#include <QApplication>
#include <QDebug>
#include <QDir>
#include <QFile>

#include <cstring>

int main(int argc, char** argv)
{
    holdChildSignal();
    keepOwnMessages();
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
