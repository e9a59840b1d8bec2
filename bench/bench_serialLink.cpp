// The printer command link's own cost over a pseudo-terminal whose master
// answers every command at once, against the raw floor on the same
// pseudo-terminal:
//   exchange   one serialCheckCode (trace record in the log included)
//              against one write plus one read of the same bytes;
//   commands   serialSendCode (the command and its "M117" query) per second
//              against the floor doing the same two exchanges.
// The link and the floor take turns in rounds, so both see the same machine.
// Runs as root: it binds the pseudo-terminal at /dev/ttyO1 inside a private
// mount namespace of its own, over a private /dev and /tmp.
#include "privateTree.h"
#include "shutLog.h"
#include "shutSerialObject.h"

#include <QByteArray>
#include <QString>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char portPath[] = "/dev/ttyO1";
const char logDir[] = "/tmp/bench-log";
const char command[] = "G1 X10 Y10 F3000";
const char statusQuery[] = "M117";
const QByteArray answer = "ok 7\r\n";
const int rounds = 9;
const int exchangesPerRound = 2000;
// A typical command, its answer and the "M117" exchange at 115200 baud.
const double wireTimeUs = 3900;
const double ownCostGoal = 0.02;
const double floorRatioGoal = 1.25;

shutLog* traceLog = nullptr;

void toLog(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    traceLog->saveLog(type, context, message);
}

bool failed(const char* what)
{
    fprintf(stderr, "bench_serialLink: %s: %s\n", what, strerror(errno));
    return false;
}

// The master's side: answers each framed command the moment its line end
// arrives.
void respond(int master)
{
    char chunk[512];
    int pendingEnds = 0;
    bool afterReturn = false;
    ssize_t got;
    while ((got = read(master, chunk, sizeof chunk)) > 0) {
        for (ssize_t i = 0; i < got; ++i) {
            if (afterReturn && chunk[i] == '\n')
                ++pendingEnds;
            afterReturn = chunk[i] == '\r';
        }
        for (; pendingEnds > 0; --pendingEnds) {
            if (write(master, answer.constData(), static_cast<size_t>(answer.size())) < 0)
                return;
        }
    }
}

// A private /tmp and /dev, with the pseudo-terminals of the host reachable
// and the slave of a new one at the port's fixed path.
bool placePort(int& master)
{
    if (!privateTree::enter() || !privateTree::privateDev())
        return false;
    master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) < 0 || unlockpt(master) < 0)
        return failed("pseudo-terminal");
    return privateTree::bindFile(ptsname(master), portPath);
}

double microseconds(std::chrono::steady_clock::duration elapsed)
{
    return std::chrono::duration<double, std::micro>(elapsed).count();
}

template <typename Work>
double meanUs(Work work)
{
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < exchangesPerRound; ++i)
        work();
    return microseconds(std::chrono::steady_clock::now() - start) / exchangesPerRound;
}

// One write of the framed command and reads until its answer is whole.
void rawExchange(int port, const QByteArray& framed)
{
    if (write(port, framed.constData(), static_cast<size_t>(framed.size())) < 0)
        return;
    char chunk[64];
    ssize_t have = 0;
    ssize_t got;
    while (have < answer.size() && (got = read(port, chunk, sizeof chunk)) > 0)
        have += got;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main()
{
    int master = -1;
    if (!placePort(master))
        return 1;
    mkdir(logDir, 0755);
    traceLog = new shutLog(logDir, "shutDown.log", 102400, 6);
    if (traceLog->openLog() < 0) {
        failed("log");
        return 1;
    }
    qInstallMessageHandler(toLog);

    std::thread responder(respond, master);
    shutSerialObject* link = new shutSerialObject;
    // The link has made the device raw; the floor shares its settings.
    const int raw = open(portPath, O_RDWR | O_NOCTTY | O_CLOEXEC);
    const QByteArray framedCommand = QByteArray("~") + command + "\r\n";
    const QByteArray framedQuery = QByteArray("~") + statusQuery + "\r\n";

    std::vector<double> linkExchange, floorExchange, linkCommand, floorCommand;
    for (int round = 0; round < rounds; ++round) {
        linkExchange.push_back(meanUs([&] { link->serialCheckCode(command); }));
        floorExchange.push_back(meanUs([&] { rawExchange(raw, framedCommand); }));
        linkCommand.push_back(meanUs([&] { link->serialSendCode(command); }));
        floorCommand.push_back(meanUs([&] {
            rawExchange(raw, framedCommand);
            rawExchange(raw, framedQuery);
        }));
    }

    const double exchangeUs = median(linkExchange);
    const double floorUs = median(floorExchange);
    const double ownUs = exchangeUs - floorUs;
    const double linkPerSecond = 1e6 / median(linkCommand);
    const double floorPerSecond = 1e6 / median(floorCommand);
    printf("exchange (median of %d rounds of %d)\n", rounds, exchangesPerRound);
    printf("  link  serialCheckCode      %8.1f us\n", exchangeUs);
    printf("  floor write + read         %8.1f us\n", floorUs);
    printf("  link's own cost            %8.1f us = %.2f%% of the %.1f ms wire time (goal < %.0f%%)\n", ownUs,
           100 * ownUs / wireTimeUs, wireTimeUs / 1000, 100 * ownCostGoal);
    printf("commands (command and \"M117\")\n");
    printf("  link  serialSendCode       %8.0f /s\n", linkPerSecond);
    printf("  floor two exchanges        %8.0f /s\n", floorPerSecond);
    printf("  floor / link               %8.3f    (goal <= %.2f)\n", floorPerSecond / linkPerSecond, floorRatioGoal);

    // With no slave left open, the responder's read ends.
    delete link;
    close(raw);
    responder.join();
    qInstallMessageHandler(nullptr);
    close(master);
    return 0;
}
