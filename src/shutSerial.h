#ifndef SHUTSERIAL_H
#define SHUTSERIAL_H

#include <string>

#include <termios.h>

// A serial character device driven as a line-oriented text exchange:
// unprocessed text at 115200 baud, one framed command per send, answers
// read back one line at a time through a fixed receive buffer. Results are
// 0 or -1 (recv: the line length), with the text of the last failure kept
// in errmsg(). Waiting and read failures are reported on standard output.
// One thread at a time may use a port.
class shutSerial
{
public:
    explicit shutSerial(const std::string& deviceName);
    ~shutSerial();

    shutSerial(const shutSerial&) = delete;
    shutSerial& operator=(const shutSerial&) = delete;

    int open();
    int close();
    int send(const std::string& code);
    // The length of the next non-empty line (without its "\r\n"), which is
    // placed in line up to its first zero byte; 0 after six silent seconds;
    // -1 when a read fails.
    int recv(std::string& line);
    // Reads the device until it falls silent or a read fails; the receive
    // buffer is left as it is.
    std::string cleanSerialBuff();
    std::string codeSent() const;
    std::string& errmsg();

    // Print-control flags and a value kept for the owner; the port itself
    // never looks at them.
    bool quitOrNot();
    bool stopOrNot();
    int filePer();
    void setFilePer(int value);
    void stopPrinting();
    void continuePrinting();
    void quitPrinting();
    void controlInit();
    void setWaitingQuit();

private:
    int fail();
    int takeLine(std::string& line);

    int fd;
    std::string deviceName;
    termios savedAttributes;
    termios portAttributes;
    std::string errorText;
    std::string lastCode;
    bool waitingQuit;
    char* recvBuffer;
    int recvCapacity;
    // Bytes below readPos have been handed out and are never moved; both
    // positions go back to 0 only once every buffered byte is handed out.
    unsigned int readPos;
    unsigned int fillLevel;
    int filePerValue;
    bool stopFlag;
    bool quitFlag;
    int silentReads;
};

#endif // SHUTSERIAL_H
