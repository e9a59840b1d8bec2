// How long the daemon takes from its own start to starting the appliance's
// program, and how much memory it peaks at, against a Qt Widgets program
// that does nothing else (minimal_forker). Runs the two in turn, so drift in
// the machine's load falls on both alike.
//
// Usage: bench_startup [runs]   (root: it makes a private mount namespace)

#include "driver.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

const int defaultRuns = 30;
const int stampTimeoutMs = 10000;
// Time given after the child's start for the launcher to reach its event
// loop and settle there, so the peak memory is that of the running program.
const useconds_t settleUs = 300000;
const double goalRatio = 1.2;

struct Program {
    const char* label;
    const char* path;
    const char* argv0;
    const char* errorFile;
    std::vector<double> startMs;
    std::vector<double> peakKb;
};

struct Sample {
    double startMs;
    double peakKb;
};

bool measureOnce(const Program& program, Sample& sample)
{
    const int64_t spawnNs = driver::monotonicNs();
    const pid_t pid = driver::launch(program.path, program.argv0, program.errorFile);
    driver::Stamp stamp = {0, 0};
    if (!driver::awaitStamp(stamp, stampTimeoutMs)) {
        driver::stop(pid);
        fprintf(stderr, "bench_startup: %s never started its child; its output:\n%s\n", program.label,
                driver::readFile(program.errorFile).c_str());
        return false;
    }
    usleep(settleUs);
    const long peak = driver::statusField("/proc/" + std::to_string(pid) + "/status", "VmHWM");
    driver::stop(pid);
    driver::stop(stamp.pid);
    if (peak < 0) {
        fprintf(stderr, "bench_startup: %s ended on its own; its output:\n%s\n", program.label,
                driver::readFile(program.errorFile).c_str());
        return false;
    }
    sample.startMs = static_cast<double>(stamp.startNs - spawnNs) / 1e6;
    sample.peakKb = static_cast<double>(peak);
    return true;
}

bool measure(Program& program)
{
    Sample sample;
    if (!measureOnce(program, sample))
        return false;
    program.startMs.push_back(sample.startMs);
    program.peakKb.push_back(sample.peakKb);
    return true;
}

// The value below which the given fraction of the sorted samples lie.
double quantile(const std::vector<double>& sorted, double fraction)
{
    const double position = fraction * static_cast<double>(sorted.size() - 1);
    const size_t below = static_cast<size_t>(position);
    const size_t above = std::min(below + 1, sorted.size() - 1);
    const double weight = position - static_cast<double>(below);
    return sorted[below] * (1 - weight) + sorted[above] * weight;
}

double median(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return quantile(samples, 0.5);
}

void printRow(const char* label, std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    printf("  %-16s median %9.1f   p25..p75 %9.1f..%-9.1f  min..max %9.1f..%.1f\n", label,
           quantile(samples, 0.5), quantile(samples, 0.25), quantile(samples, 0.75), samples.front(),
           samples.back());
}

void printRatio(double daemon, double minimal)
{
    const double ratio = daemon / minimal;
    printf("  ratio of medians %.2fx (goal <= %.1fx: %s)\n", ratio, goalRatio,
           ratio <= goalRatio ? "met" : "MISSED");
}

void report(const Program& daemon, const Program& minimal)
{
    printf("\nstart-up: spawn to the child's first instruction, ms (%zu runs each)\n",
           daemon.startMs.size());
    printRow(daemon.label, daemon.startMs);
    printRow(minimal.label, minimal.startMs);
    printRatio(median(daemon.startMs), median(minimal.startMs));
    printf("peak memory: VmHWM %.1f s after the child's start, kB\n", settleUs / 1e6);
    printRow(daemon.label, daemon.peakKb);
    printRow(minimal.label, minimal.peakKb);
    printRatio(median(daemon.peakKb), median(minimal.peakKb));
}

} // namespace

int main(int argc, char** argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int runs = argc > 1 ? atoi(argv[1]) : defaultRuns;
    if (runs < 1 || !driver::enterPrivateTree(CHILD_PATH) || !driver::openStampChannel())
        return 1;
    setenv("QT_QPA_PLATFORM", "offscreen", 1);

    Program daemon = {"softShutDown", DAEMON_PATH, "softShutDown", "/tmp/daemon.out", {}, {}};
    Program minimal = {"minimal_forker", MINIMAL_PATH, "minimal_forker", "/tmp/minimal.out", {}, {}};

    // One unmeasured run of each first: the page cache then holds both
    // programs and their libraries for every measured run.
    Sample warmUp;
    if (!measureOnce(daemon, warmUp) || !measureOnce(minimal, warmUp))
        return 1;

    for (int run = 0; run < runs; ++run) {
        if (!measure(daemon) || !measure(minimal))
            return 1;
    }
    report(daemon, minimal);
    return 0;
}
