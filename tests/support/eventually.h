#ifndef OBREG_TESTS_EVENTUALLY_H
#define OBREG_TESTS_EVENTUALLY_H

#include <chrono>
#include <thread>

/// Waits until a condition holds, for a while that is long on any machine. Returns whether it did.
template <class Condition>
bool eventually(Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

#endif
