// The connection to the daemon: one stream socket, one reader thread, and the map of requests that wait for replies.
//
// A channel is made, connected once (init), used while ok() says so, closed and never repaired: whoever finds it broken
// makes another. It is counted (ObjRef); its references belong to the process-wide holder, to every exchange in flight
// and to its reader thread, and the last to let go destroys it, be it the reader.
//
// THE CHANNEL LOCK, m_mutex, guards m_state, m_socket and m_rcMap, and is held
//   - by submitReq from its state check to the last byte sent: sends never interleave on the stream, and no reply can
//     be delivered before its request is out. A send that the daemon does not take therefore holds up everything else;
//   - by removeReq;
//   - by the reader around each map look-up with its hand-over, and around its exit sweep. So the reader touches a
//     pending request only while it is in the map, and a submitter that has removed its own may destroy it. Only the
//     wake-up of a submitter that sleeps comes after the lock, and touches nothing of the request (clientreq.h);
//   - by closeChannel.
// It is held shortly but taken three times for every request. So who finds it taken tries a few times more before he
// sleeps, as long as that succeeds (worthtrying.h).
// Order of locks: clientMutex (client.h), then a channel's m_mutex, then a request's m_mutex. Nothing takes them the
// other way round: who waits for a reply holds neither of the first two.
//
// WATCHING: a submitter whose request is the only one pending stays awake for a moment after sending (watch), because a
// sleep and a wake-up take longer than a quick daemon. It looks at one atomic flag of its own request and holds no
// lock. When the reply comes later than that, or on a machine with one processor to share, it stops trying.
//
// READ WITHOUT THE LOCK: m_state, by ok() and by the reader when it begins, and whether the newest pending request is
// alone, by who watches. All need only an answer that was true a moment ago; both are atomics so that the answer is a
// whole one.
//
// TWO DESCRIPTORS of the one socket. m_socket is the one that is sent on, and shut down and closed under the lock. The
// reader cannot use it: between reading the number and entering recv, another thread may close it and the application
// get the same number for a file of its own. The reader receives on a duplicate, m_recvSocket, which lives as long as
// the channel. Since that number cannot belong to anybody else meanwhile, closeChannel can also shut it down without
// the lock, when the lock is held by a send that the daemon does not take. Both are close-on-exec, and neither is ever
// one of 0 to 2, not even in a program that was started without these: it would print to the daemon.
//
// THE READER is born with every signal blocked: a signal would cut a MSG_WAITALL receive short, and the application's
// handlers do not belong on this thread. It is detached; LiveChannels knows how to wait for its end.
//
// FORK: a child has the channel but not its reader, and perhaps a lock that nobody will release and a map cut in the
// middle of a change. abandonInForkChild makes it safe to close and keeps it from ever being destroyed there.
#ifndef OBREG_CLIENT_CCHANNEL_H
#define OBREG_CLIENT_CCHANNEL_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/types.h>
#include <sys/un.h>

#include "client/guards.h"
#include "client/livechannels.h"
#include "client/pendingreqs.h"
#include "common/ipcint.h"
#include "common/smartptr.h"

class ClientReq;

/// Live channels, for inspection.
extern uint32_t numCChannelObjects;

enum ChannelStates : int32_t {
    State_Uninitialized = 1,
    State_FailedInitialization = 2,
    State_Connected = 3,    // the only one in which requests are accepted
    State_Disconnected = 4, // a send failed or the reader ended
    State_Closed = 5,       // closeChannel was called
};

class CChannel : public ObjRef {
public:
    /// An unconnected channel to a copy of the address. Throw std::bad_alloc when the lock cannot be made or memory is
    /// out.
    explicit CChannel(const sockaddr_un* pRemoteAddress);
    explicit CChannel(const sockaddr_in* pRemoteAddress);

    /// Closes what is still open. Pending requests are their submitters'.
    ~CChannel();

    CChannel(const CChannel&) = delete;
    CChannel& operator=(const CChannel&) = delete;

    /// Connects and starts the reader. Returns 0, or -1 with the cause in the log. Once, by the creator, who must hold
    /// a counted reference: the reader may end, and let go of its own, before this returns.
    int init();

    /// True while requests are accepted; may be overtaken at once.
    bool ok() const;

    /// Shuts the connection down for good. Pending requests fail; does not wait for the reader. Any thread.
    void closeChannel();

    /// A fresh request id: 2, 3, 4 and so on, modulo 2^32. Any thread.
    uint32_t allocReqId();

    /// Enters a request in the map and sends it. Returns 0 when it was entered: waitForCompletion then tells the
    /// outcome, a failed send included. -1 when it was not entered and nothing was sent: the channel is not connected
    /// or the id is in use. Throws std::bad_alloc, with nothing entered. The payload stays the caller's. Any thread.
    int submitReq(uint32_t reqId, ClientReq& clientReq, char* pClientData, int clientDataLen);

    /// Between submitReq and waitForCompletion: looks out for the reply for a moment, without a lock and awake, as long
    /// as no other request is pending and it has paid lately. Any thread.
    void watch(const ClientReq& clientReq);

    /// Takes a request out of the map. To be called after every submitReq, before the request is destroyed. Any thread.
    void removeReq(uint32_t reqId);

    /// In a fork child, which has one thread: frees the lock whoever held it, closes the descriptors without a shutdown
    /// that the parent would notice (except that a published channel keeps m_socket for the closeChannel that follows),
    /// and takes a reference that nobody releases.
    void abandonInForkChild(bool published);

private:
    void openSocket();
    int connectSocket();
    int startReader();
    int failInit();

    int sendPacket(char* pHeader, char* pPayload, size_t payloadLength);
    void tearDownSocket();

    static void* connectionThread(void* pReaderReference);
    void receivePackets();
    bool receiveData(uint32_t reqId, int payloadLength);
    ssize_t receive(char* pBuff, size_t length) const;
    ClientReq* findReq(uint32_t reqId) const;
    void failPendingReqs();

    std::atomic<ChannelStates> m_state{State_Uninitialized};
    Descriptor m_socket;
    sockaddr_in m_remoteAddrIn{};
    sockaddr_un m_remoteAddrUn{};
    bool m_useTcpSocket;
    uint32_t m_reqIdAllocator = 1;
    pthread_mutex_t m_mutex;
    PendingReqs m_rcMap;
    WorthTrying m_worthSpinning; // for m_mutex
    WorthTrying m_worthWatching; // for replies

    Descriptor m_recvSocket; // set by init before there is a reader, closed by the destructor
    LiveChannels::Registration m_registration{this};
};

using SmartCChannel = SmartPtr<CChannel>;

#endif
