// Makes the n-th call of one kind fail, on the threads that are to suffer; counts calls and live blocks meanwhile.
//
// A program that links this has its allocations (operator new) taken over, and the C functions that its link names with
// --wrap (CMakeLists.txt). One plan is armed at a time. The victims are told apart by the thread that calls arm():
// either that one, or all the others. Nothing fails, and nothing costs, while no plan is armed.
#ifndef OBREG_TESTS_FAIL_NTH_H
#define OBREG_TESTS_FAIL_NTH_H

#include <climits>

namespace failnth {

enum class Call {
    Allocation, // operator new; malloc, realloc and the like of our own objects
    Socket,
    Connect,
    Accept,
    Fcntl,
    ThreadCreate,
    MutexInit,
    CondInit,
    Send,    // send, sendmsg
    Receive, // recv, recvmsg
    Poll,    // epoll_ctl, to add a descriptor
    SocketOption,
    StoreRead,  // pread, open and the like of the store: takeOverStore()
    StoreWrite, // pwrite, fsync, ftruncate
};

/// What a call does instead of failing with an errno.
inline constexpr int Short = -1; // moves one byte only
inline constexpr int Ended = -2; // a receive finds the stream's end

enum class Victims { ThisThread, OtherThreads };

struct Plan {
    Call call;
    int how = 0; // an errno, or one of the above
    Victims victims = Victims::ThisThread;
    unsigned first = 1; // the first call that fails, from 1
    unsigned times = 1; // as many in a row
};

inline constexpr unsigned FromThereOn = UINT_MAX;

void arm(const Plan& plan);

/// Ends the plan. Returns how many calls of its kind its victims have made.
unsigned disarm();

/// Whether the victims' next call is to fail, and how; for calls that are taken over elsewhere. 0: not.
int next(Call call);

/// Blocks from operator new that have not been given back, in the whole program.
long liveBlocks();

} // namespace failnth

#endif
