// Makes requests to one contender from a number of threads for a while and prints one line: requests a second, latency,
// and what the client process spent. bench/run calls it, in turn for every contender.
//
//   obreg_bench CONTENDER [threads=1] [ms=200] [requests=0] [bytes=16] [operation=query] [address=PATH] [shared=0]
//               [keys=10000] [values=10] [parked=0]
//
// With requests, one thread makes that many and nothing is timed: for counting instructions. In place of a contender,
// "fill" and "enumerate" (registry.cpp), and "serve-dbus" and "serve-nats", which answer.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <latch>
#include <map>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "contender.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::map<std::string, std::unique_ptr<Contender> (*)(const Load&)> Contenders = {
    {"library", makeLibrary}, {"floor", makeFloor}, {"registry", makeRegistry},
#ifdef BENCH_REDIS
    {"redis", makeRedis},
#endif
#ifdef BENCH_DBUS
    {"dbus", makeDbus},
#endif
#ifdef BENCH_NATS
    {"nats", makeNats},
#endif
};

/// What prepares or answers, or measures by itself.
const std::map<std::string, void (*)(const Load&)> Actions = {
    {"fill", fillRegistry},
    {"enumerate", enumerateRegistry},
#ifdef BENCH_DBUS
    {"serve-dbus", serveDbus},
#endif
#ifdef BENCH_NATS
    {"serve-nats", serveNats},
#endif
};

enum Phase { WarmUp, Record, Stop };

struct Spent {
    double microseconds = 0;
    double switches = 0;
};

Spent spent()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto us = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec);
    };
    return {us(usage.ru_utime) + us(usage.ru_stime), static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw)};
}

/// One thread's calls until the phase is Stop; returns how long each of the recorded ones took, in microseconds.
std::vector<float> callUntilStopped(const std::function<void()>& call, const std::atomic<Phase>& phase)
{
    std::vector<float> latencies;
    latencies.reserve(1 << 20);
    for (Clock::time_point begin = Clock::now(); phase != Stop;) {
        call();
        const Clock::time_point end = Clock::now();
        if (phase == Record)
            latencies.push_back(std::chrono::duration<float, std::micro>(end - begin).count());
        begin = end;
    }
    return latencies;
}

void measure(Contender& contender, unsigned threads, std::chrono::milliseconds time)
{
    std::atomic<Phase> phase{WarmUp};
    std::vector<std::vector<float>> latencies(threads);
    std::vector<std::thread> callers;
    callers.reserve(threads);
    std::latch ready(threads);
    for (std::vector<float>& own : latencies)
        callers.emplace_back([&] {
            const std::function<void()> call = contender.newCall();
            ready.count_down();
            own = callUntilStopped(call, phase);
        });
    ready.wait();
    std::this_thread::sleep_for(time / 4 + std::chrono::milliseconds(20));

    const Spent before = spent();
    const Clock::time_point begin = Clock::now();
    phase = Record;
    std::this_thread::sleep_for(time);
    phase = Stop;
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    const Spent after = spent();

    std::vector<float> all;
    for (unsigned i = 0; i < threads; ++i) {
        callers[i].join();
        all.insert(all.end(), latencies[i].begin(), latencies[i].end());
    }
    require(!all.empty(), "not one request was answered");
    std::sort(all.begin(), all.end());
    const auto requests = static_cast<double>(all.size());
    printf("%.0f %.2f %.2f %.2f %.2f\n", requests / seconds, static_cast<double>(all[all.size() / 2]),
           static_cast<double>(all[all.size() * 99 / 100]), (after.microseconds - before.microseconds) / requests,
           (after.switches - before.switches) / requests);
}

void run(const std::string& name, std::map<std::string, std::string> options)
{
    const auto number = [&](const char* pOption) { return std::strtoul(options[pOption].c_str(), nullptr, 10); };
    const Load load{options["operation"] == "set",
                    number("bytes"),
                    options["address"],
                    number("shared") != 0,
                    number("keys"),
                    number("values"),
                    number("parked")};
    if (const auto action = Actions.find(name); action != Actions.end())
        return action->second(load);
    const auto contender = Contenders.find(name);
    require(contender != Contenders.end(), "no such contender in this build");
    const std::unique_ptr<Contender> pContender = contender->second(load);
    if (number("requests") != 0) {
        const std::function<void()> call = pContender->newCall();
        for (unsigned long i = number("requests"); i != 0; --i)
            call();
    } else {
        measure(*pContender, static_cast<unsigned>(number("threads")), std::chrono::milliseconds(number("ms")));
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::map<std::string, std::string> options = {{"threads", "1"},  {"ms", "200"},    {"bytes", "16"},
                                                  {"requests", "0"}, {"shared", "0"},  {"operation", "query"},
                                                  {"keys", "10000"}, {"values", "10"}, {"parked", "0"}};
    for (int i = 2; i < argc; ++i) {
        const std::string option = argv[i];
        options[option.substr(0, option.find('='))] = option.substr(option.find('=') + 1);
    }
    try {
        run(argc > 1 ? argv[1] : "", options);
    } catch (const std::exception& error) {
        fprintf(stderr, "bench: %s\n", error.what());
        return 1;
    }
    fflush(stdout);
    _exit(0); // with a contender's threads still at work
}
