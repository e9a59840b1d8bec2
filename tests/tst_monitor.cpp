// The child launcher in a process whose threads log hard while children
// start and end.
#include "main.h"
#include "monitor.h"
#include "sandbox.h"
#include "shutLog.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QtTest>

#include <atomic>
#include <climits>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

namespace {

std::atomic<int> ends(0);

void countEnds(QtMsgType type, const QMessageLogContext& context, const QString& msg)
{
    onShowMsg(type, context, msg);
    ends += msg.contains("child exited normally");
}

} // namespace

class tst_monitor : public QObject
{
    Q_OBJECT

private slots:
    // A thread started before any launch, as Qt's own threads are in the
    // daemon, inherits SIGCHLD held: had it taken the signal before the
    // handler was in place, the end of a child that ends at once would be
    // lost. It logs without pause, so each fork meets it inside a record, and
    // the child, whose program is missing, must still log why and end. The
    // main thread logs too while it waits, so the end interrupts its records.
    void childrenForkedWhileThreadsLogReportAndEnd()
    {
        sandbox::resetCard();
        QFile::remove(sandbox::childProgram);
        logFlag = new shutLog(sandbox::logDir, "shutDown.log", INT_MAX, 6);
        qInstallMessageHandler(countEnds);
        // The C library loads its message catalogue, with malloc, at the
        // first strerror: done here, not first in a child. A child forked
        // while the busy thread is inside AddressSanitizer's allocator (whose
        // lock GCC 12's runtime does not take across fork) would wait for it
        // for ever; glibc's own malloc is safe there.
        strerror(ENOENT);
        const int rounds = 30;
        int mine = 0;
        std::atomic<bool> stop(false);
        sigset_t mask;
        std::thread busy([&] {
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            while (!stop)
                qDebug() << "busy";
        });
        for (int round = 1; round <= rounds && ends == round - 1; ++round) {
            QCOMPARE(startFork(), 0);
            for (QElapsedTimer waited; ends < round && waited.elapsed() < 10000; QCoreApplication::processEvents())
                qDebug() << "main" << mine++;
        }
        stop = true;
        busy.join();
        qInstallMessageHandler(nullptr);
        delete logFlag;
        QCOMPARE(int(ends), rounds);
        QVERIFY(sigismember(&mask, SIGCHLD));
        const QRegularExpression record(QString("^") + sandbox::recordTime + " <DEBUG> (.*)$");
        QStringList launcher;
        int next = 0;
        for (const QString& line : sandbox::logLines()) {
            const QString text = record.match(line).captured(1);
            QVERIFY2(!text.isEmpty(), qPrintable(line));
            if (text.startsWith("main "))
                QCOMPARE(text, "main " + QString::number(next++));
            else if (text != "busy")
                launcher << text;
        }
        QCOMPARE(next, mine);
        QCOMPARE(launcher.size(), 4 * rounds);
        QCOMPARE(launcher.filter("execl failed:  No such file or directory").size(), rounds);
        QCOMPARE(launcher.filter(", status =  \"32512\"").size(), rounds);
    }
};

int main(int argc, char** argv)
{
    holdChildSignal(); // before any thread starts, as the daemon's main
    return sandbox::runTest<tst_monitor>(argc, argv);
}
#include "tst_monitor.moc"
