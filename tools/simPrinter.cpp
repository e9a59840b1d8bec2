// Runs a program against a simulated printer controller on "/dev/ttyO1",
// inside a private mount namespace, and shows every command the controller
// receives as it arrives:
//   simPrinter [OPTION...] -- PROGRAM [ARGUMENT...]
//     --answer N TEXT   answer exchange N (1: the first command) with TEXT,
//                       where \r, \n, \t, \\ and \xHH stand for their bytes
//     --hang-up N       leave exchange N unanswered and hang up the line
//     --zero-polls N    report no free slot to the next N status queries
//     --debug           turn the link's "outSerial" trace on
// Every other command is answered "ok 7". The program runs as the leader of
// a session of its own, as an init system starts programs. The exit status
// is the program's (128 + the signal when a signal ended it).
#include "controller.h"
#include "privateTree.h"

#include <QDir>
#include <QFile>
#include <QThread>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/wait.h>
#include <unistd.h>

namespace {

const char portPath[] = "/dev/ttyO1";
const char switchDir[] = "/opt/var/debug";
const char switchFile[] = "/opt/var/debug/outSerial";
// How long the hang-up waits for the program to sit in its read.
const int hangUpDelayMs = 200;

int usage()
{
    fprintf(stderr, "usage: simPrinter [--answer N TEXT] [--hang-up N] [--zero-polls N] [--debug] -- PROGRAM [ARGUMENT...]\n");
    return 2;
}

pid_t startAsSessionLeader(char** argv)
{
    const pid_t pid = fork();
    if (pid == 0) {
        setsid();
        execvp(argv[0], argv);
        perror(argv[0]);
        _exit(127);
    }
    return pid;
}

} // namespace

int main(int argc, char** argv)
{
    if (!privateTree::enter() || !privateTree::privateDev())
        return 1;
    std::unique_ptr<controller::Controller> printer(new controller::Controller(portPath));
    int hangUpAt = 0;
    int arg = 1;
    for (; arg < argc && strcmp(argv[arg], "--") != 0; ++arg) {
        const bool hasValue = arg + 1 < argc;
        if (!strcmp(argv[arg], "--answer") && arg + 2 < argc) {
            controller::Reply reply;
            reply.chunks << controller::unescaped(argv[arg + 2]);
            printer->answerAt(atoi(argv[arg + 1]), reply);
            arg += 2;
        } else if (!strcmp(argv[arg], "--hang-up") && hasValue) {
            hangUpAt = atoi(argv[++arg]);
            printer->answerAt(hangUpAt, controller::Reply());
        } else if (!strcmp(argv[arg], "--zero-polls") && hasValue) {
            printer->zeroPolls(atoi(argv[++arg]));
        } else if (!strcmp(argv[arg], "--debug")) {
            QDir().mkpath(switchDir);
            QFile file(switchFile);
            if (!file.open(QIODevice::WriteOnly) || file.write("1") != 1)
                return 1;
        } else {
            return usage();
        }
    }
    if (arg + 1 >= argc)
        return usage();

    printer->start();
    const pid_t program = startAsSessionLeader(argv + arg + 1);
    int shown = 0;
    int status = 0;
    for (;;) {
        const pid_t ended = waitpid(program, &status, WNOHANG);
        if (ended < 0) {
            perror("simPrinter: waitpid");
            return 1;
        }
        const QStringList commands = printer ? printer->commands() : QStringList();
        for (; shown < commands.size(); ++shown) {
            printf("controller <- %-20s (exchange %d, %lld ms)\n", controller::escaped(commands.at(shown).toUtf8()).constData(), shown + 1,
                   printer->arrivalsMs().at(shown));
            fflush(stdout);
        }
        if (ended != 0)
            break;
        if (printer && hangUpAt > 0 && shown >= hangUpAt) {
            QThread::msleep(hangUpDelayMs);
            printer.reset();
            printf("controller: line hung up\n");
            fflush(stdout);
        }
        QThread::msleep(5);
    }
    if (WIFSIGNALED(status)) {
        printf("simPrinter: the program was killed by signal %d (%s)\n", WTERMSIG(status), strsignal(WTERMSIG(status)));
        return 128 + WTERMSIG(status);
    }
    printf("simPrinter: the program exited with status %d\n", WEXITSTATUS(status));
    return WEXITSTATUS(status);
}
