// The command link on /dev/ttyO1, which the test binds to the slave of a
// pseudo-terminal whose master a simulated controller drives.
#include "controller.h"
#include "privateTree.h"
#include "sandbox.h"
#include "shutSerialObject.h"

#include <QDir>
#include <QtTest>

#include <climits>

using controller::Controller;
using controller::Reply;
using controller::Runner;
using sandbox::MessageLog;
using sandbox::OutputCapture;

namespace {

const char portPath[] = "/dev/ttyO1";
const char switchFile[] = "/opt/var/debug/outSerial";
const QString unparsed = "Send failed for parseResult.";

} // namespace

class tst_shutSerialObject : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(privateTree::privateDev()); }

    void theFirstCommandGoesOutAtOnceAndOnlyCommandsAreTraced()
    {
        Controller printer(portPath);
        printer.start();
        MessageLog log;
        shutSerialObject link;
        QCOMPARE(log.tagged(), QStringList() << "D shutSerialObject serialOpen new a serial device"
                                               << "D shutSerialObject serialOpen  add new"
                                               << "D shutSerial shutSerial  add new"
                                               << "D shutSerialObject shutSerialObject  add new");

        QCOMPARE(link.serialSendCode("G28"), QString("ok 7"));
        QCOMPARE(printer.commands(), QStringList() << "G28" << "M117");
        QCOMPARE(log.taggedWithPrefix("D serial send: "), QStringList() << "D serial send:  \"G28\" ; recv ok 7");
        QCOMPARE(log.tagged().size(), 5);
    }

    void aLinkWithoutItsDeviceRetriesTheDeviceAtEveryExchange()
    {
        MessageLog log;
        OutputCapture out(STDOUT_FILENO);
        shutSerialObject link;
        QVERIFY(log.tagged().contains("D Serial open failed."));
        QCOMPARE(link.serialSendCode("G28"), unparsed);
        QCOMPARE(out.text(), QByteArray("No such file or directory\n"
                                        "read failed:Bad file descriptor\n"
                                        "Bad file descriptor\n"));
        QVERIFY(log.tagged().contains("W G28  send & recv error."));

        Controller printer(portPath);
        printer.start();
        QCOMPARE(link.serialSendCode("G28"), unparsed);
        QCOMPARE(link.serialSendCode("G28"), QString("ok 7"));
        QCOMPARE(printer.commands(), QStringList() << "G28" << "M117");
    }

    // While the controller reports no free slot, the link asks again every
    // 80 ms and sends nothing else; the trace of those polls follows the
    // switch file as it is at each poll.
    void noFreeSlotMeansPollingUntilThereIsOne()
    {
        QDir().mkpath(QFileInfo(switchFile).path());
        QFile::remove(switchFile);
        Controller printer(portPath);
        printer.start();
        printer.setFreeSlots(5);
        MessageLog log;
        shutSerialObject link;

        for (const QByteArray& traced : {QByteArray(), QByteArray("1\n"), QByteArray("0")}) {
            if (!traced.isNull())
                sandbox::writeFile(switchFile, traced);
            const int before = printer.commands().size();
            printer.zeroPolls(3); // the query after the command, then two polls
            QCOMPARE(link.serialSendCode("G1"), QString("ok 5"));
            QCOMPARE(link.serialSendCode("G2"), QString("ok 5"));
            const QStringList sent = printer.commands().mid(before);
            QCOMPARE(sent, QStringList() << "G1" << "M117" << "M117" << "M117" << "M117" << "G2" << "M117");
            const QList<qint64> at = printer.arrivalsMs().mid(before);
            for (int poll = 2; poll <= 4; ++poll)
                QVERIFY2(at[poll] - at[poll - 1] >= 80, qPrintable(QString::number(at[poll] - at[poll - 1])));
        }
        QCOMPARE(log.taggedWithPrefix("D Check buff left:"), QStringList() << "D Check buff left: \"0\""
                                                                     << "D Check buff left: \"0\""
                                                                     << "D Check buff left: \"5\"");
    }

    void moreThanSixteenFreeSlotsAreReported()
    {
        Controller printer(portPath);
        printer.start();
        MessageLog log;
        shutSerialObject link;
        printer.setFreeSlots(17);
        link.serialSendCode("G1");
        printer.setFreeSlots(16);
        link.serialSendCode("G1");
        QCOMPARE(log.taggedWithPrefix("D Buff left:"), QStringList() << "D Buff left:  \"17\"  ;");
    }

    // Also answers that hold what a debug message could escape: they reach
    // the log as they came, as on the appliance's Qt 5.4.
    void answersWithoutDigits_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("answer");
        QTest::newRow("plain") << "G1" << "busy";
        QTest::newRow("double quote") << "M117 say \"hi\"" << "error: \"hi\" unknown";
        QTest::newRow("backslash") << "M117 C:\\temp" << "no file C:\\temp";
        QTest::newRow("bare carriage return") << "M117 a\rb" << "busy\rwait";
    }

    void answersWithoutDigits()
    {
        QFETCH(QString, command);
        QFETCH(QString, answer);
        Controller printer(portPath);
        printer.start();
        MessageLog log;
        shutSerialObject link;
        const QString unknown = "D Unknown result:  \"" + answer + "\"  [bufsizeFlag]:  ";

        // To a command: traced and reported, and no query follows.
        printer.queue(answer.toUtf8() + "\r\n");
        QCOMPARE(link.serialSendCode(command), unparsed);
        QCOMPARE(log.taggedWithPrefix("D serial send: "), QStringList{"D serial send:  \"" + command + "\" ; recv " + answer});
        QCOMPARE(log.taggedWithPrefix("D Unknown"), QStringList{unknown + "\"8\""});
        QCOMPARE(printer.commands(), QStringList{command});

        // To the query after a command: the command's count stays.
        printer.queue("ok 20\r\n");
        printer.queue(answer.toUtf8() + "\r\n");
        QCOMPARE(link.serialSendCode("G2"), QString("ok 20"));
        QVERIFY(log.tagged().contains("D Buff left:  \"20\"  ;"));

        // To a poll: reported, and the command goes out all the same.
        printer.queue("ok 0\r\n");
        printer.queue("ok 0\r\n");
        printer.queue(answer.toUtf8() + "\r\n");
        QCOMPARE(link.serialSendCode("G3"), QString("ok 0"));
        QCOMPARE(link.serialSendCode("G4"), QString("ok 7"));
        QCOMPARE(QStringList(printer.commands().mid(3)), QStringList({"G3", "M117", "M117", "G4", "M117"}));
        QCOMPARE(log.taggedWithPrefix("D Unknown").last(), unknown + "\"0\" \n");
    }

    void theCountIsTheFirstNumberOfTheAnswer_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<int>("result");
        QTest::addColumn<int>("count");
        QTest::newRow("plain") << "ok 7" << 0 << 7;
        QTest::newRow("several numbers") << "ok 3 T:210 B:60" << 0 << 3;
        QTest::newRow("minus sign") << "T:-12 B:40" << 0 << 12;
        QTest::newRow("no digit") << "busy" << -1 << 99;
        QTest::newRow("empty") << "" << -1 << 99;
        QTest::newRow("beyond int") << "ok 99999999999999999999" << 0 << INT_MAX;
    }

    void theCountIsTheFirstNumberOfTheAnswer()
    {
        QFETCH(QString, answer);
        QFETCH(int, result);
        QFETCH(int, count);
        int parsed = 99;
        QCOMPARE(shutSerialObject::parseResult(answer.toStdString(), parsed), result);
        QCOMPARE(parsed, count);
    }

    // The device is swapped under the link while it waits for an answer: only
    // a reopened port reaches the new one.
    void aFailedReadReopensThePort()
    {
        Controller first(portPath);
        first.start();
        first.queue(Reply()); // no answer
        MessageLog log;
        shutSerialObject link;
        Controller second(portPath);
        second.start();
        OutputCapture out(STDOUT_FILENO);
        QString answer;
        {
            Runner owner([&link, &answer] { answer = link.serialSendCode("G1"); });
            for (int attempt = 0; attempt < 5 && !owner.waitDone(0); ++attempt) {
                QVERIFY(owner.interruptRead());
                owner.waitDone(1500);
            }
        }
        QCOMPARE(answer, unparsed);
        QVERIFY(out.text().endsWith("read failed:Interrupted system call\nInterrupted system call\n"));
        QVERIFY(log.tagged().contains("W G1  send & recv error."));
        QVERIFY(log.tagged().contains("D Unknown result:  \"send failed.\"  [bufsizeFlag]:  \"8\""));

        QCOMPARE(link.serialSendCode("G2"), QString("ok 7"));
        // The silent controller notes the command on its own thread, in its own time.
        QTRY_COMPARE(first.commands(), QStringList() << "G1");
        QCOMPARE(second.commands(), QStringList() << "G2" << "M117");
    }

    void linksInTwoThreadsNeverShareAnExchange()
    {
        Controller printer(portPath);
        printer.echoAfter(2);
        printer.start();
        shutSerialObject left;
        shutSerialObject right;
        const int commands = 20;
        QStringList mismatches;
        QMutex noting;
        auto drive = [&](shutSerialObject& link, const QString& name) {
            for (int i = 0; i < commands; ++i) {
                const QString command = name + QString::number(i);
                const QString answer = link.serialSendCode(command);
                if (answer != "ok 5 " + command) {
                    QMutexLocker locked(&noting);
                    mismatches << command + " got " + answer;
                }
            }
        };
        {
            Runner one([&] { drive(left, "L"); });
            Runner other([&] { drive(right, "R"); });
        }
        QCOMPARE(mismatches, QStringList());
        QVERIFY(!printer.overlapped());
        QCOMPARE(printer.commands().size(), 4 * commands);
    }
};

SANDBOXED_TEST_MAIN(tst_shutSerialObject)
#include "tst_shutSerialObject.moc"
