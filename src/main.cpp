#include "main.h"

#include "mainwindow.h"
#include "monitor.h"
#include "shutLog.h"

#include <QApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>

#include <cstring>

namespace {

QLoggingCategory::CategoryFilter qtFilter = nullptr;

// The daemon reads no configuration, so neither Qt's logging rules from the
// environment nor a qtlogging.ini may silence its own messages, which all go
// through the default category. Qt's own categories follow the rules as usual.
void keepOwnMessages(QLoggingCategory* category)
{
    qtFilter(category);
    if (qstrcmp(category->categoryName(), "default") == 0) {
        category->setEnabled(QtDebugMsg, true);
        category->setEnabled(QtWarningMsg, true);
        category->setEnabled(QtCriticalMsg, true);
    }
}

} // namespace

int main(int argc, char** argv)
{
    holdChildSignal();
    qtFilter = QLoggingCategory::installFilter(keepOwnMessages);
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
