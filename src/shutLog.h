#ifndef SHUTLOG_H
#define SHUTLOG_H

#include <QString>
#include <QtGlobal>

#include <string>

#include <sys/stat.h>
#include <time.h>

// The process's own log: one live file that grows a line per message and
// maxFiles older files ".1" (newest) to ".maxFiles" (oldest) beside it.
// Every operation returns 0 or more on success and a negated errno on
// failure; failures are also reported on standard error, never through Qt's
// message functions, since those lead back here.
//
// Any thread may call any operation: one process-wide lock is held for each
// of them, so a record is written whole and in its thread's order, and a
// rotation never closes the file under another thread's write. A fork waits
// for the record in progress, so that the child finds the lock free and can
// still log why its program did not start.
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
    // The operations of the same meaning, called with the lock held.
    int openFile();
    int closeFile();
    int rotateFiles();
    int statOpenFile(struct stat& st);
    bool stillLive(const struct stat& st);

    std::string logDir;
    std::string logName;
    int maxSize;
    int maxFiles;
    int fd;
    std::string logPath;
    // Reused from record to record so that writing one allocates nothing;
    // given back after a huge message.
    std::string record;
    // When the live file's name was last found to lead to the open file.
    time_t nameCheckedAt;
};

#endif // SHUTLOG_H
