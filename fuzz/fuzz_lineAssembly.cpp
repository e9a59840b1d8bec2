// Feeds the serial port's receive side and the link's answer parser with
// arbitrary byte streams, delivered in arbitrary read sizes.
//
// The port reads a memory file through its own descriptor; each chunk of
// the input is appended to the file and the port then takes lines until
// the file has nothing more for it (end of file reads like a silent line,
// so a drain costs no waiting).
#include "shutSerial.h"
#include "shutSerialObject.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <QtGlobal>

#include <cstdint>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

const size_t largestChunk = 1100;

void require(bool holds)
{
    if (!holds)
        __builtin_trap();
}

void dropMessage(QtMsgType, const QMessageLogContext&, const QString&) {}

// The descriptor the next open will get: the lowest one free.
int nextDescriptor()
{
    const int probe = dup(STDIN_FILENO);
    close(probe);
    return probe;
}

void checkAnswer(const std::string& answer)
{
    const int untouched = -7;
    int count = untouched;
    const bool hasDigit = answer.find_first_of("0123456789") != std::string::npos;
    const int parsed = shutSerialObject::parseResult(answer, count);
    require(parsed == (hasDigit ? 0 : -1));
    require(hasDigit ? count >= 0 : count == untouched);
}

void checkLine(const std::string& line, int length)
{
    require(length > 0);
    require(line.size() <= static_cast<size_t>(length));
    require(line.find('\0') == std::string::npos);
    require(line.find("\r\n") == std::string::npos);
    checkAnswer(line);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The port's waiting lines and messages would only slow the search.
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
    qInstallMessageHandler(dropMessage);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const int wire = memfd_create("wire", MFD_CLOEXEC);
    require(wire >= 0);
    // A port whose device is no terminal keeps its descriptor even through
    // close; end it here, or the runs would use up the process's descriptors.
    const int portFd = nextDescriptor();
    {
        shutSerial port("/proc/self/fd/" + std::to_string(wire));
        port.open(); // not a terminal, but the descriptor stays open for reading
        size_t fed = 0;
        size_t handedOut = 0;
        while (input.remaining_bytes() > 0) {
            const std::string chunk = input.ConsumeBytesAsString(input.ConsumeIntegralInRange<size_t>(0, largestChunk));
            require(write(wire, chunk.data(), chunk.size()) == static_cast<ssize_t>(chunk.size()));
            fed += chunk.size();
            checkAnswer(chunk);
            std::string line;
            int length;
            while ((length = port.recv(line)) > 0) {
                checkLine(line, length);
                handedOut += static_cast<size_t>(length) + 2;
            }
            require(length == 0 && line.empty());
            require(handedOut <= fed);
        }
    }
    close(portFd);
    close(wire);
    return 0;
}
