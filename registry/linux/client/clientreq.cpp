#include "client/clientreq.h"

#include <new>

#include "platform.h"

uint32_t numClientReqObjects = 0;

namespace {

Conditions conditions;

} // namespace

ClientReq::ClientReq(uint32_t reqId) : m_reqId(reqId)
{
    IPC_TRACE("ClientReq::ClientReq- Start, Obj = %08X\n", logAddress(this));
    if (pthread_mutex_init(&m_mutex, nullptr) != 0) {
        IPC_ERROR("ClientReq::ClientReq- Mutex initialization failed\n");
        throw std::bad_alloc();
    }
    m_pCondition = conditions.borrow();
    if (m_pCondition == nullptr) {
        m_pCondition = &m_ownCondition;
        m_ownCondition.initialised = false;
    }
    if (!m_pCondition->initialise()) {
        IPC_ERROR("ClientReq::ClientReq- Condition initialization failed\n");
        releaseCondition();
        pthread_mutex_destroy(&m_mutex);
        throw std::bad_alloc();
    }
    InterlockedIncrement(&numClientReqObjects);
    IPC_TRACE("ClientReq::ClientReq- End\n");
}

ClientReq::~ClientReq()
{
    IPC_TRACE("ClientReq::~ClientReq- Start, Obj = %08X\n", logAddress(this));
    pthread_mutex_destroy(&m_mutex);
    releaseCondition();
    delete[] m_pServerData;
    InterlockedDecrement(&numClientReqObjects);
    IPC_TRACE("ClientReq::~ClientReq- End\n");
}

void ClientReq::releaseCondition()
{
    if (m_pCondition != &m_ownCondition)
        conditions.giveBack(m_pCondition);
    else if (m_ownCondition.initialised)
        pthread_cond_destroy(&m_ownCondition.variable);
}

void ClientReq::renewConditions() { conditions.renew(); }

/// Marks the request completed, when the outcome is in place; m_mutex is held.
WakeUp ClientReq::complete()
{
    m_completed.store(true, std::memory_order_release);
    if (std::exchange(m_submitThreadActive, true))
        return {};
    if (m_pCondition != &m_ownCondition)
        return WakeUp(*m_pCondition);
    pthread_cond_signal(&m_ownCondition.variable);
    return {};
}

WakeUp ClientReq::processServerData(char* pServerData, int serverDataLength)
{
    IPC_TRACE("ClientReq::processServerData- Start, Obj = %08X\n", logAddress(this));
    WakeUp wakeUp;
    {
        const MutexLock lock(m_mutex);
        delete[] m_pServerData;
        m_pServerData = pServerData;
        m_serverDataLen = serverDataLength;
        wakeUp = complete();
    }
    IPC_TRACE("ClientReq::processServerData- End\n");
    return wakeUp;
}

WakeUp ClientReq::processError()
{
    IPC_TRACE("ClientReq::processError- Start, Obj = %08X\n", logAddress(this));
    WakeUp wakeUp;
    {
        const MutexLock lock(m_mutex);
        m_internalProblem = true;
        wakeUp = complete();
    }
    IPC_TRACE("ClientReq::processError- End\n");
    return wakeUp;
}

int ClientReq::waitForCompletion(char** ppResponseData, int* pResponseDataLength)
{
    IPC_TRACE("ClientReq::waitForCompletion- Start, Obj = %08X\n", logAddress(this));
    const NoCancellation noCancellation;
    int retStatus = -1;
    {
        const MutexLock lock(m_mutex);
        while (!completed()) {
            m_submitThreadActive = false;
            pthread_cond_wait(&m_pCondition->variable, &m_mutex);
        }
        // Taken while the lock is held: a late second delivery replaces the buffer.
        if (!m_internalProblem) {
            *ppResponseData = m_pServerData;
            *pResponseDataLength = m_serverDataLen;
            m_pServerData = nullptr;
            retStatus = 0;
        }
    }
    IPC_TRACE("ClientReq::waitForCompletion- End, retStatus = %08X\n", static_cast<unsigned>(retStatus));
    return retStatus;
}
