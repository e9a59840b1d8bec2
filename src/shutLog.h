#ifndef SHUTLOG_H
#define SHUTLOG_H

#include <QString>
#include <QtGlobal>

#include <string>

// The process's own log: one live file that grows a line per message and
// maxFiles older files ".1" (newest) to ".maxFiles" (oldest) beside it.
// Every operation returns 0 or more on success and a negated errno on
// failure; failures are also reported on standard error, never through Qt's
// message functions, since those lead back here.
class shutLog
{
public:
    shutLog(const char* dir, const char* name, int maxSize, int maxFiles);
    ~shutLog();

    shutLog(const shutLog&) = delete;
    shutLog& operator=(const shutLog&) = delete;

    int openLog();
    int closeLog();
    int getFileSize();
    int shiftFiles();
    int saveLog(QtMsgType type, const QMessageLogContext& context, const QString& msg);

private:
    std::string logDir;
    std::string logName;
    int maxSize;
    int maxFiles;
    int fd;
    std::string logPath;
    // Reused from record to record so that writing one allocates nothing.
    std::string record;
};

#endif // SHUTLOG_H
