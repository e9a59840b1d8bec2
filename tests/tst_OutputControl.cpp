// The debug switch read from its file at every query.
#include "OutputControl.h"
#include "sandbox.h"

#include <QDir>
#include <QtTest>

namespace {

const char switchDir[] = "/opt/var/debug";
const char switchFile[] = "/opt/var/debug/outSerial";

} // namespace

class tst_OutputControl : public QObject
{
    Q_OBJECT

private slots:
    void init() { QDir(switchDir).removeRecursively(); }

    void aMissingDirectoryReadsAsOff()
    {
        QDir("/opt/var").removeRecursively();
        OutputControl control;
        QCOMPARE(control.getValue("outSerial"), QChar('0'));
        QVERIFY(!control.isSerialObjOutPut());
    }

    void theFirstCharacterDecides_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QChar>("value");
        QTest::addColumn<bool>("on");
        QTest::newRow("one") << QByteArray("1") << QChar('1') << true;
        QTest::newRow("one and a line feed") << QByteArray("1\n") << QChar('1') << true;
        QTest::newRow("zero") << QByteArray("0\n") << QChar('0') << false;
        QTest::newRow("a blank first") << QByteArray(" 1") << QChar(' ') << false;
        QTest::newRow("empty") << QByteArray() << QChar() << false;
        QTest::newRow("a zero byte first") << QByteArray("\0" "1", 2) << QChar() << false;
    }

    void theFirstCharacterDecides()
    {
        QFETCH(QByteArray, content);
        QFETCH(QChar, value);
        QFETCH(bool, on);
        QDir().mkpath(switchDir);
        sandbox::writeFile(switchFile, content);
        OutputControl control;
        QCOMPARE(control.getValue("outSerial"), value);
        QCOMPARE(control.isSerialObjOutPut(), on);
    }

    void aSwitchThatCannotBeOpenedReadsAsOff()
    {
        QDir().mkpath(switchFile);
        OutputControl control;
        QCOMPARE(control.getValue("outSerial"), QChar('0'));
    }

    void eachQueryReadsTheFileAfresh()
    {
        QDir().mkpath(switchDir);
        OutputControl control;
        sandbox::writeFile(switchFile, "1");
        QVERIFY(control.isSerialObjOutPut());
        sandbox::writeFile(switchFile, "0");
        QVERIFY(!control.isSerialObjOutPut());
        sandbox::writeFile(switchFile, "1\n");
        QVERIFY(control.isSerialObjOutPut());
        QFile::remove(switchFile);
        QVERIFY(!control.isSerialObjOutPut());
    }
};

SANDBOXED_TEST_MAIN(tst_OutputControl)
#include "tst_OutputControl.moc"
