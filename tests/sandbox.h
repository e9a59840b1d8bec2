#ifndef SANDBOX_H
#define SANDBOX_H

#include <QByteArray>
#include <QCoreApplication>
#include <QString>
#include <QStringList>
#include <QtTest>
#ifdef QT_WIDGETS_LIB
#include <QApplication>
#endif

#include <sys/types.h>
#include <unistd.h>

// Tests meet the daemon's fixed paths inside a private mount namespace:
// fresh tmpfs trees over /tmp and /opt, so nothing of the machine's own is
// ever touched. Entered first thing in main, before any thread exists.
namespace sandbox {

// The private tree, with the card's directory and the child program's
// folder made in it; false, with the reason on standard error, when the
// process may not make a mount namespace (run the tests as root).
bool enter();

extern const char cardDir[];      // the SD-card partition the daemon works in
extern const char logDir[];       // the daemon's log directory on it
extern const char livePath[];     // the live log file
extern const char recordTime[];   // the UTC time that begins every record, as a pattern
extern const char childProgram[]; // where the appliance's program is started from

// Writes a shell script at the child program's path.
void installChild(const QByteArray& script);
// A fresh card directory with an empty log directory in it.
void resetCard();
// Binds a file over itself: a mount point that rename and unlink refuse.
bool pin(const QString& path);
void unpin(const QString& path);

QByteArray readFile(const QString& path);
void writeFile(const QString& path, const QByteArray& bytes);
QStringList logLines(const QString& path = QString::fromLatin1(livePath));

// A fresh, empty tmpfs at /sys/class/gpio (over /sys/class when the machine
// has no GPIO class at all) for the kernel's GPIO tree.
bool mountGpioTree();
// Binds a file over the mount table /proc/mounts; it leads through
// /proc/self, so only this process sees the file.
bool bindMountTable(const QString& path);
void unbindMountTable();

// Whether the thread sleeps in the call that the given wait on the read end
// of an empty pipe sleeps in. The call is learnt once per wait from a thread
// of the caller's own, as /proc shows it: under user-mode emulation that is
// the host's number, not this program's.
bool sleepsLike(pid_t tid, void (*wait)(int fd));

// Everything written to one of the standard streams (STDOUT_FILENO or
// STDERR_FILENO) while it lives; text() may be read at any time.
class OutputCapture
{
public:
    explicit OutputCapture(int streamFd);
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;
    QByteArray text();

private:
    int streamFd;
    int savedFd;
    int captureFd;
};

// Enters the sandbox, then runs the test object under a QApplication.
template <typename TestObject>
int runTest(int argc, char** argv)
{
    if (!enter())
        return 1;
#ifdef QT_WIDGETS_LIB
    QApplication app(argc, argv);
#else
    // The components that need QtCore alone are also tested on a build
    // with nothing else.
    QCoreApplication app(argc, argv);
#endif
    TestObject test;
    return QTest::qExec(&test, argc, argv);
}

} // namespace sandbox

#define SANDBOXED_TEST_MAIN(TestObject)                     \
    int main(int argc, char** argv)                         \
    {                                                       \
        return sandbox::runTest<TestObject>(argc, argv);    \
    }

#endif // SANDBOX_H
