// One outstanding request: where the thread that waits for a reply meets the channel's reader thread.
//
// The submitting thread makes it in its own frame, enters it in the channel's map (CChannel::submitReq), waits, takes
// it out of the map (removeReq) and only then destroys it. The reader completes it, with a reply or as failed, while it
// holds the channel lock and has just found it in the map: so it never touches a destroyed one.
//
// m_mutex guards the fields. Lock order: channel lock, then m_mutex; waitForCompletion takes m_mutex alone.
#ifndef OBREG_CLIENT_CLIENTREQ_H
#define OBREG_CLIENT_CLIENTREQ_H

#include <pthread.h>

#include "common/ipcint.h"

/// Live pending requests, for inspection.
extern uint32_t numClientReqObjects;

class ClientReq {
public:
    /// Throws std::bad_alloc when mutex or condition variable cannot be initialised.
    explicit ClientReq(uint32_t reqId);

    /// Frees a reply that was delivered but not handed over.
    ~ClientReq();

    ClientReq(const ClientReq&) = delete;
    ClientReq& operator=(const ClientReq&) = delete;

    /// Reader: completes the request with a reply and takes the array over. A reply that is held already is freed.
    void processServerData(char* pServerData, int serverDataLength);

    /// Reader: completes the request as failed; a reply that is held already will not be handed over.
    void processError();

    /// Submitter, once, after a successful submitReq: blocks until the request is completed; there is no time-out.
    /// Returns 0 and hands the reply over (the caller releases it with delete[]), or -1 and writes nothing.
    int waitForCompletion(char** ppResponseData, int* pResponseDataLength);

private:
    void wakeSubmitter();

    [[maybe_unused]] uint32_t m_reqId; // for whoever looks at a core dump
    char* m_pServerData = nullptr;
    int m_serverDataLen = 0;
    bool m_submitThreadActive = true; // false while the submitter is blocked: only then is it signalled, and once
    bool m_completed = false;
    bool m_internalProblem = false;
    pthread_mutex_t m_mutex;
    pthread_cond_t m_condition;
};

#endif
