// ping: how fast the daemon answers.
#include <chrono>
#include <cmath>

#include "alarm.h"
#include "histogram.h"
#include "verbs.h"

namespace obregtool {

namespace {

struct LiveOptions {
    double interval = 0;
    uint64_t count = 0; // 0: for ever
    bool latency = false;
};

double roundTripUs()
{
    const auto begin = std::chrono::steady_clock::now();
    std::error_code error;
    obreg::localMachine().info(error);
    if (error) {
        const Failure failure = failureOf({HKEY_LOCAL_MACHINE, {}}, nullptr, error);
        throw Failure(failure.exit, error.message(), failure.advice); // the key is not the point
    }
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - begin;
    return std::round(time.count() * 10) / 10;
}

int ping(const LiveOptions& options, Output& output)
{
    const bool terminal = output.form() == Form::Terminal;
    constexpr uint64_t countInPipe = 1000;
    const uint64_t count = options.count != 0 ? options.count : !options.latency ? 1 : terminal ? 0 : countInPipe;
    Histogram histogram;
    catchInterrupts();
    restartTimeout();
    roundTripUs(); // the first one connects
    while (!interrupted() && (count == 0 || histogram.count() < count)) {
        restartTimeout();
        histogram.add(roundTripUs());
        if (options.latency && terminal)
            histogram.draw(output);
        if (histogram.count() != count)
            pause(options.interval);
    }
    if (histogram.count() == 0)
        throw Failure(ExitNoDaemon, "interrupted before the daemon answered");
    if (!options.latency && count == 1) {
        output.fact({"ping", {{"roundTripUs", histogram.mean()}}});
        return ExitDone;
    }
    output.fact({"ping",
                 {{"count", histogram.count()},
                  {"leastUs", histogram.least()},
                  {"meanUs", histogram.mean()},
                  {"medianUs", histogram.quantile(0.5)},
                  {"p90Us", histogram.quantile(0.9)},
                  {"p99Us", histogram.quantile(0.99)},
                  {"mostUs", histogram.most()}}});
    return ExitDone;
}

} // namespace

Run declarePing(Arguments& arguments)
{
    const auto pOptions = std::make_shared<LiveOptions>();
    pOptions->interval = 0.01;
    arguments.flag("--latency", pOptions->latency,
                   "Many round trips: a live histogram on a terminal, figures in a pipe");
    arguments.number("--count", pOptions->count, "Round trips [1; with --latency until Ctrl-C, or 1000 in a pipe]");
    arguments.seconds("--interval", pOptions->interval, 0, "Time between two of them");
    return [=](Output& output) { return ping(*pOptions, output); };
}

} // namespace obregtool
