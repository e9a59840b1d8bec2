#include "sandbox.h"
#include "shutLog.h"

#include <QDateTime>
#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <climits>

using sandbox::readFile;
using sandbox::writeFile;

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

    QTemporaryDir* folder = nullptr;

private slots:
    void init() { folder = new QTemporaryDir; }
    void cleanup() { delete folder; }

    void rotationShiftsEveryOlderFileAndDropsTheOldest()
    {
        for (int k = 1; k <= 6; ++k)
            writeFile(older(k), "older " + QByteArray::number(k) + "\n");
        writeFile(live(), "0123456789\n");
        QScopedPointer<shutLog> log(makeLog(11, 6));
        QCOMPARE(log->openLog(), 0);
        saveDebug(*log, "first of the new file");

        QCOMPARE(readFile(older(1)), QByteArray("0123456789\n"));
        for (int k = 2; k <= 6; ++k)
            QCOMPARE(readFile(older(k)), "older " + QByteArray::number(k - 1) + "\n");
        QVERIFY(!QFile::exists(older(7)));
        const QByteArray fresh = readFile(live());
        QVERIFY(fresh.endsWith(" <DEBUG> first of the new file\n"));
        QCOMPARE(fresh.count('\n'), 1);
    }

    void rotationKeepsTheGapsOfMissingFiles()
    {
        writeFile(older(1), "one");
        writeFile(older(2), "two");
        writeFile(older(4), "four");
        writeFile(live(), "full");
        QScopedPointer<shutLog> log(makeLog(4, 6));
        saveDebug(*log, "x");

        QCOMPARE(readFile(older(1)), QByteArray("full"));
        QCOMPARE(readFile(older(2)), QByteArray("one"));
        QCOMPARE(readFile(older(3)), QByteArray("two"));
        QVERIFY(!QFile::exists(older(4)));
        QCOMPARE(readFile(older(5)), QByteArray("four"));
        QVERIFY(!QFile::exists(older(6)));
    }

    void noOlderFilesKeepsOnlyTheLastLiveFile_data()
    {
        QTest::addColumn<int>("maxFiles");
        QTest::newRow("zero") << 0;
        QTest::newRow("negative") << -3;
    }
    void noOlderFilesKeepsOnlyTheLastLiveFile()
    {
        QFETCH(int, maxFiles);
        writeFile(older(1), "previous");
        writeFile(older(2), "above the count, never touched");
        writeFile(live(), "full");
        QScopedPointer<shutLog> log(makeLog(4, maxFiles));
        saveDebug(*log, "x");

        QCOMPARE(readFile(older(1)), QByteArray("full"));
        QCOMPARE(readFile(older(2)), QByteArray("above the count, never touched"));
        QVERIFY(readFile(live()).endsWith("x\n"));
    }

    void zeroSizeLimitRotatesBeforeEveryRecord()
    {
        QScopedPointer<shutLog> log(makeLog(0, 6));
        saveDebug(*log, "one");
        saveDebug(*log, "two");
        saveDebug(*log, "three");

        QCOMPARE(textOf(readFile(live())), QString("three"));
        QCOMPARE(textOf(readFile(older(1))), QString("two"));
        QCOMPARE(textOf(readFile(older(2))), QString("one"));
        // The very first record found an empty new file, which moved too.
        QCOMPARE(readFile(older(3)), QByteArray());
        QVERIFY(!QFile::exists(older(4)));
    }

    void anExistingLiveFileIsAppendedToUntilItIsFull()
    {
        writeFile(live(), "kept\n");
        QScopedPointer<shutLog> log(makeLog(40, 6));
        QCOMPARE(log->openLog(), 0);
        QCOMPARE(log->openLog(), 0);
        saveDebug(*log, "a"); // 5 bytes found: appended
        const QByteArray grown = readFile(live());
        QVERIFY(grown.startsWith("kept\n"));
        QCOMPARE(grown.size(), 5 + 23 + 9 + 1 + 1);
        saveDebug(*log, "b"); // 39 bytes found, one short: appended still
        QCOMPARE(readFile(live()).count('\n'), 3);
        QVERIFY(!QFile::exists(older(1)));
        saveDebug(*log, "c"); // 73 bytes found: rotated first
        QCOMPARE(readFile(older(1)).count('\n'), 3);
        QCOMPARE(textOf(readFile(live())), QString("c"));
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

    void aFullCardLosesRecordsUntilSpaceIsFreed()
    {
        QVERIFY(sandbox::mountSmallCard(64));
        const QByteArray card = sandbox::cardDir;
        {
            shutLog log(card.constData(), "shutDown.log", 1024 * 1024, 6);
            QCOMPARE(log.openLog(), 0); // the live file exists, still without a block
            QFile filler(card + "/filler");
            QVERIFY(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
            while (filler.write(QByteArray(4096, 'f')) > 0) {
            }
            filler.close();
            {
                sandbox::OutputCapture err(STDERR_FILENO);
                QCOMPARE(log.saveLog(QtDebugMsg, QMessageLogContext(), "lost"), -ENOSPC);
                QCOMPARE(log.saveLog(QtDebugMsg, QMessageLogContext(), "lost"), -ENOSPC);
                QCOMPARE(err.text(), QByteArray("write to log failed: No space left on device\n").repeated(2));
            }
            QVERIFY(QFile::remove(card + "/filler"));
            saveDebug(log, "after space is freed");
            const QList<QByteArray> lines = readFile(card + "/shutDown.log").split('\n');
            QCOMPARE(lines.size(), 2);
            QVERIFY(lines[0].endsWith(" <DEBUG> after space is freed"));
        }
        sandbox::unmountCard();
    }
};

SANDBOXED_TEST_MAIN(tst_shutLog)
#include "tst_shutLog.moc"
