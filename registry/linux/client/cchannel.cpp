#include "client/cchannel.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <new>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "client/clientreq.h"
#include "common/channelproto.h"

uint32_t numCChannelObjects = 0;

namespace {

/// How long a submitter watches for its reply before it sleeps. Without watching, a round trip takes 1.9 times as long
/// on two free processors; with 10 us it is the same as without, with 200 us no shorter than with 50.
constexpr std::chrono::microseconds MaxWatch{50};

constexpr int FirstOwnDescriptor = STDERR_FILENO + 1;

void initChannelLock(pthread_mutex_t& mutex)
{
    if (pthread_mutex_init(&mutex, nullptr) != 0) {
        IPC_ERROR("CChannel::CChannel- Mutex initialization failed\n");
        throw std::bad_alloc();
    }
}

/// The descriptor, or another one in its place, closed on exec, when it is one of 0 to 2: the program that was started
/// without these prints there. None, with errno, when there is none to be had.
Descriptor aboveStandardStreams(Descriptor descriptor)
{
    if (!descriptor || descriptor.get() >= FirstOwnDescriptor)
        return descriptor;
    return Descriptor(fcntl(descriptor.get(), F_DUPFD_CLOEXEC, FirstOwnDescriptor));
}

} // namespace

CChannel::CChannel(const sockaddr_un* pRemoteAddress) : m_useTcpSocket(false)
{
    IPC_TRACE("CChannel::CChannel(DomainSocket)- Start, Obj = %08X\n", logAddress(this));
    m_remoteAddrUn = *pRemoteAddress;
    initChannelLock(m_mutex);
    InterlockedIncrement(&numCChannelObjects);
    IPC_TRACE("CChannel::CChannel(DomainSocket)- End\n");
}

CChannel::CChannel(const sockaddr_in* pRemoteAddress) : m_useTcpSocket(true)
{
    IPC_TRACE("CChannel::CChannel(TcpSocket)- Start, Obj = %08X\n", logAddress(this));
    m_remoteAddrIn = *pRemoteAddress;
    initChannelLock(m_mutex);
    InterlockedIncrement(&numCChannelObjects);
    IPC_TRACE("CChannel::CChannel(TcpSocket)- End\n");
}

CChannel::~CChannel()
{
    IPC_TRACE("CChannel::~CChannel- Start, Obj = %08X\n", logAddress(this));
    pthread_mutex_destroy(&m_mutex);
    tearDownSocket();
    m_recvSocket.reset();
    InterlockedDecrement(&numCChannelObjects);
    IPC_TRACE("CChannel::~CChannel- End\n");
}

void CChannel::openSocket()
{
    IPC_TRACE("CChannel::openSocket- Start\n");
    m_socket = aboveStandardStreams(
        Descriptor(m_useTcpSocket ? socket(AF_INET, SOCK_STREAM, IPPROTO_TCP) : socket(AF_UNIX, SOCK_STREAM, 0)));
    if (m_socket) {
        fcntl(m_socket.get(), F_SETFD, FD_CLOEXEC);
        m_recvSocket = Descriptor(fcntl(m_socket.get(), F_DUPFD_CLOEXEC, FirstOwnDescriptor));
    }
    const int error = errno;
    IPC_TRACE("CChannel::openSocket- End\n");
    errno = error;
}

int CChannel::connectSocket()
{
    IPC_TRACE("CChannel::connectSocket- Start\n");
    int status = 0;
    if (m_useTcpSocket) {
        sockaddr_in localAddr{};
        localAddr.sin_family = AF_INET;
        status = bind(m_socket.get(), reinterpret_cast<sockaddr*>(&localAddr), sizeof(localAddr));
        if (status != 0) {
            const int error = errno;
            IPC_ERROR("CChannel::connectSocket- Unable to bind socket, error = %d", error);
            IPC_TRACE("CChannel::connectSocket- End, status = %08X\n", static_cast<unsigned>(status));
            errno = error;
            return status;
        }
        status = connect(m_socket.get(), reinterpret_cast<sockaddr*>(&m_remoteAddrIn), sizeof(m_remoteAddrIn));
    } else {
        const size_t length =
            offsetof(sockaddr_un, sun_path) + strnlen(m_remoteAddrUn.sun_path, sizeof(m_remoteAddrUn.sun_path));
        do // a signal while the daemon's queue is full: nothing has begun, so it begins again
            status =
                connect(m_socket.get(), reinterpret_cast<sockaddr*>(&m_remoteAddrUn), static_cast<socklen_t>(length));
        while (status == -1 && errno == EINTR);
    }
    const int error = errno;
    if (status == -1)
        IPC_ERROR("CChannel::connectSocket- Connection creation failed, error = %d\n", error);
    IPC_TRACE("CChannel::connectSocket- End, status = %08X\n", static_cast<unsigned>(status));
    errno = error; // for the line that init logs about the same failure
    return status;
}

int CChannel::init()
{
    IPC_TRACE("CChannel::init- Start, Obj = %08X\n", logAddress(this));
    if (m_state != State_Uninitialized) {
        IPC_ERROR("CChannel::init- invalid state, state = %d\n", static_cast<int>(m_state.load()));
        return failInit();
    }
    openSocket();
    if (!m_socket || !m_recvSocket) {
        IPC_ERROR("CChannel::init- Unable to open socket, error = %d\n", errno);
        return failInit();
    }
    if (connectSocket() == -1) {
        IPC_ERROR("CChannel::init- Connection creation failed, error = %d\n", errno);
        return failInit();
    }
    m_state = State_Connected; // before there is a reader: it looks at once
    if (startReader() != 0)
        return failInit();
    IPC_TRACE("CChannel::init- End, status = %08X\n", 0u);
    return 0;
}

int CChannel::failInit()
{
    m_state = State_FailedInitialization;
    IPC_TRACE("CChannel::init- End, status = %08X\n", static_cast<unsigned>(-1));
    return -1;
}

/// Makes the reader thread and its reference to this channel. Returns 0 or -1.
int CChannel::startReader()
{
    std::unique_ptr<SmartCChannel> pReaderReference;
    try {
        pReaderReference = std::make_unique<SmartCChannel>(this);
    } catch (...) {
        IPC_ERROR("CChannel::init- Exception caught creating smart pointer\n");
        return -1;
    }

    sigset_t allSignals;
    sigset_t oldSignals;
    sigfillset(&allSignals);
    pthread_sigmask(SIG_SETMASK, &allSignals, &oldSignals);
    m_registration.readerStarts();
    pthread_t thread;
    const int threadCreateStatus = pthread_create(&thread, nullptr, connectionThread, pReaderReference.get());
    pthread_sigmask(SIG_SETMASK, &oldSignals, nullptr);
    if (threadCreateStatus != 0) {
        IPC_ERROR("CChannel::init- Unable to create channel connection thread, error = %08X\n",
                  static_cast<unsigned>(threadCreateStatus));
        m_registration.readerNotMade();
        // Gives the reader's reference back without destroying the channel, even where it was the only one.
        IncRefCount();
        pReaderReference.reset();
        DecRefCount();
        return -1;
    }
    static_cast<void>(pReaderReference.release()); // the reader's own
    return 0;
}

bool CChannel::ok() const
{
    IPC_TRACE("CChannel::ok- Start, Obj = %08X\n", logAddress(this));
    const bool connected = m_state == State_Connected;
    IPC_TRACE("CChannel::ok- End, retStatus = %08X\n", connected ? 1u : 0u);
    return connected;
}

/// The one teardown of m_socket. The number is out of the channel before it is given back.
void CChannel::tearDownSocket()
{
    const Descriptor oldSocket = std::move(m_socket);
    if (!oldSocket)
        return;
    shutdown(oldSocket.get(), SHUT_RDWR);
    const linger linger_opt = {1, 15};
    setsockopt(oldSocket.get(), SOL_SOCKET, SO_LINGER, &linger_opt, sizeof(linger_opt));
}

void CChannel::closeChannel()
{
    IPC_TRACE("CChannel::closeChannel- Start, Obj = %08X\n", logAddress(this));
    if (pthread_mutex_trylock(&m_mutex) != 0) {
        // Perhaps held by a send that the daemon does not take: it ends when the socket is shut down.
        shutdown(m_recvSocket.get(), SHUT_RDWR);
        pthread_mutex_lock(&m_mutex);
    }
    {
        const MutexLock lock(m_mutex, std::adopt_lock);
        m_state = State_Closed;
        tearDownSocket();
    }
    IPC_TRACE("CChannel::closeChannel- End\n");
}

void CChannel::abandonInForkChild(bool published)
{
    IncRefCount();
    pthread_mutex_init(&m_mutex, nullptr);
    m_recvSocket.reset();
    if (!published)
        m_socket.reset();
}

uint32_t CChannel::allocReqId()
{
    IPC_TRACE("CChannel::allocReqId- Start, Obj = %08X\n", logAddress(this));
    const uint32_t allocatedId = InterlockedIncrement(&m_reqIdAllocator);
    IPC_TRACE("CChannel::allocReqId- End, allocatedId = %08X\n", allocatedId);
    return allocatedId;
}

int CChannel::submitReq(uint32_t reqId, ClientReq& clientReq, char* pClientData, int clientDataLen)
{
    IPC_TRACE("CChannel::submitReq- Start, Obj = %08X\n", logAddress(this));
    MutexLock lock(m_mutex, m_worthSpinning);
    int retStatus = -1;
    char header[PktHdrLength];
    if (m_state != State_Connected) {
        IPC_TRACE("CChannel::submitReq- Channel not connected, state = %08X\n", static_cast<unsigned>(m_state.load()));
    } else if (!m_rcMap.insert(reqId, &clientReq)) {
        IPC_ERROR("CChannel::submitReq- Unable to insert ClientReq into ClientReqMap, Obj = %08X\n", logAddress(this));
    } else if (ChannelProto::buildReqDataPktHdr(reqId, clientDataLen, header) != 0) {
        IPC_ERROR("CChannel::submitReq- Error building Req Data Pkt Header, Obj = %08X\n", logAddress(this));
        if (!m_rcMap.erase(reqId))
            IPC_ERROR("CChannel::submitReq- Error, did not find object in map to remove\n");
    } else {
        retStatus = sendPacket(header, pClientData, static_cast<size_t>(clientDataLen));
    }
    lock.unlock();
    IPC_TRACE("CChannel::submitReq- End, retStatus = %08X\n", static_cast<unsigned>(retStatus));
    return retStatus;
}

/// Sends header and payload, in as many pieces as the socket wants; the channel lock is held. Returns 0 in any case:
/// when the connection breaks, the reader ends and fails the request.
int CChannel::sendPacket(char* pHeader, char* pPayload, size_t payloadLength)
{
    const size_t headerLength = PktHdrLength;
    size_t totalBytesSent = 0;
    while (totalBytesSent < headerLength + payloadLength) {
        iovec ioVectors[2];
        msghdr sendmsgHdr{};
        sendmsgHdr.msg_iov = ioVectors;
        if (totalBytesSent < headerLength) {
            ioVectors[0] = {pHeader + totalBytesSent, headerLength - totalBytesSent};
            ioVectors[1] = {pPayload, payloadLength};
            sendmsgHdr.msg_iovlen = 2;
        } else {
            const size_t payloadSent = totalBytesSent - headerLength;
            ioVectors[0] = {pPayload + payloadSent, payloadLength - payloadSent};
            sendmsgHdr.msg_iovlen = 1;
        }
        const ssize_t sent = sendmsg(m_socket.get(), &sendmsgHdr, MSG_NOSIGNAL);
        if (sent >= 0) {
            totalBytesSent += static_cast<size_t>(sent);
        } else if (errno != EINTR) {
            IPC_ERROR("CChannel::submitReq- sendmsg error, errno = %d\n", errno);
            m_state = State_Disconnected;
            tearDownSocket();
            return 0;
        }
    }
    return 0;
}

void CChannel::watch(const ClientReq& clientReq)
{
    using Clock = std::chrono::steady_clock;
    if (clientReq.completed() || !m_rcMap.newestIsAlone() || !m_worthWatching.now())
        return;
    const Clock::time_point end = Clock::now() + MaxWatch;
    do
        cpuPause();
    while (!clientReq.completed() && m_rcMap.newestIsAlone() && Clock::now() < end);
    m_worthWatching.result(clientReq.completed());
}

void CChannel::removeReq(uint32_t reqId)
{
    IPC_TRACE("CChannel::removeReq- Start, Obj = %08X\n", logAddress(this));
    {
        const MutexLock lock(m_mutex, m_worthSpinning);
        if (!m_rcMap.erase(reqId))
            IPC_ERROR("CChannel::removeReq- Error, did not find object in map\n");
    }
    IPC_TRACE("CChannel::removeReq- End\n");
}

void* CChannel::connectionThread(void* pReaderReference)
{
    std::unique_ptr<SmartCChannel> pReference(static_cast<SmartCChannel*>(pReaderReference));
    CChannel* const pChannel = *pReference;
    IPC_TRACE("CChannel::connectionThread- Start, Obj = %08X\n", logAddress(pChannel));
    pthread_detach(pthread_self());
    pthread_setname_np(pthread_self(), "obreg-reader");
    LiveChannels::Reader reader = pChannel->m_registration.readerRuns();
    if (pChannel->m_state == State_Connected)
        pChannel->receivePackets();
    pChannel->failPendingReqs();
    pReference.reset(); // perhaps the last one: the channel is not touched after this
    IPC_TRACE("CChannel::connectionThread- End\n");
    reader.ends();
    pthread_exit(nullptr); // no catch-all may stand around this: it unwinds
}

/// The receive loop; returns when the connection has ended or cannot be understood.
void CChannel::receivePackets()
{
    for (;;) {
        IPC_DETAIL("CChannel::connectionThread- Receive Loop, Obj = %08X\n", logAddress(this));
        char header[PktHdrLength];
        const ssize_t count = receive(header, sizeof(header));
        if (count == -1) {
            IPC_TRACE("CChannel::connectionThread- The channel connection was aborted, Obj = %08X\n", logAddress(this));
            return;
        }
        if (count != PktHdrLength) {
            IPC_TRACE("CChannel::connectionThread- The channel connection was terminated, Obj = %08X\n",
                      logAddress(this));
            return;
        }
        uint32_t reqId = 0;
        int payloadLength = 0;
        if (!ChannelProto::getReqIdAndPayloadLength(header, PktHdrLength, &reqId, &payloadLength)) {
            IPC_TRACE("CChannel::connectionThread- Unable to obtain payload length, Obj = %08X\n", logAddress(this));
            return;
        }
        switch (ChannelProto::getPktType(header[0])) {
        case ChannelProto::ReqDataCarrierPacketType:
            if (!receiveData(reqId, payloadLength))
                return;
            break;
        case ChannelProto::ReqErrorCarrierPacketType: {
            IPC_TRACE("CChannel::connectionThread- Processing Request Error Packet, Obj = %08X\n", logAddress(this));
            WakeUp wakeUp; // after the lock
            const MutexLock lock(m_mutex, m_worthSpinning);
            if (ClientReq* const pClientReq = findReq(reqId))
                wakeUp = pClientReq->processError();
            break;
        }
        default:
            IPC_ERROR("CChannel::connectionThread- Unknown Packet Type, Obj = %08X\n", logAddress(this));
            return;
        }
    }
}

/// Receives a data packet's payload and hands it to its request. False when the connection is of no more use.
bool CChannel::receiveData(uint32_t reqId, int payloadLength)
{
    IPC_DETAIL("CChannel::connectionThread- Processing Request Data Packet, Obj = %08X\n", logAddress(this));
    const bool bounded = payloadLength >= 0 && payloadLength <= MaxPayloadLength;
    const auto length = static_cast<size_t>(payloadLength);
    std::unique_ptr<char[]> pRecvBuff(bounded ? new (std::nothrow) char[length] : nullptr);
    if (!pRecvBuff) {
        IPC_ERROR("CChannel::connectionThread- Unable to allocate receive buffer, Obj = %08X\n", logAddress(this));
        return false;
    }
    // Asking for no bytes would not return at once: a receive that waits for all of nothing still waits for something.
    if (length != 0 && receive(pRecvBuff.get(), length) != payloadLength) {
        IPC_TRACE("CChannel::connectionThread- Connection aborted prematurely, Obj = %08X\n", logAddress(this));
        return false;
    }
    WakeUp wakeUp; // after the lock
    const MutexLock lock(m_mutex, m_worthSpinning);
    if (ClientReq* const pClientReq = findReq(reqId))
        wakeUp = pClientReq->processServerData(pRecvBuff.release(), payloadLength);
    return true;
}

/// recv of exactly `length` bytes: the count, short when the stream ends or fails in between, or -1. Not everything
/// that interrupts can be blocked (a stop and its continuation, a debugger, the C library's own signals), and it cuts a
/// receive short that has begun; what is missing still comes.
ssize_t CChannel::receive(char* pBuff, size_t length) const
{
    size_t received = 0;
    while (received < length) {
        const ssize_t count = recv(m_recvSocket.get(), pBuff + received, length - received, MSG_WAITALL);
        if (count > 0)
            received += static_cast<size_t>(count);
        else if (count == 0 || errno != EINTR)
            return count == 0 || received != 0 ? static_cast<ssize_t>(received) : -1;
    }
    return static_cast<ssize_t>(received);
}

/// The pending request of an id, or null with a line in the log; the channel lock is held.
ClientReq* CChannel::findReq(uint32_t reqId) const
{
    ClientReq* const pClientReq = m_rcMap.find(reqId);
    if (pClientReq == nullptr)
        IPC_ERROR("CChannel::connectionThread- Error, did not find object in map, Obj = %08X\n", logAddress(this));
    return pClientReq;
}

/// The reader's last work: nobody waits for a reply that cannot come any more. The entries are their submitters' to
/// remove.
void CChannel::failPendingReqs()
{
    const MutexLock lock(m_mutex);
    if (m_state == State_Connected)
        m_state = State_Disconnected;
    for (const PendingReqs::Entry& entry : m_rcMap)
        entry.pClientReq->processError();
}
