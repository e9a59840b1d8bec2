#include "main.h"
#include "sandbox.h"
#include "shutLog.h"

#include <QDateTime>
#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <thread>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
// AddressSanitizer's own count; GCC ships no header for it.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#else
#include <malloc.h>
#endif

using sandbox::readFile;
using sandbox::writeFile;

namespace {

const QRegularExpression recordStamp("^\\d{4}\\.\\d\\d\\.\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} <DEBUG> ");

// The bytes the process's heap holds allocated.
size_t heapInUse()
{
#ifdef __SANITIZE_ADDRESS__
    return __sanitizer_get_current_allocated_bytes();
#elif __GLIBC__ > 2 || __GLIBC_MINOR__ >= 33
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#else
    const struct mallinfo info = mallinfo();
    return static_cast<unsigned int>(info.uordblks) + static_cast<unsigned int>(info.hblkhd);
#endif
}

// The log's files, oldest first.
QStringList filesOldestFirst(const QString& dir)
{
    QStringList names = QDir(dir).entryList(QDir::Files);
    std::sort(names.begin(), names.end(), [](const QString& a, const QString& b) {
        return a.section('.', 2).toInt() > b.section('.', 2).toInt();
    });
    return names;
}

} // namespace

class tst_shutLog : public QObject
{
    Q_OBJECT

private:
    QString dir() const { return folder->path(); }
    QString live() const { return dir() + "/shutDown.log"; }
    QString older(int k) const { return live() + "." + QString::number(k); }
    shutLog* makeLog(int maxSize, int maxFiles)
    {
        const QByteArray path = dir().toUtf8();
        return new shutLog(path.constData(), "shutDown.log", maxSize, maxFiles);
    }
    void saveDebug(shutLog& log, const QString& text)
    {
        QCOMPARE(log.saveLog(QtDebugMsg, QMessageLogContext(), text), 0);
    }
    static QString textOf(const QByteArray& line) { return QString::fromUtf8(line.mid(23 + 9)).trimmed(); }
    // Every file of the folder in the notation of the rotation rows.
    QString files() const
    {
        QStringList found;
        for (const QString& name : QDir(dir()).entryList(QDir::Files, QDir::Name)) {
            QStringList lines;
            for (const QString& line : sandbox::logLines(dir() + "/" + name))
                lines << (recordStamp.match(line).hasMatch() ? line.mid(23 + 9) : line);
            const QString suffix = name.section('.', 2);
            found << (suffix.isEmpty() ? "live" : suffix) + "=" + lines.join('|');
        }
        return found.join(' ');
    }

    QTemporaryDir* folder = nullptr;

private slots:
    void init() { folder = new QTemporaryDir; }
    void cleanup() { delete folder; }

    // The files before, the records written, the files after: "k=text" for
    // older file k after "live=text" for the live file, its records by their text
    // alone, lines joined by "|".
    void recordsRotateTheFilesWhenTheyFindTheLiveFileFull_data()
    {
        QTest::addColumn<QString>("before");
        QTest::addColumn<int>("maxSize");
        QTest::addColumn<int>("maxFiles");
        QTest::addColumn<QStringList>("records");
        QTest::addColumn<QString>("after");
        QTest::newRow("every older file shifted, the oldest dropped")
            << "live=0123456789 1=o1 2=o2 3=o3 4=o4 5=o5 6=o6" << 11 << 6 << QStringList{"x"}
            << "live=x 1=0123456789 2=o1 3=o2 4=o3 5=o4 6=o5";
        QTest::newRow("gaps of missing files kept")
            << "live=full 1=one 2=two 4=four" << 4 << 6 << QStringList{"x"} << "live=x 1=full 2=one 3=two 5=four";
        QTest::newRow("no older files: only the last kept, those above untouched")
            << "live=full 1=previous 2=above" << 4 << 0 << QStringList{"x"} << "live=x 1=full 2=above";
        QTest::newRow("a negative count of older files")
            << "live=full 1=previous 2=above" << 4 << -3 << QStringList{"x"} << "live=x 1=full 2=above";
        // The very first record finds an empty new file, which moves too.
        QTest::newRow("size limit 0: before every record")
            << "" << 0 << 6 << QStringList{"one", "two", "three"} << "live=three 1=two 2=one 3=";
        // 5 bytes, then 39 (one short of the limit), then 73 found.
        QTest::newRow("an existing file appended to until full")
            << "live=kept" << 40 << 6 << QStringList{"a", "b", "c"} << "live=c 1=kept|a|b";
    }
    void recordsRotateTheFilesWhenTheyFindTheLiveFileFull()
    {
        QFETCH(QString, before);
        QFETCH(int, maxSize);
        QFETCH(int, maxFiles);
        QFETCH(QStringList, records);
        QFETCH(QString, after);
        for (const QString& file : before.split(' ')) {
            if (file.isEmpty())
                continue;
            const QString name = file.section('=', 0, 0);
            writeFile(name == "live" ? live() : older(name.toInt()), file.section('=', 1).toUtf8() + "\n");
        }
        QScopedPointer<shutLog> log(makeLog(maxSize, maxFiles));
        QCOMPARE(log->openLog(), 0);
        for (const QString& text : records)
            saveDebug(*log, text);
        QCOMPARE(files(), after);
    }

    // Threads raising messages at once through the daemon's own handler.
    void everyThreadsRecordsArriveWholeOnceAndInOrder_data()
    {
        QTest::addColumn<int>("maxSize");
        QTest::newRow("one live file") << INT_MAX;
        QTest::newRow("rotating") << 102400;
    }
    void everyThreadsRecordsArriveWholeOnceAndInOrder()
    {
        QFETCH(int, maxSize);
        const int threads = 4;
        const int records = 5000;
        logFlag = makeLog(maxSize, 100);
        qInstallMessageHandler(onShowMsg);
        {
            sandbox::OutputCapture err(STDERR_FILENO);
            std::vector<std::thread> writers;
            for (int t = 0; t < threads; ++t) {
                writers.emplace_back([t, records] {
                    for (int i = 0; i < records; ++i)
                        qDebug() << "thread" << t << "record" << i;
                });
            }
            for (std::thread& writer : writers)
                writer.join();
            QCOMPARE(err.text(), QByteArray());
        }
        qInstallMessageHandler(nullptr);
        delete logFlag;
        logFlag = nullptr;

        const QStringList names = filesOldestFirst(dir());
        QCOMPARE(names.size() > 1, maxSize < INT_MAX);
        const QRegularExpression record(recordStamp.pattern() + "thread (\\d) record (\\d+)$");
        std::vector<int> next(threads, 0);
        for (const QString& name : names) {
            for (const QString& line : sandbox::logLines(dir() + "/" + name)) {
                const QRegularExpressionMatch match = record.match(line);
                QVERIFY2(match.hasMatch(), qPrintable(line));
                QCOMPARE(match.captured(2).toInt(), next[match.captured(1).toInt()]++);
            }
        }
        QCOMPARE(next, std::vector<int>(threads, records));
    }

    // One huge message is written whole and leaves no buffer of its size
    // behind for the rest of the process's life.
    void aHugeMessageKeepsNoMemory()
    {
        const int hugeSize = 32 * 1024 * 1024;
        QScopedPointer<shutLog> log(makeLog(INT_MAX, 6));
        saveDebug(*log, "small");
        const size_t before = heapInUse();
        saveDebug(*log, QString(hugeSize, QChar('h')));
        QVERIFY2(heapInUse() < before + 1024 * 1024, qPrintable(QString::number(heapInUse() - before)));
        saveDebug(*log, "small");
        QCOMPARE(QFileInfo(live()).size(), 3 * (23 + 9 + 1) + 2 * 5 + hugeSize);
    }

    // A live file past 2 GiB, more than a 32-bit off_t holds, is full like
    // any other: opened, measured at the largest int, rotated away.
    void aLiveFileBeyondTwoGibibytesIsRotated()
    {
        const qint64 bigSize = qint64(3) << 30;
        {
            QFile big(live());
            QVERIFY(big.open(QIODevice::WriteOnly));
            QVERIFY(big.resize(bigSize)); // sparse: it takes no room
        }
        QScopedPointer<shutLog> log(makeLog(102400, 6));
        QCOMPARE(log->openLog(), 0);
        QCOMPARE(log->getFileSize(), INT_MAX);
        saveDebug(*log, "after the big one");
        QCOMPARE(QFileInfo(older(1)).size(), bigSize);
        QCOMPARE(textOf(readFile(live())), QString("after the big one"));
    }

    void recordsCarryUtcTimeTagAndTextWhole()
    {
        QScopedPointer<shutLog> log(makeLog(102400, 6));
        const QDateTime before = QDateTime::currentDateTimeUtc().addMSecs(-1);
        const QString text = QString::fromUtf8("Grüße, 温度 ok\n  second line");
        QCOMPARE(log->saveLog(QtDebugMsg, QMessageLogContext("file.cpp", 7, "fn", "cat"), text), 0);
        QCOMPARE(log->saveLog(QtWarningMsg, QMessageLogContext(), "abc"), 0);
        QCOMPARE(log->saveLog(QtCriticalMsg, QMessageLogContext(), "c"), 0);
        QCOMPARE(log->saveLog(QtFatalMsg, QMessageLogContext(), "f"), 0);
        QCOMPARE(log->saveLog(QtMsgType(4), QMessageLogContext(), "info"), 0);
        QCOMPARE(log->saveLog(QtMsgType(99), QMessageLogContext(), "odd"), 0);
        const QDateTime after = QDateTime::currentDateTimeUtc().addMSecs(1);

        const QByteArray bytes = readFile(live());
        const QList<QByteArray> lines = bytes.split('\n');
        QCOMPARE(lines.size(), 8); // the text's own line break, and the last empty piece
        const QRegularExpression stamp("^\\d{4}\\.\\d\\d\\.\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}");
        for (int i : {0, 2, 3, 4, 5, 6}) {
            QVERIFY2(stamp.match(QString::fromLatin1(lines[i])).hasMatch(), lines[i].constData());
            QDateTime when = QDateTime::fromString(QString::fromLatin1(lines[i].left(23)), "yyyy.MM.dd hh:mm:ss.zzz");
            when.setTimeSpec(Qt::UTC);
            QVERIFY(when >= before && when <= after);
        }
        QCOMPARE(lines[0].mid(23), QByteArray(" <DEBUG> Grüße, 温度 ok"));
        QCOMPARE(lines[1], QByteArray("  second line"));
        QCOMPARE(lines[2].mid(23), QByteArray(" <WARNING> abc"));
        QCOMPARE(lines[3].mid(23), QByteArray(" <CRITICAL> c"));
        QCOMPARE(lines[4].mid(23), QByteArray(" <FATAL> f"));
        QCOMPARE(lines[5].mid(23), QByteArray("info"));
        QCOMPARE(lines[6].mid(23), QByteArray("odd"));
    }

    void aClosedLogHasNoSizeAndClosesQuietly()
    {
        QScopedPointer<shutLog> log(makeLog(102400, 6));
        QCOMPARE(log->getFileSize(), 0);
        QCOMPARE(log->closeLog(), 0);
        QCOMPARE(log->closeLog(), 0);
        saveDebug(*log, "x");
        QCOMPARE(log->getFileSize(), readFile(live()).size());
        QCOMPARE(log->closeLog(), 0);
        QCOMPARE(log->getFileSize(), 0);
        QVERIFY(QFile::exists(live()));
    }

    void aMissingDirectoryFailsEveryRecord()
    {
        const QByteArray missing = (dir() + "/missing").toUtf8();
        shutLog log(missing.constData(), "shutDown.log", 100, 6);
        sandbox::OutputCapture err(STDERR_FILENO);
        QCOMPARE(log.openLog(), -ENOENT);
        QCOMPARE(log.saveLog(QtDebugMsg, QMessageLogContext(), "lost"), -ENOENT);
        QCOMPARE(log.saveLog(QtDebugMsg, QMessageLogContext(), "lost"), -ENOENT);
        QCOMPARE(err.text(), QByteArray("open log failed: No such file or directory\n").repeated(3));
    }

    void aFailedRotationIsReportedAndRetriedByTheNextRecord()
    {
        // A directory with something in it can be neither unlinked nor
        // renamed over.
        QVERIFY(QDir().mkpath(older(6) + "/in"));
        writeFile(live(), "full");
        QScopedPointer<shutLog> log(makeLog(4, 6));
        {
            sandbox::OutputCapture err(STDERR_FILENO);
            QCOMPARE(log->saveLog(QtDebugMsg, QMessageLogContext(), "x"), -EISDIR);
            QCOMPARE(err.text(), QByteArray("unlink file failed: Is a directory\nshiftFiles failed\n"));
        }
        QDir(older(6)).removeRecursively();
        // A mount point cannot be renamed either.
        writeFile(older(3), "three");
        QVERIFY(sandbox::pin(older(3)));
        {
            sandbox::OutputCapture err(STDERR_FILENO);
            QCOMPARE(log->saveLog(QtDebugMsg, QMessageLogContext(), "x"), -EBUSY);
            QCOMPARE(err.text(), "rename file " + older(3).toUtf8()
                                     + " failed: Device or resource busy\nshiftFiles failed\n");
        }
        sandbox::unpin(older(3));
        QVERIFY(sandbox::pin(live()));
        {
            sandbox::OutputCapture err(STDERR_FILENO);
            QCOMPARE(log->saveLog(QtDebugMsg, QMessageLogContext(), "x"), -EBUSY);
            QCOMPARE(err.text(), "rename file " + live().toUtf8()
                                     + " failed: Device or resource busy\nshiftFiles failed\n");
        }
        sandbox::unpin(live());
        // The steps already taken stay taken; once the way is clear the
        // next record rotates and lands in a new live file.
        QCOMPARE(readFile(older(4)), QByteArray("three"));
        saveDebug(*log, "y");
        QCOMPARE(readFile(older(1)), QByteArray("full"));
        QCOMPARE(readFile(older(5)), QByteArray("three"));
        QCOMPARE(textOf(readFile(live())), QString("y"));
    }
};

SANDBOXED_TEST_MAIN(tst_shutLog)
#include "tst_shutLog.moc"
