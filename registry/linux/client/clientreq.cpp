#include "client/clientreq.h"

#include <ctime>
#include <new>
#include <sched.h>

#include "platform.h"

uint32_t numClientReqObjects = 0;

namespace {
constexpr int MaxYields = 100;
}

ClientReq::ClientReq(uint32_t reqId) : m_reqId(reqId)
{
    IPC_TRACE("ClientReq::ClientReq- Start, Obj = %08X\n", logAddress(this));
    if (pthread_mutex_init(&m_mutex, nullptr) != 0) {
        IPC_ERROR("ClientReq::ClientReq- Mutex initialization failed\n");
        throw std::bad_alloc();
    }
    if (pthread_cond_init(&m_condition, nullptr) != 0) {
        IPC_ERROR("ClientReq::ClientReq- Condition initialization failed\n");
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
    pthread_cond_destroy(&m_condition);
    delete[] m_pServerData;
    InterlockedDecrement(&numClientReqObjects);
    IPC_TRACE("ClientReq::~ClientReq- End\n");
}

/// Lets `store` put the outcome in place, marks the request completed and wakes its submitter if that sleeps.
template <class Store>
void ClientReq::complete(Store store, MutexLock* pChannelLock)
{
    bool asleep = false;
    {
        const MutexLock lock(m_mutex);
        store();
        asleep = !m_submitThreadActive;
        m_submitThreadActive = true;
        m_completed.store(true, std::memory_order_release);
    }
    if (!asleep)
        return;
    // A submitter that sleeps keeps the request until it is woken; what it does next needs the channel lock.
    if (pChannelLock != nullptr)
        pChannelLock->unlock();
    pthread_cond_signal(&m_condition);
    m_woken.store(true, std::memory_order_release); // the reader's last touch
}

void ClientReq::processServerData(char* pServerData, int serverDataLength, MutexLock* pChannelLock)
{
    IPC_TRACE("ClientReq::processServerData- Start, Obj = %08X\n", logAddress(this));
    const auto store = [&] {
        delete[] m_pServerData;
        m_pServerData = pServerData;
        m_serverDataLen = serverDataLength;
    };
    complete(store, pChannelLock);
    IPC_TRACE("ClientReq::processServerData- End\n");
}

void ClientReq::processError(MutexLock* pChannelLock)
{
    IPC_TRACE("ClientReq::processError- Start, Obj = %08X\n", logAddress(this));
    complete([&] { m_internalProblem = true; }, pChannelLock);
    IPC_TRACE("ClientReq::processError- End\n");
}

/// Blocks until the request is completed, unless it is already.
void ClientReq::sleep()
{
    {
        const MutexLock lock(m_mutex);
        if (completed())
            return;
        m_submitThreadActive = false;
        while (!completed())
            pthread_cond_wait(&m_condition, &m_mutex);
    }
    // Often the woken thread runs in the reader's place, which is still in the call that signals.
    for (int i = 0; !m_woken.load(std::memory_order_acquire); ++i) {
        const timespec moment = {0, 50000};
        if (i < MaxYields)
            sched_yield();
        else // the reader may never run while a thread of higher priority yields
            nanosleep(&moment, nullptr);
    }
}

int ClientReq::waitForCompletion(char** ppResponseData, int* pResponseDataLength)
{
    IPC_TRACE("ClientReq::waitForCompletion- Start, Obj = %08X\n", logAddress(this));
    const NoCancellation noCancellation;
    if (!completed())
        sleep();
    int retStatus = -1;
    {
        const MutexLock lock(m_mutex);
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
