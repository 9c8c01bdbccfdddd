// Many requests at once, because each waits for its own answer: the same call for each of a range of numbers.
#ifndef OBREG_TOOL_PARALLEL_H
#define OBREG_TOOL_PARALLEL_H

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace obregtool {

/// How many requests are in flight at once. Writes in flight together share one commit of the daemon.
inline constexpr size_t RequestThreads = 32;

/// Calls work(i) for each i below count, on several threads when there are many, in no certain order: fewer than
/// `fewEach` calls are not worth one. The first exception stops it and comes out here, after all threads have ended.
template <class Work>
void forEachParallel(size_t count, const Work& work, size_t fewEach = 16)
{
    std::atomic<size_t> next{0};
    std::exception_ptr pFirst; // guarded by mutex
    std::mutex mutex;
    const auto run = [&] {
        try {
            for (size_t i; (i = next++) < count;)
                work(i);
        } catch (...) {
            const std::lock_guard lock(mutex);
            next = count;
            if (!pFirst)
                pFirst = std::current_exception();
        }
    };
    std::vector<std::thread> threads;
    try {
        for (size_t i = 0; i < std::min(RequestThreads, count / fewEach); ++i)
            threads.emplace_back(run);
    } catch (const std::system_error&) { // fewer do it as well
    }
    run();
    for (std::thread& thread : threads)
        thread.join();
    if (pFirst)
        std::rethrow_exception(pFirst);
}

} // namespace obregtool

#endif
