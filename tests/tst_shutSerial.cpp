// The serial port against a real pseudo-terminal: the test plays the
// controller on the master side.
#include "controller.h"
#include "sandbox.h"
#include "shutSerial.h"

#include <QElapsedTimer>
#include <QThread>
#include <QtTest>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

using controller::Controller;
using controller::Runner;
using sandbox::OutputCapture;

namespace {

const QByteArray waitingLine = "serial waiting... : \n";

QByteArray bytes(const std::string& text)
{
    return QByteArray::fromStdString(text);
}

QByteArray received(shutSerial& port)
{
    std::string line;
    const int length = port.recv(line);
    return QByteArray::number(length) + ":" + bytes(line);
}

} // namespace

class tst_shutSerial : public QObject
{
    Q_OBJECT

private slots:
    void framesEachCommandIntoOneWrite()
    {
        Controller peer;
        shutSerial port(peer.slave());
        QCOMPARE(port.open(), 0);
        QCOMPARE(bytes(port.codeSent()), QByteArray("M112"));

        QCOMPARE(port.send("G28"), 0);
        QCOMPARE(bytes(port.codeSent()), QByteArray("~G28\r\n"));
        // The code is a zero-terminated text.
        QCOMPARE(port.send(std::string("G1\0X9", 5)), 0);
        QCOMPARE(peer.readWire(100), QByteArray("~G28\r\n~G1\r\n"));

        const std::string longest(253, 'A');
        QCOMPARE(port.send(longest), 0);
        QCOMPARE(peer.readWire(100), "~" + QByteArray(253, 'A') + "\r\n");
        QCOMPARE(port.send(longest + "A"), -1);
        QCOMPARE(bytes(port.errmsg()), QByteArray("message size is too long"));
        QCOMPARE(bytes(port.codeSent()), "~" + QByteArray(253, 'A') + "\r\n");
        QCOMPARE(peer.readWire(100), QByteArray());

        shutSerial closed(peer.slave());
        QCOMPARE(closed.send("G28"), -1);
        QCOMPARE(bytes(closed.errmsg()), QByteArray("Bad file descriptor"));
    }

    void openSetsOnlyTheLinkSettingsAndCloseRestoresTheDevice()
    {
        Controller peer;
        const int own = ::open(peer.slave(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios before;
        QCOMPARE(tcgetattr(own, &before), 0);
        QVERIFY((before.c_iflag & ICRNL) && (before.c_oflag & ONLCR) && (before.c_lflag & ECHO));

        shutSerial port(peer.slave());
        QCOMPARE(port.open(), 0);
        termios applied;
        tcgetattr(own, &applied);
        QCOMPARE(before.c_iflag ^ applied.c_iflag, tcflag_t(ICRNL));
        QCOMPARE(before.c_oflag ^ applied.c_oflag, tcflag_t(ONLCR));
        QCOMPARE(before.c_lflag ^ applied.c_lflag, tcflag_t(ICANON | ECHO));
        QCOMPARE(before.c_cflag & ~CBAUD, applied.c_cflag & ~CBAUD);
        QCOMPARE(cfgetispeed(&applied), speed_t(B115200));
        QCOMPARE(cfgetospeed(&applied), speed_t(B115200));
        QCOMPARE(applied.c_cc[VTIME], cc_t(10));
        QCOMPARE(applied.c_cc[VMIN], cc_t(0));
        for (int i = 0; i < NCCS; ++i) {
            if (i != VTIME && i != VMIN)
                QCOMPARE(applied.c_cc[i], before.c_cc[i]);
        }

        // A second open neither reopens nor reconfigures.
        termios changed = applied;
        changed.c_cc[VTIME] = 3;
        tcsetattr(own, TCSANOW, &changed);
        QCOMPARE(port.open(), 0);
        termios after;
        tcgetattr(own, &after);
        QCOMPARE(after.c_cc[VTIME], cc_t(3));

        QCOMPARE(port.close(), 0);
        tcgetattr(own, &after);
        QCOMPARE(after.c_iflag, before.c_iflag);
        QCOMPARE(after.c_oflag, before.c_oflag);
        QCOMPARE(after.c_lflag, before.c_lflag);
        QCOMPARE(after.c_cflag, before.c_cflag);
        QVERIFY(memcmp(after.c_cc, before.c_cc, sizeof before.c_cc) == 0);
        QCOMPARE(port.close(), 0);
        ::close(own);
    }

    void openFailuresKeepTheSystemsText()
    {
        shutSerial missing("/tmp/no-such-device");
        QCOMPARE(missing.open(), -1);
        QCOMPARE(bytes(missing.errmsg()), QByteArray("No such file or directory"));

        // Not a terminal: the descriptor stays open but unconfigured, so a
        // second open reports success and close cannot put attributes back.
        sandbox::writeFile("/tmp/not-a-terminal", "");
        shutSerial plain("/tmp/not-a-terminal");
        QCOMPARE(plain.open(), -1);
        QCOMPARE(bytes(plain.errmsg()), QByteArray("Inappropriate ioctl for device"));
        plain.errmsg() = "";
        QCOMPARE(plain.open(), 0);
        QCOMPARE(plain.close(), -1);
        QCOMPARE(bytes(plain.errmsg()), QByteArray("Inappropriate ioctl for device"));
    }

    void assemblesLinesAcrossReads()
    {
        Controller peer;
        shutSerial port(peer.slave());
        QCOMPARE(port.open(), 0);
        peer.start();
        controller::Reply split;
        split.chunks << "ok " << "7\r\n";
        split.pauseMs = 300;
        peer.queue(split);
        peer.queue("ok 1\r\nok 2\r\n");
        peer.queue("ok\n7\r\n");
        peer.queue(QByteArray("ok\0 3\r\n\0ok 4\r\n", 15));
        OutputCapture out(STDOUT_FILENO);

        port.send("M105");
        QCOMPARE(received(port), QByteArray("4:ok 7"));
        port.send("M105");
        QCOMPARE(received(port), QByteArray("4:ok 1"));
        // Handed out from the buffer: a read would have waited a second.
        QCOMPARE(received(port), QByteArray("4:ok 2"));
        // A bare line feed does not end a line.
        port.send("M105");
        QCOMPARE(received(port), QByteArray("4:ok\n7"));
        // The text stops at a zero byte; one after a line end is dropped.
        port.send("M105");
        QCOMPARE(received(port), QByteArray("5:ok"));
        QCOMPARE(received(port), QByteArray("4:ok 4"));
        QCOMPARE(out.text(), QByteArray());
    }

    void longLinesAreHandedOutWhole()
    {
        Controller peer;
        shutSerial port(peer.slave());
        QCOMPARE(port.open(), 0);
        peer.write(QByteArray(600, 'x') + "\r\n");
        QCOMPARE(received(port), "600:" + QByteArray(600, 'x'));
        // Fills the receive buffer to its last byte.
        peer.write(QByteArray(1022, 'y') + "\r\n");
        QCOMPARE(received(port), "1022:" + QByteArray(1022, 'y'));
    }

    // The buffered "ok 7" waits until new bytes arrive: the empty line in
    // front of it sends the call back to the device.
    void anEmptyLineSendsTheCallBackToTheDevice()
    {
        Controller peer;
        shutSerial port(peer.slave());
        QCOMPARE(port.open(), 0);
        peer.write("\r\nok 7\r\n");
        OutputCapture out(STDOUT_FILENO);
        QElapsedTimer waited;
        waited.start();
        {
            Runner later([&peer] {
                QThread::msleep(1500);
                peer.write("ok 8\r\n");
            });
            QCOMPARE(received(port), QByteArray("4:ok 7"));
        }
        QVERIFY(waited.elapsed() >= 1400);
        QVERIFY(out.text().startsWith(waitingLine));
        QCOMPARE(received(port), QByteArray("4:ok 8"));
    }

    void aSilentPeerCostsSixWaitingSeconds()
    {
        Controller peer;
        shutSerial port(peer.slave());
        QCOMPARE(port.open(), 0);
        OutputCapture out(STDOUT_FILENO);
        QElapsedTimer waited;
        waited.start();
        QCOMPARE(received(port), QByteArray("0:"));
        QVERIFY(waited.elapsed() >= 5500);
        QCOMPARE(out.text(), waitingLine.repeated(6));
        QCOMPARE(bytes(port.errmsg()), QByteArray("success"));
    }

    void aFullBufferWithoutLineEndIsNeverReadAgain()
    {
        Controller peer;
        shutSerial port(peer.slave());
        QCOMPARE(port.open(), 0);
        peer.write(QByteArray(1024, 'z'));
        OutputCapture out(STDOUT_FILENO);
        QCOMPARE(received(port), QByteArray("0:"));
        peer.write("\r\nok 7\r\n");
        QCOMPARE(received(port), QByteArray("0:"));
        QCOMPARE(out.text(), waitingLine.repeated(12));
    }

    void aHungUpControllerReadsAsSilence()
    {
        Controller peer;
        shutSerial port(peer.slave());
        QCOMPARE(port.open(), 0);
        peer.hangUp();
        OutputCapture out(STDOUT_FILENO);
        QCOMPARE(received(port), QByteArray("0:"));
        QCOMPARE(out.text(), waitingLine.repeated(6));
        QCOMPARE(port.send("G28"), -1);
        QCOMPARE(bytes(port.errmsg()), QByteArray("Input/output error"));
    }

    void aSignalDuringAReadFailsIt()
    {
        Controller peer;
        shutSerial port(peer.slave());
        QCOMPARE(port.open(), 0);
        OutputCapture out(STDOUT_FILENO);
        int length = 1;
        {
            Runner reader([&port, &length] {
                std::string line;
                length = port.recv(line);
            });
            // A signal that lands between two reads interrupts nothing.
            for (int attempt = 0; attempt < 5 && !reader.waitDone(0); ++attempt) {
                QVERIFY(reader.interruptRead());
                reader.waitDone(1500);
            }
        }
        QCOMPARE(length, -1);
        QCOMPARE(bytes(port.errmsg()), QByteArray("Interrupted system call"));
        QVERIFY(out.text().endsWith("read failed:Interrupted system call\n"));
    }

    void cleanSerialBuffDrainsTheDeviceOnly()
    {
        Controller peer;
        shutSerial port(peer.slave());
        QCOMPARE(port.open(), 0);
        peer.write("ok 1\r\npart");
        QCOMPARE(received(port), QByteArray("4:ok 1"));
        peer.write(QByteArray("a\0b", 3));
        QCOMPARE(bytes(port.cleanSerialBuff()), QByteArray("ab"));
        // The partial line in the buffer survived the drain.
        peer.write("ial\r\n");
        QCOMPARE(received(port), QByteArray("7:partial"));

        shutSerial closed(peer.slave());
        QCOMPARE(bytes(closed.cleanSerialBuff()), QByteArray());
    }
};

SANDBOXED_TEST_MAIN(tst_shutSerial)
#include "tst_shutSerial.moc"
