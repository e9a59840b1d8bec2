// What one log record costs, against the least any logger that must find
// the file's size and append a line could cost: one fstat and one write.
// Compared in one run:
//   BM_floor        fstat + write of a line as long as a saveLog record
//   BM_saveLog      shutLog::saveLog, rotating as the daemon's log does
//   BM_qDebug       the same record raised with qDebug() and written by a
//                   message handler, as the daemon routes every message
//   BM_spdlog       spdlog's rotating file sink, flushed after each record
// All files live in a fresh directory under $TMPDIR (or /tmp), removed at
// the end. A summary of ratios to the floor is printed last.

#include "shutLog.h"

#include <benchmark/benchmark.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <QDebug>
#include <QString>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// The daemon's own limits, so rotation happens as often as it does there.
const int logMaxSize = 102400;
const int logOlderFiles = 6;
// Many short runs rather than a few long ones: the machine's background
// writeback comes in bursts, and the median of many runs sees past them.
const int repetitions = 15;
const double secondsPerRun = 0.2;
const double goalRatio = 1.3;
const char floorName[] = "BM_floor";
const char saveLogName[] = "BM_saveLog";

std::string workDir;
QString message;     // the message text every logger is given
size_t recordLength; // the bytes saveLog writes for it

// A realistic record: what the daemon logs when it reaps its child.
void logChildReport()
{
    qDebug() << "monitor" << "sigchld_handler" << "  child pid: " << QString::number(1234)
             << " , status = " << QString::number(0);
}

QString capturedText;

void captureHandler(QtMsgType, const QMessageLogContext&, const QString& msg)
{
    capturedText = msg;
}

// The exact text qDebug() hands a message handler, so that every variant
// writes the same record.
QString childReportText()
{
    const QtMessageHandler previous = qInstallMessageHandler(captureHandler);
    logChildReport();
    qInstallMessageHandler(previous);
    return capturedText;
}

std::string subdirectory(const char* name)
{
    const std::string dir = workDir + "/" + name;
    fs::create_directories(dir);
    return dir;
}

size_t saveLogRecordLength()
{
    const std::string dir = subdirectory("length");
    shutLog log(dir.c_str(), "probe.log", logMaxSize, logOlderFiles);
    log.saveLog(QtDebugMsg, QMessageLogContext(), message);
    return static_cast<size_t>(log.getFileSize());
}

void BM_floor(benchmark::State& state)
{
    const std::string path = subdirectory("floor") + "/floor.log";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
    const std::string line = std::string(recordLength - 1, 'x') + '\n';
    for (auto _ : state) {
        struct stat st;
        fstat(fd, &st);
        if (write(fd, line.data(), line.size()) < 0)
            state.SkipWithError("write failed");
        // Keep the file as small as the rotating logs keep theirs; untimed,
        // since a floor has no rotation.
        if (st.st_size >= logMaxSize) {
            state.PauseTiming();
            if (ftruncate(fd, 0) < 0)
                state.SkipWithError("ftruncate failed");
            state.ResumeTiming();
        }
    }
    close(fd);
}

void BM_saveLog(benchmark::State& state)
{
    const std::string dir = subdirectory("saveLog");
    shutLog log(dir.c_str(), "shutDown.log", logMaxSize, logOlderFiles);
    const QMessageLogContext context;
    for (auto _ : state) {
        if (log.saveLog(QtDebugMsg, context, message) < 0)
            state.SkipWithError("saveLog failed");
    }
}

// The daemon's route for every message: a handler that writes it to the log
// and keeps a message raised from inside itself out of the log.
shutLog* handlerLog = nullptr;
thread_local bool inHandler = false;
int64_t handled = 0;

void logHandler(QtMsgType type, const QMessageLogContext& context, const QString& msg)
{
    if (inHandler)
        return;
    inHandler = true;
    if (handlerLog->saveLog(type, context, msg) >= 0)
        ++handled;
    inHandler = false;
}

void BM_qDebug(benchmark::State& state)
{
    const std::string dir = subdirectory("qDebug");
    shutLog log(dir.c_str(), "shutDown.log", logMaxSize, logOlderFiles);
    handlerLog = &log;
    handled = 0;
    const QtMessageHandler previous = qInstallMessageHandler(logHandler);
    for (auto _ : state)
        logChildReport();
    qInstallMessageHandler(previous);
    handlerLog = nullptr;
    if (handled != static_cast<int64_t>(state.iterations()))
        state.SkipWithError("not every qDebug() record reached the log (debug output disabled?)");
}

void BM_spdlog(benchmark::State& state)
{
    const std::string path = subdirectory("spdlog") + "/shutDown.log";
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_st>(path, logMaxSize, logOlderFiles);
    spdlog::logger logger("bench", sink);
    // As close to saveLog's record as the pattern language allows.
    logger.set_pattern("%Y.%m.%d %H:%M:%S.%e <%l> %v", spdlog::pattern_time_type::utc);
    logger.set_level(spdlog::level::trace);
    logger.flush_on(spdlog::level::trace);
    const std::string text = message.toStdString();
    for (auto _ : state)
        logger.debug(text);
}

BENCHMARK(BM_floor)->MinTime(secondsPerRun)->Repetitions(repetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_saveLog)->MinTime(secondsPerRun)->Repetitions(repetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_qDebug)->MinTime(secondsPerRun)->Repetitions(repetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_spdlog)->MinTime(secondsPerRun)->Repetitions(repetitions)->ReportAggregatesOnly(true);

// Prints the usual table and keeps each benchmark's median and spread (the
// coefficient of variation across its repetitions) for the summary.
class SummaryReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            Figures& figures = results[run.run_name.function_name];
            if (run.run_type == Run::RT_Iteration || run.aggregate_name == "median")
                figures.medianNs = run.GetAdjustedRealTime();
            else if (run.aggregate_name == "cv")
                figures.spread = run.real_accumulated_time;
        }
    }

    void printSummary() const
    {
        const auto floor = results.find(floorName);
        if (floor == results.end())
            return;
        printf("\nper record (%zu bytes): median real time of %d runs, spread (cv), ratio to the floor\n",
               recordLength, repetitions);
        for (const auto& [name, figures] : results) {
            const double ratio = figures.medianNs / floor->second.medianNs;
            printf("  %-12s %6.0f ns  cv %4.1f%%  %5.2fx", name.c_str(), figures.medianNs,
                   figures.spread * 100, ratio);
            if (name == saveLogName)
                printf("  (goal <= %.1fx: %s)", goalRatio, ratio <= goalRatio ? "met" : "MISSED");
            printf("\n");
        }
    }

private:
    struct Figures {
        double medianNs = 0;
        double spread = 0;
    };
    std::map<std::string, Figures> results;
};

bool makeWorkDir()
{
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/bench_saveLog.XXXXXX";
    if (!mkdtemp(pattern.data())) {
        perror("bench_saveLog: mkdtemp");
        return false;
    }
    workDir = pattern;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (!makeWorkDir())
        return 1;
    message = childReportText();
    recordLength = saveLogRecordLength();
    printf("record: %zu bytes, message: %s\n", recordLength, qPrintable(message));

    // Repetitions of the four run in random order, so that a slow spell of
    // the machine falls on all of them rather than on one. Flags given on
    // the command line come later and win.
    std::vector<char*> args(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    args.insert(args.begin() + 1, interleave);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());

    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printSummary();
    benchmark::Shutdown();
    fs::remove_all(workDir);
    return 0;
}
