// The library when something below it fails: each of the ten functions against a running daemon, with the first,
// second, third ... allocation or system call of it failing, once and from there on, in the caller's thread and in the
// reader's, over a connection that is there and over one that is yet to be made.
//
// Whatever failed, the call ends with a status or std::bad_alloc, writes no result unless it succeeded, gives every
// block and descriptor back, holds no lock, and the next call works. What is only a lost connection, an interruption or
// a short transfer, the caller does not even notice.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/client.h"
#include "client/clientreq.h"
#include "client/livechannels.h"
#include "failures/sweep.h"
#include "obreg/registry.hpp"
#include "support/entries_of.h"
#include "support/running_daemon.h"
#include "support/ten_calls.h"

using failnth::Attempt;
using failnth::Call;
using failnth::Effect;
using failnth::Victims;
using namespace TenCalls;

namespace {

const failnth::Failure failures[] = {
    {"an allocation", Call::Allocation, ENOMEM, Victims::ThisThread, Effect::MayFail},
    {"an allocation of the reader", Call::Allocation, ENOMEM, Victims::OtherThreads, Effect::Unnoticed},
    {"socket", Call::Socket, EMFILE, Victims::ThisThread, Effect::MayFail},
    {"connect", Call::Connect, ECONNREFUSED, Victims::ThisThread, Effect::MayFail},
    {"connect interrupted", Call::Connect, EINTR, Victims::ThisThread, Effect::Harmless, 3},
    {"fcntl", Call::Fcntl, EMFILE, Victims::ThisThread, Effect::MayFail},
    {"pthread_create", Call::ThreadCreate, EAGAIN, Victims::ThisThread, Effect::MayFail},
    {"pthread_mutex_init", Call::MutexInit, ENOMEM, Victims::ThisThread, Effect::MayFail},
    {"pthread_cond_init", Call::CondInit, ENOMEM, Victims::ThisThread, Effect::MayFail},
    {"a send", Call::Send, EPIPE, Victims::ThisThread, Effect::Unnoticed},
    {"a send interrupted", Call::Send, EINTR, Victims::ThisThread, Effect::Harmless, 3},
    {"a send of one byte", Call::Send, failnth::Short, Victims::ThisThread, Effect::Harmless},
    {"a receive", Call::Receive, ECONNRESET, Victims::OtherThreads, Effect::Unnoticed},
    {"a receive at the end", Call::Receive, failnth::Ended, Victims::OtherThreads, Effect::Unnoticed},
    {"a receive interrupted", Call::Receive, EINTR, Victims::OtherThreads, Effect::Harmless, 3},
    {"a receive of one byte", Call::Receive, failnth::Short, Victims::OtherThreads, Effect::Harmless},
};

constexpr REGSTATUS LeftByException = 0xFFFFFFFF;

class LibraryFailures : public testing::Test {
protected:
    LibraryFailures()
    {
        make(Name);
        disconnect();
        close(STDIN_FILENO); // a socket in its place has to be moved, which may fail as well
    }
    ~LibraryFailures() override { disconnect(); }

    /// A key and a value of that name.
    void make(const char* pName) const
    {
        obreg::Key::create(m_key, pName);
        m_key.set(pName, std::string(63, 'd'));
    }

    static void disconnect()
    {
        IpcShutdown();
        LiveChannels::awaitReaders(std::chrono::seconds(5));
        ClientReq::renewConditions(); // so that the next call initialises one
    }

    bool run(const Function& function, const Attempt& attempt) const;

    FreshDaemon m_daemon;
    const obreg::Key m_key = obreg::Key::create(obreg::localMachine(), "Failures");
};

/// One call of the function with one failure planned. Returns whether the failure took place.
bool LibraryFailures::run(const Function& function, const Attempt& attempt) const
{
    const size_t descriptors = entriesOf("/proc/self/fd");
    const long blocks = failnth::liveBlocks();
    make(Doomed);
    if (!attempt.connected)
        disconnect();
    Results results;
    REGSTATUS status = LeftByException;
    attempt.arm();
    try {
        status = function.call(m_key.handle(), results);
    } catch (const std::bad_alloc&) {
    }
    const bool reached = attempt.disarm();

    const bool deletes =
        std::strncmp(function.pName, "OBRegDelete", 11) == 0; // and may have done so before, unanswered
    const bool succeeded = status == 0 || (status == OBREG_STATUS_NOT_FOUND && deletes && reached);
    const bool failed = status == OBREG_STATUS_REQUEST_FAILED ||
                        (status == LeftByException && attempt.failure.call == Call::Allocation);
    EXPECT_TRUE(succeeded || (failed && reached && attempt.mayFail())) << std::hex << status;
    EXPECT_TRUE(succeeded || TenCalls::same(results, Results())) << "results were written";
    EXPECT_EQ(OBRegCloseKey(m_key.handle()), 0u) << "the next call";

    disconnect();
    EXPECT_EQ(failnth::liveBlocks(), blocks);
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    EXPECT_EQ(__atomic_load_n(&numCChannelObjects, __ATOMIC_SEQ_CST), 0u);
    EXPECT_EQ(__atomic_load_n(&numClientReqObjects, __ATOMIC_SEQ_CST), 0u);
    return reached;
}

TEST_F(LibraryFailures, AtEveryPoint)
{
    unsigned points = 0;
    for (const failnth::Failure& failure : failures) {
        const unsigned met = failnth::sweep(failure, TenCalls::all, [this](auto&... what) { return run(what...); });
        EXPECT_GE(met, std::size(TenCalls::all)) << failure.pName << ": met less often than there are functions";
        points += met;
        if (HasFailure())
            break;
    }
    std::printf("FIGURE library: %zu kinds of failure, at %u points of the ten functions\n", std::size(failures),
                points);
}

} // namespace
