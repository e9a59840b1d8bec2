// A stand-in for the appliance's program that records how it was started:
// its working directory, core-file limits and blocked signals, each in a
// file under /tmp; then it waits for /tmp/go and ends.
#include <fstream>
#include <string>

#include <sys/resource.h>
#include <unistd.h>

namespace {

std::string limitText(rlim_t value)
{
    return value == RLIM_INFINITY ? "unlimited" : std::to_string(value);
}

std::string statusLine(const std::string& key)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, key.size(), key) == 0)
            return line;
    }
    return std::string();
}

} // namespace

int main()
{
    char cwd[4096] = "";
    if (getcwd(cwd, sizeof cwd) == nullptr)
        cwd[0] = '\0';
    std::ofstream("/tmp/child-cwd") << cwd << "\n";
    struct rlimit core;
    getrlimit(RLIMIT_CORE, &core);
    std::ofstream("/tmp/child-core") << limitText(core.rlim_cur) << " " << limitText(core.rlim_max) << "\n";
    std::ofstream("/tmp/child-mask") << statusLine("SigBlk:") << "\n";
    while (access("/tmp/go", F_OK) != 0)
        usleep(20000);
    return 0;
}
