#include "client/client.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include <execinfo.h>

#include "client/clientreq.h"
#include "client/guards.h"
#include "client/patience.h"
#include "common/channelproto.h"
#include "common/msgproto.h"

int CDebugLevel = 0;
int CDebugDaemon = 0;
int MaxIpcSetupTime = 1;
SmartCChannel* g_pSmartCChannel = nullptr;
int ipcInitAttempts = 0;
int ipcInitSuccessfulAttempts = 0;
pthread_mutex_t clientMutex = PTHREAD_MUTEX_INITIALIZER;
bool registryEngineInitialized = false;
bool DoNotBypassRegDaemon = false;

namespace {

constexpr char DaemonSocketPath[] = "/var/opt/quorlin/ombrel/obregd/reg-socket";

/// The name under which a value without a name is stored and looked up.
constexpr char valueDefaultName[8] = "default";

constexpr timespec SetupRetryPause = {1, 0};
constexpr timespec RequestRetryPause = {0, 100000};
constexpr int MaxRetries = 2;

/// Patience of the destructor: for a thread that is just getting a channel, and for the readers' end.
constexpr std::chrono::milliseconds UnloadLockPatience{100};
constexpr std::chrono::milliseconds UnloadReaderPatience{5000};

/// Set by the destructor under clientMutex: threads that still run while the process exits get no new channel.
bool unloading = false;

// --- Load, unload, fork

/// The first pthread_exit of a process loads the unwinder, under the loader's lock. A thread that unloads this library
/// holds that lock while it waits for the reader's end, and one in a plug-in's constructor while it waits for
/// clientMutex: so the unwinder is loaded now, when the loader's lock is held anyway and no other.
void loadUnwinder()
{
    void* pFrame = nullptr;
    backtrace(&pFrame, 1);
}

__attribute__((constructor)) void so_init()
{
    const NoCancellation noCancellation;
    loadUnwinder();
    pthread_atfork(nullptr, nullptr, OBRegForkHandler);
    const char* const pSetupTime = std::getenv("OMBREL_MAX_REGIPC_SETUP_TIME");
    if (pSetupTime != nullptr && *pSetupTime != '\0')
        MaxIpcSetupTime = static_cast<int>(std::clamp<long>(std::strtol(pSetupTime, nullptr, 16), INT_MIN, INT_MAX));
    if (std::getenv("OMBREL_DO_NOT_BYPASS_REG_DAEMON") != nullptr)
        DoNotBypassRegDaemon = true;
}

/// Runs when the library is unloaded, with the loader's lock held, and when the process exits, perhaps with other
/// threads in the middle of a call. A thread in getCChannel is waited for a little; one that waits for a daemon to
/// appear has no channel that would need closing.
__attribute__((destructor)) void so_fini()
{
    const NoCancellation noCancellation;
    if (!await([] { return pthread_mutex_trylock(&clientMutex) == 0; }, UnloadLockPatience))
        return;
    {
        const MutexLock lock(clientMutex, std::adopt_lock);
        unloading = true;
        IpcShutdown();
    }
    LiveChannels::awaitReaders(UnloadReaderPatience);
}

} // namespace

void OBRegForkHandler()
{
    const NoCancellation noCancellation;
    LogTurn::afterFork();
    unloading = false;
    pthread_mutex_init(&clientMutex, nullptr);
    const CChannel* const pPublished = g_pSmartCChannel != nullptr ? g_pSmartCChannel->operator->() : nullptr;
    LiveChannels::forgetInForkChild(
        [pPublished](CChannel& channel) { channel.abandonInForkChild(&channel == pPublished); });
    ClientReq::renewConditions();
    IpcShutdown();
    ipcInitAttempts = 0;
    ipcInitSuccessfulAttempts = 0;
}

// --- The process channel

int IpcInit()
{
    const NoCancellation noCancellation;
    IPC_TRACE("OBReg -IpcInit- Start\n");
    ++ipcInitAttempts;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, DaemonSocketPath, sizeof(DaemonSocketPath));

    int status = -1;
    try {
        // The holder comes first: its reference keeps the channel while init runs, whatever the reader does.
        std::unique_ptr<SmartCChannel> pHolder(new SmartCChannel(new CChannel(&address)));
        if ((*pHolder)->init() == 0) {
            g_pSmartCChannel = pHolder.release();
            ++ipcInitSuccessfulAttempts;
            status = 0;
        }
    } catch (...) {
        IPC_ERROR("OBReg -IpcInit- Exception caught\n");
    }
    IPC_TRACE("OBReg -IpcInit- End, status = %#x\n", static_cast<unsigned>(status));
    return status;
}

void IpcShutdown()
{
    const NoCancellation noCancellation;
    IPC_TRACE("OBReg -IpcShutdown- Start\n");
    if (g_pSmartCChannel != nullptr) {
        const std::unique_ptr<SmartCChannel> pHolder(g_pSmartCChannel);
        (*pHolder)->closeChannel();
        g_pSmartCChannel = nullptr;
    }
    IPC_TRACE("OBReg -IpcShutdown- End\n");
}

namespace {

/// Sleeps for SetupRetryPause, going on once after an interruption.
void pauseBetweenSetups()
{
    timespec remaining{};
    if (nanosleep(&SetupRetryPause, &remaining) < 0)
        nanosleep(&remaining, nullptr);
}

/// Makes the process channel; clientMutex is held. The process's first set-up waits for the daemon, later ones do not.
bool connectProcessChannel()
{
    if (ipcInitAttempts != 0)
        return IpcInit() == 0;
    for (int i = 0; i < MaxIpcSetupTime; ++i) {
        if (IpcInit() == 0)
            return true;
        pauseBetweenSetups();
    }
    return false;
}

/// True when g_pSmartCChannel holds a usable channel, made or replaced if need be; clientMutex is held.
bool haveProcessChannel()
{
    if (__atomic_load_n(&registryEngineInitialized, __ATOMIC_RELAXED) || unloading)
        return false;
    if (g_pSmartCChannel != nullptr) {
        if ((*g_pSmartCChannel)->ok())
            return true;
        IpcShutdown();
    }
    return connectProcessChannel();
}

/// Takes a reference to the process channel, if one can be had, for a thread that is not cancelled already.
void takeProcessChannel(SmartCChannel& pChannel)
{
    IPC_TRACE("OBReg -getCChannel- Start\n");
    {
        const MutexLock lock(clientMutex);
        if (haveProcessChannel())
            pChannel = *g_pSmartCChannel;
    }
    IPC_TRACE("OBReg -getCChannel- End, Obj = %p\n", pChannel ? static_cast<void*>(&pChannel) : nullptr);
}

// --- The exchange

/// ReqReply for a thread that is not cancelled already.
int exchange(char* pClientData, int clientDataLen, char** ppServerData, int* pServerDataLen)
{
    IPC_TRACE("OBReg -ReqReply- Start\n");
    int retStatus = -1;
    bool okToRetry = clientDataLen <= MaxPayloadLength; // no daemon takes more: it would end the connection each time
    if (!okToRetry)
        IPC_ERROR("OBReg -ReqReply- A request of %d bytes is longer than %d\n", clientDataLen, MaxPayloadLength);
    try {
        for (int retryCount = 0; retStatus != 0 && okToRetry; ++retryCount) {
            SmartCChannel pChannel;
            takeProcessChannel(pChannel);
            if (!pChannel) {
                IPC_TRACE("OBReg -ReqReply- Channel unavailable\n");
                break;
            }
            const uint32_t reqId = pChannel->allocReqId();
            ClientReq clientReq(reqId);
            if (pChannel->submitReq(reqId, clientReq, pClientData, clientDataLen) == 0) {
                pChannel->watch(clientReq);
                retStatus = clientReq.waitForCompletion(ppServerData, pServerDataLen);
            } else {
                IPC_ERROR("OBReg -ReqReply- Request submittion over the channel failed\n");
            }
            pChannel->removeReq(reqId);
            okToRetry = retStatus != 0 && retryCount < MaxRetries;
            if (okToRetry)
                nanosleep(&RequestRetryPause, nullptr);
        }
    } catch (...) {
        IPC_ERROR("OBReg -ReqReply-- Exception caught\n");
    }
    IPC_TRACE("OBReg -ReqReply- End, retStatus = %#x\n", static_cast<unsigned>(retStatus));
    return retStatus;
}

/// The frame of every public function once its arguments are checked: encode, exchange, decode, copy the results out,
/// free everything. copyResults takes the decoded response and returns the status. Not cancelled, not even while it
/// logs: the messages' destructors log too, and must not be unwound.
template <class Request, class Response, class CopyResults, class... Fields>
REGSTATUS call(const char* pOperation, CopyResults copyResults, Fields... fields)
{
    const NoCancellation noCancellation;
    const Request request(fields...);

    char* pText = nullptr;
    int textLen = 0;
    request.serialize(&pText, &textLen);
    const std::unique_ptr<char[]> pSerializedObj(pText);
    if (!pSerializedObj) {
        IPC_ERROR("OBReg -%s- Unable to serialize object\n", pOperation);
        return OBREG_STATUS_REQUEST_FAILED;
    }

    char* pReply = nullptr;
    int replyLen = 0;
    const int exchanged = exchange(pSerializedObj.get(), textLen, &pReply, &replyLen);
    const std::unique_ptr<char[]> pServerData(pReply);
    if (exchanged != 0) {
        IPC_TRACE("OBReg -%s- RPC error\n", pOperation);
        return OBREG_STATUS_REQUEST_FAILED;
    }

    const std::unique_ptr<Response> pResponse(Response::deserialize(pServerData.get(), replyLen, ValueData::Borrowed));
    if (!pResponse) {
        IPC_ERROR("OBReg -%s- Error deserializing response\n", pOperation);
        return OBREG_STATUS_REQUEST_FAILED;
    }
    return copyResults(*pResponse);
}

/// For the functions whose only result is the status.
constexpr auto statusOnly = [](const auto& response) { return response.m_status; };

const char* orDefaultName(const char* pValueName)
{
    const bool unnamed = pValueName == nullptr || *pValueName == '\0' || std::strcmp(pValueName, "@") == 0;
    return unnamed ? valueDefaultName : pValueName;
}

template <class Value>
void store(Value* pOut, Value value)
{
    if (pOut != nullptr)
        *pOut = value;
}

/// Copies a name and its NUL where they fit; the length becomes the name's, or the room that it needs.
void copyName(const std::string& name, char* pName, int* pNameLength, REGSTATUS& status)
{
    const auto length = static_cast<int>(name.size());
    const bool fits = pName != nullptr && *pNameLength > length;
    if (fits)
        std::memcpy(pName, name.c_str(), name.size() + 1);
    else if (pName != nullptr)
        status = OBREG_STATUS_BUFFER_TOO_SMALL;
    *pNameLength = fits ? length : length + 1;
}

/// Copies value data where it fits; the length becomes the data's.
template <class Response>
void copyData(const Response& response, void* pData, UINT32* pDataLength, REGSTATUS& status)
{
    if (pData != nullptr && response.m_valueDataLen > *pDataLength)
        status = OBREG_STATUS_BUFFER_TOO_SMALL;
    else if (pData != nullptr && response.m_valueDataLen != 0)
        std::memcpy(pData, response.m_pValueData, response.m_valueDataLen);
    store(pDataLength, response.m_valueDataLen);
}

} // namespace

SmartCChannel* getCChannel()
{
    const NoCancellation noCancellation;
    auto pHolder = std::make_unique<SmartCChannel>();
    takeProcessChannel(*pHolder);
    return *pHolder ? pHolder.release() : nullptr;
}

int ReqReply(char* pClientData, int clientDataLen, char** ppServerData, int* pServerDataLen)
{
    const NoCancellation noCancellation;
    return exchange(pClientData, clientDataLen, ppServerData, pServerDataLen);
}

// --- The registry functions

REGSTATUS OBRegOpenKeyExA(HANDLE parentHandle, const char* pKeyName, UINT32 flags, UINT32 access, HANDLE* pKeyHandle)
{
    if (parentHandle == nullptr || pKeyHandle == nullptr || pKeyName == nullptr)
        return OBREG_STATUS_INVALID_PARAMETER;
    const auto copyResults = [=](const OpenKeyRespMsg& response) {
        *pKeyHandle = response.m_keyHandle;
        return response.m_status;
    };
    return call<OpenKeyReqMsg, OpenKeyRespMsg>("OBRegOpenKeyExA", copyResults, parentHandle, pKeyName, flags, access);
}

REGSTATUS OBRegCreateKeyExA(HANDLE parentHandle, const char* pKeyName, UINT32 /*reserved*/, void* /*pUnused0*/,
                            UINT32 flags, UINT32 access, void* /*pUnused1*/, HANDLE* pKeyHandle, UINT32* pDisposition)
{
    if (parentHandle == nullptr || pKeyName == nullptr || pKeyHandle == nullptr)
        return OBREG_STATUS_INVALID_PARAMETER;
    const auto copyResults = [=](const CreateKeyRespMsg& response) {
        *pKeyHandle = response.m_keyHandle;
        store(pDisposition, response.m_disposition);
        return response.m_status;
    };
    return call<CreateKeyReqMsg, CreateKeyRespMsg>("OBRegCreateKeyExA", copyResults, parentHandle, pKeyName, flags,
                                                   access);
}

REGSTATUS OBRegCloseKey(HANDLE keyHandle)
{
    if (keyHandle == nullptr)
        return OBREG_STATUS_INVALID_PARAMETER;
    return call<CloseKeyReqMsg, CloseKeyRespMsg>("OBRegCloseKey", statusOnly, keyHandle);
}

REGSTATUS OBRegDeleteKeyA(HANDLE parentKey, const char* pKeyName)
{
    if (parentKey == nullptr || pKeyName == nullptr)
        return OBREG_STATUS_INVALID_PARAMETER;
    return call<DeleteKeyReqMsg, DeleteKeyRespMsg>("OBRegDeleteKeyA", statusOnly, parentKey, pKeyName);
}

REGSTATUS OBRegSetValueExA(HANDLE keyHandle, const char* pValueName, UINT32 /*reserved*/, UINT32 type, void* pData,
                           UINT32 length)
{
    if (keyHandle == nullptr || pData == nullptr || length == 0)
        return OBREG_STATUS_INVALID_PARAMETER;
    return call<SetValueReqMsg, SetValueRespMsg>("OBRegSetValueExA", statusOnly, keyHandle, orDefaultName(pValueName),
                                                 type, static_cast<const char*>(pData), length, ValueData::Borrowed);
}

REGSTATUS OBRegQueryValueExA(HANDLE keyHandle, const char* pValueName, UINT32* /*pReserved*/, UINT32* pValueType,
                             void* pData, UINT32* pDataLength)
{
    if (keyHandle == nullptr || (pData != nullptr && pDataLength == nullptr))
        return OBREG_STATUS_INVALID_PARAMETER;
    const auto copyResults = [=](const QueryValueRespMsg& response) {
        REGSTATUS status = response.m_status;
        if (OBREG_IS_ERROR(status))
            return status;
        copyData(response, pData, pDataLength, status);
        store(pValueType, response.m_valueType);
        return status;
    };
    return call<QueryValueReqMsg, QueryValueRespMsg>("OBRegQueryValueExA", copyResults, keyHandle,
                                                     orDefaultName(pValueName));
}

REGSTATUS OBRegDeleteValueA(HANDLE keyHandle, const char* pValueName)
{
    if (keyHandle == nullptr || pValueName == nullptr)
        return OBREG_STATUS_INVALID_PARAMETER;
    return call<DeleteValueReqMsg, DeleteValueRespMsg>("OBRegDeleteValueA", statusOnly, keyHandle, pValueName);
}

REGSTATUS OBRegEnumKeyExA(HANDLE keyHandle, UINT32 index, char* pSubKeyName, int* pSubKeyNameLength,
                          void* /*pReserved*/, void* /*pUnused0*/, UINT32* /*pUnused1*/, UINT64* pLastWriteTime)
{
    if (keyHandle == nullptr || pSubKeyNameLength == nullptr || (pSubKeyName != nullptr && *pSubKeyNameLength < 0))
        return OBREG_STATUS_INVALID_PARAMETER;
    const auto copyResults = [=](const EnumKeyRespMsg& response) {
        REGSTATUS status = response.m_status;
        if (OBREG_IS_ERROR(status))
            return status;
        copyName(response.m_subKeyName, pSubKeyName, pSubKeyNameLength, status);
        store(pLastWriteTime, response.m_lastWriteTime);
        return status;
    };
    return call<EnumKeyReqMsg, EnumKeyRespMsg>("OBRegEnumKeyExA", copyResults, keyHandle, index);
}

REGSTATUS OBRegEnumValueA(HANDLE keyHandle, UINT32 index, char* pValueName, int* pValueNameLength,
                          UINT32* /*pReserved*/, UINT32* pValueType, void* pData, UINT32* pDataLength)
{
    if (keyHandle == nullptr || pValueNameLength == nullptr || (pData != nullptr && pDataLength == nullptr) ||
        (pValueName != nullptr && *pValueNameLength < 0))
        return OBREG_STATUS_INVALID_PARAMETER;
    const auto copyResults = [=](const EnumValueRespMsg& response) {
        REGSTATUS status = response.m_status;
        if (OBREG_IS_ERROR(status))
            return status;
        copyName(response.m_valueName, pValueName, pValueNameLength, status);
        copyData(response, pData, pDataLength, status);
        store(pValueType, response.m_valueType);
        return status;
    };
    return call<EnumValueReqMsg, EnumValueRespMsg>("OBRegEnumValueA", copyResults, keyHandle, index);
}

REGSTATUS OBRegQueryInfoKeyA(HANDLE keyHandle, char* /*pUnused0*/, UINT32* /*pUnused1*/, UINT32* /*pReserved*/,
                             UINT32* pSubKeyCount, UINT32* pMaxSubKeyLength, UINT32* pMaxClassLength,
                             UINT32* pValueCount, UINT32* pMaxValueNameLength, UINT32* pMaxValueLength,
                             UINT32* /*pUnused2*/, UINT64* pLastWriteTime)
{
    if (keyHandle == nullptr)
        return OBREG_STATUS_INVALID_PARAMETER;
    const auto copyResults = [=](const QueryInfoKeyRespMsg& response) {
        store(pSubKeyCount, response.m_subKeyCount);
        store(pMaxSubKeyLength, response.m_maxSubKeyLength);
        store(pMaxClassLength, response.m_maxClassLength);
        store(pValueCount, response.m_valueCount);
        store(pMaxValueNameLength, response.m_maxValueNameLength);
        store(pMaxValueLength, response.m_maxValueLength);
        store(pLastWriteTime, response.m_lastWriteTime);
        return response.m_status;
    };
    // The log has always named this function so.
    return call<QueryInfoKeyReqMsg, QueryInfoKeyRespMsg>("OBRegQueryInfoKeyExA", copyResults, keyHandle);
}
