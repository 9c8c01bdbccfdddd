// One outstanding request: where the thread that waits for a reply meets the channel's reader thread.
//
// The submitting thread makes it in its own frame, enters it in the channel's map (CChannel::submitReq), waits, takes
// it out of the map (removeReq) and only then destroys it. The reader completes it, with a reply or as failed: it has
// just found it in the map and holds the channel lock, so it never touches a destroyed one.
//
// m_mutex guards the fields. Lock order: channel lock, then m_mutex; waitForCompletion takes m_mutex alone.
//
// THE WAKE-UP of a submitter that has declared itself blocked comes when the outcome is in place and both locks are
// given up (in the reader's exit sweep, m_mutex only): woken under either, it would run into that at once. By then the
// request may be gone; its condition variable is borrowed and stays (conditions.h). A request that found none to borrow
// has its own, which is signalled under both locks: without m_mutex, the submitter cannot leave.
#ifndef OBREG_CLIENT_CLIENTREQ_H
#define OBREG_CLIENT_CLIENTREQ_H

#include <atomic>
#include <pthread.h>
#include <utility>

#include "client/conditions.h"
#include "client/guards.h"
#include "common/ipcint.h"

/// Live pending requests, for inspection.
extern uint32_t numClientReqObjects;

/// Whom the reader has to wake, if anybody: it does so when this goes out of scope, after the locks.
class WakeUp {
public:
    WakeUp() = default;
    explicit WakeUp(Condition& condition) : m_pCondition(&condition) {}
    WakeUp(WakeUp&& other) noexcept : m_pCondition(std::exchange(other.m_pCondition, nullptr)) {}
    WakeUp& operator=(WakeUp&& other) noexcept
    {
        std::swap(m_pCondition, other.m_pCondition);
        return *this;
    }
    ~WakeUp()
    {
        if (m_pCondition != nullptr)
            pthread_cond_signal(&m_pCondition->variable);
    }

private:
    Condition* m_pCondition = nullptr;
};

class ClientReq {
public:
    /// Throws std::bad_alloc when mutex or condition variable cannot be initialised.
    explicit ClientReq(uint32_t reqId);

    /// Frees a reply that was delivered but not handed over.
    ~ClientReq();

    ClientReq(const ClientReq&) = delete;
    ClientReq& operator=(const ClientReq&) = delete;

    /// In a fork child, which has one thread: what the parent's threads sleep on is free for the child's.
    static void renewConditions();

    /// Reader: completes the request with a reply and takes the array over. A reply that is held already is freed.
    WakeUp processServerData(char* pServerData, int serverDataLength);

    /// Reader: completes the request as failed; a reply that is held already will not be handed over.
    WakeUp processError();

    /// Whether the request is completed. Any thread, without a lock.
    bool completed() const { return m_completed.load(std::memory_order_acquire); }

    /// Submitter, once, after a successful submitReq: blocks until the request is completed; there is no time-out.
    /// Returns 0 and hands the reply over (the caller releases it with delete[]), or -1 and writes nothing.
    int waitForCompletion(char** ppResponseData, int* pResponseDataLength);

private:
    void releaseCondition();
    WakeUp complete();

    [[maybe_unused]] uint32_t m_reqId; // for whoever looks at a core dump
    char* m_pServerData = nullptr;
    int m_serverDataLen = 0;
    bool m_submitThreadActive = true;     // false while the submitter is blocked: only then is it signalled, and once
    std::atomic<bool> m_completed{false}; // for completed(), which takes no lock
    bool m_internalProblem = false;
    pthread_mutex_t m_mutex;
    Condition* m_pCondition; // borrowed, or m_ownCondition
    Condition m_ownCondition;
};

#endif
