#ifndef MAIN_H
#define MAIN_H

#include <QString>
#include <QtGlobal>

class shutLog;

// Both live in the supervisor library (messageHandler.cpp), not beside main:
// an owner's program that links the library routes its messages the same way.

// The process's one log; null before start-up and after shut-down.
extern shutLog* logFlag;

// Where the process's log lives on the card and how far it grows: the daemon
// and an owner's program that logs the same way open it with these.
extern const char logDirectory[];
extern const char logFileName[];
extern const int logMaxSize;
extern const int logOlderFiles;

// Keeps the process's own messages (Qt's default category) on, whatever
// Qt's logging rules say; installed first thing, before the application.
void keepOwnMessages();

// Writes every Qt message of the process into the log.
void onShowMsg(QtMsgType type, const QMessageLogContext& context, const QString& msg);

#endif // MAIN_H
