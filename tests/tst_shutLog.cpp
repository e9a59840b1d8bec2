// The log on its own: rotation and record format from the tables in golden/,
// threads logging at once, sizes beyond an int, a huge message.
#include "main.h"
#include "sandbox.h"
#include "shutLog.h"

#include <QDateTime>
#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <climits>
#include <thread>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
extern "C" size_t __sanitizer_get_current_allocated_bytes(); // GCC ships no header for it
size_t heapInUse() { return __sanitizer_get_current_allocated_bytes(); }
#else
#include <malloc.h>
size_t heapInUse()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}
#endif

using sandbox::readFile;

namespace {

const QRegularExpression stamp(QString("^") + sandbox::recordTime, QRegularExpression::MultilineOption);

// The rows of a tab-separated table in golden/, "\n" in a field a line break.
void addRows(const char* table, std::initializer_list<const char*> columns)
{
    for (const char* column : columns)
        QTest::addColumn<QString>(column);
    for (const QString& line : QString::fromUtf8(readFile(GOLDEN "/" + QString(table))).split('\n')) {
        const QStringList fields = line.split('\t');
        if (fields.size() <= int(columns.size()) || line.startsWith('#'))
            continue;
        QTestData& row = QTest::newRow(qPrintable(fields[0]));
        for (int i = 1; i <= int(columns.size()); ++i)
            row << QString(fields[i]).replace("\\n", "\n");
    }
}

} // namespace

class tst_shutLog : public QObject
{
    Q_OBJECT
    QTemporaryDir* folder = nullptr;
    QString live() const { return folder->path() + "/shutDown.log"; }
    shutLog* makeLog(int maxSize, int maxFiles, const QString& sub = QString())
    {
        return new shutLog(qPrintable(folder->path() + sub), "shutDown.log", maxSize, maxFiles);
    }
    // Every file of the folder as "k=text" (live=text for the live file),
    // its lines joined by "|", without the records' times and tags.
    QString files() const
    {
        QStringList found;
        for (const QString& name : QDir(folder->path()).entryList(QDir::Files, QDir::Name)) {
            QString text = QString::fromUtf8(readFile(folder->path() + "/" + name));
            text.remove(QRegularExpression(stamp.pattern() + " <DEBUG> ", QRegularExpression::MultilineOption)).chop(1);
            found << (name.section('.', 2).isEmpty() ? "live" : name.section('.', 2)) + "=" + text.replace('\n', '|');
        }
        return found.join(' ');
    }

private slots:
    void init() { folder = new QTemporaryDir; }
    void cleanup() { delete folder; }

    void rotation_data() { addRows("log-rotation.tsv", {"before", "maxSize", "maxFiles", "records", "results", "after", "err"}); }
    void rotation()
    {
        QFETCH(QString, before);
        QStringList inTheWay;
        for (const QString& file : before.split(' ').filter("=")) {
            const QString path = live() + (file.startsWith("live=") ? "" : "." + file.section('=', 0, 0));
            const QString text = file.section('=', 1);
            if (text == "/")
                QVERIFY(QDir().mkpath(path + "/in"));
            else
                sandbox::writeFile(path, text.left(text.size() - text.endsWith('!')).toUtf8() + "\n");
            QVERIFY(!text.endsWith('!') || sandbox::pin(path));
            inTheWay << path;
        }
        QFETCH(QString, maxSize);
        QFETCH(QString, maxFiles);
        QScopedPointer<shutLog> log(makeLog(maxSize.toInt(), maxFiles.toInt(), before == "nodir" ? "/missing" : ""));
        sandbox::OutputCapture said(STDERR_FILENO);
        QStringList results(QString::number(log->openLog()));
        QFETCH(QString, records);
        for (const QString& text : records.split('|')) {
            for (const QString& path : text == "~" ? inTheWay : QStringList()) {
                sandbox::unpin(path);
                QVERIFY(QDir(path).removeRecursively());
            }
            if (text != "~")
                results << QString::number(log->saveLog(QtDebugMsg, QMessageLogContext(), text));
        }
        QTEST(results.join(' '), "results");
        QTEST(files(), "after");
        QTEST(QString(said.text()).replace(folder->path(), "DIR"), "err");
    }

    void records_data() { addRows("log-records.tsv", {"type", "text", "record"}); }
    void records()
    {
        QFETCH(QString, type);
        QFETCH(QString, text);
        QScopedPointer<shutLog> log(makeLog(102400, 6));
        const QDateTime before = QDateTime::currentDateTimeUtc().addMSecs(-1);
        QCOMPARE(log->saveLog(QtMsgType(type.toInt()), QMessageLogContext("file.cpp", 7, "fn", "cat"), text), 0);
        QString written = QString::fromUtf8(readFile(live()));
        QDateTime when = QDateTime::fromString(written.left(23), "yyyy.MM.dd hh:mm:ss.zzz");
        when.setTimeSpec(Qt::UTC);
        QVERIFY2(when >= before && when <= QDateTime::currentDateTimeUtc(), qPrintable(written));
        QTEST(written.replace(stamp, "T"), "record");
    }

    // Threads raising messages at once through the daemon's own handler:
    // every record whole, once and in its thread's order.
    void threads_data()
    {
        QTest::addColumn<int>("maxSize");
        QTest::newRow("one live file") << INT_MAX;
        QTest::newRow("rotating") << 102400;
    }
    void threads()
    {
        QFETCH(int, maxSize);
        const int threads = 4, records = 5000;
        logFlag = makeLog(maxSize, 100);
        qInstallMessageHandler(onShowMsg);
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
        qInstallMessageHandler(nullptr);
        delete logFlag;
        logFlag = nullptr;
        QCOMPARE(err.text(), QByteArray());
        QCOMPARE(QFile::exists(live() + ".1"), maxSize < INT_MAX);
        const QRegularExpression record(stamp.pattern() + " <DEBUG> thread (\\d) record (\\d+)$");
        std::vector<int> next(threads, 0);
        for (int k = 100; k >= 0; --k) { // oldest first
            for (const QString& line : sandbox::logLines(live() + (k ? "." + QString::number(k) : ""))) {
                const QRegularExpressionMatch match = record.match(line);
                QVERIFY2(match.hasMatch(), qPrintable(line));
                QCOMPARE(match.captured(2).toInt(), next[match.captured(1).toInt()]++);
            }
        }
        QCOMPARE(next, std::vector<int>(threads, records));
    }

    // Written whole, it leaves no buffer of its size behind for the rest of
    // the process's life.
    void aHugeMessageKeepsNoMemory()
    {
        const int hugeSize = 32 * 1024 * 1024;
        QScopedPointer<shutLog> log(makeLog(INT_MAX, 6));
        QCOMPARE(log->saveLog(QtDebugMsg, QMessageLogContext(), "small"), 0);
        const size_t before = heapInUse();
        QCOMPARE(log->saveLog(QtDebugMsg, QMessageLogContext(), QString(hugeSize, QChar('h'))), 0);
        QVERIFY2(heapInUse() < before + 1024 * 1024, qPrintable(QString::number(heapInUse() - before)));
        QCOMPARE(QFileInfo(live()).size(), 2 * (23 + 9 + 1) + 5 + hugeSize);
    }

    // A closed log has no size; a live file past 2 GiB, more than a 32-bit
    // off_t holds, is full like any other: measured at the largest int,
    // rotated away by the record that reopens the closed log.
    void sizes()
    {
        QFile big(live());
        QVERIFY(big.open(QIODevice::WriteOnly) && big.resize(qint64(3) << 30)); // sparse: it takes no room
        QScopedPointer<shutLog> log(makeLog(102400, 6));
        QCOMPARE(log->getFileSize(), 0);
        QCOMPARE(log->openLog(), 0);
        QCOMPARE(log->getFileSize(), INT_MAX);
        QCOMPARE(log->closeLog() + log->closeLog() + log->getFileSize(), 0);
        QCOMPARE(log->saveLog(QtDebugMsg, QMessageLogContext(), "after"), 0);
        QCOMPARE(QFileInfo(live() + ".1").size(), qint64(3) << 30);
        QCOMPARE(log->getFileSize(), int(QFileInfo(live()).size()));
    }
};

SANDBOXED_TEST_MAIN(tst_shutLog)
#include "tst_shutLog.moc"
