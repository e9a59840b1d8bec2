// The least a Qt Widgets program has to do to launch the appliance's
// program the way the daemon does: the yardstick for the daemon's start-up
// time and memory.

#include <QApplication>

#include <unistd.h>

namespace {

const char childProgram[] = "/opt/project/Tolven-ii";
const char childArgument[] = "Tolven-ii";
const char workingDirectory[] = "/tmp/mnt/dev/mmcblk0p3";
const int execFailedStatus = 127;

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    if (chdir(workingDirectory) < 0) {
        // As in the daemon: the child then runs where we were started.
    }
    if (fork() == 0) {
        execl(childProgram, childArgument, static_cast<char*>(nullptr));
        _exit(execFailedStatus);
    }
    return app.exec();
}
