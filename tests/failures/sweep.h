// Makes the first, second, third ... call of one kind fail in each of some operations, once and from there on, over a
// connection that is there and over one that is yet to be made, until the operation meets no failure any more.
#ifndef OBREG_TESTS_SWEEP_H
#define OBREG_TESTS_SWEEP_H

#include <cstdio>
#include <iterator>

#include <gtest/gtest.h>

#include "failures/fail_nth.h"

namespace failnth {

/// How a failure that happens once is taken; one that lasts may fail any operation, unless it is harmless.
enum class Effect { MayFail, Unnoticed, Harmless };

/// A row of a sweep's table.
struct Failure {
    const char* pName;
    Call call;
    int how;
    Victims victims;
    Effect effect;
    unsigned lasts = FromThereOn;  ///< calls in a row, when it lasts
    unsigned stride = FromThereOn; ///< goes on with every call up to this one, then leaves out more and more
};

/// One of the runs of a sweep.
struct Attempt {
    const Failure& failure;
    bool connected;
    bool lasting;
    unsigned first;

    void arm() const { failnth::arm({failure.call, failure.how, failure.victims, first, lasting ? failure.lasts : 1}); }

    /// Ends the plan. Whether the failure took place.
    bool disarm() const { return failnth::disarm() >= first; }

    /// Whether the operation may fail, given that the failure took place.
    bool mayFail() const
    {
        return failure.effect == Effect::MayFail || (failure.effect == Effect::Unnoticed && lasting);
    }
};

/// Sweeps the operations, which have a pName each: run(operation, attempt) makes one attempt, checks all that must
/// hold, and tells whether the failure took place. Returns how often it did; ends early when something does not hold.
template <class Operations, class Run>
unsigned sweep(const Failure& failure, const Operations& operations, Run run)
{
    SCOPED_TRACE(failure.pName);
    unsigned points = 0;
    for (const auto& operation : operations)
        for (const bool connected : {true, false})
            for (const bool lasting : {false, true})
                for (Attempt attempt{failure, connected, lasting, 1};;
                     attempt.first += 1 + attempt.first / failure.stride, ++points) {
                    const bool reached = run(operation, attempt);
                    EXPECT_LT(attempt.first, 20000u) << "no end";
                    if (testing::Test::HasFailure()) {
                        ADD_FAILURE() << operation.pName << (connected ? ", connected" : ", not connected")
                                      << (lasting ? ", from number " : ", number ") << attempt.first;
                        return points;
                    }
                    if (!reached)
                        break;
                }
    EXPECT_GE(points, 1u) << "the sweep met no call to make fail";
    std::printf("%s: failed at %u points\n", failure.pName, points);
    return points;
}

} // namespace failnth

#endif
