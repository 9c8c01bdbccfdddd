// The process's side of the library: its state, its life from load to unload, and the exchange of one request for one
// reply. None of this is part of the registry interface; the ten functions are in <obreg/obreg.h>.
//
// The process has at most one channel at a time, held by g_pSmartCChannel. The first request makes it; a request that
// finds it broken replaces it; nothing watches it in between. clientMutex serialises getting and replacing it, first in
// the order of locks (cchannel.h tells the others); the exchange itself runs without it, so any number of threads share
// the channel.
//
// The variables are exported: another module of the process may read them and set CDebugLevel (ipcint.h) and
// registryEngineInitialized. The counters change only under clientMutex or in a fork child's only thread.
#ifndef OBREG_CLIENT_CLIENT_H
#define OBREG_CLIENT_CLIENT_H

#include <pthread.h>

#include "client/cchannel.h"
#include "common/ipcint.h"

/// Holder of the process channel; null while there is none. Published only when connected, and unpublished before it is
/// deleted: a fork in between finds null.
OBREG_API extern SmartCChannel* g_pSmartCChannel;
OBREG_API extern pthread_mutex_t clientMutex;

/// Connection attempts, one second apart, of the process's first request; 0 or less: none is ever made. Set at load
/// from OMBREL_MAX_REGIPC_SETUP_TIME (hexadecimal), else 1.
OBREG_API extern int MaxIpcSetupTime;

/// Connection attempts made, and channels made, since load or fork. While the first is 0, a request makes up to
/// MaxIpcSetupTime attempts; afterwards one.
OBREG_API extern int ipcInitAttempts;
OBREG_API extern int ipcInitSuccessfulAttempts;

/// While true, no channel is obtained and every request fails. Never set by the library.
OBREG_API extern bool registryEngineInitialized;

/// True when OMBREL_DO_NOT_BYPASS_REG_DAEMON was set at load. Not used by the library.
OBREG_API extern bool DoNotBypassRegDaemon;

/// Not used by the library.
OBREG_API extern int CDebugDaemon;

extern "C" {

/// Child handler of pthread_atfork: the child abandons the parent's channels and begins anew with its first request.
/// The published channel is shut down, so the parent makes a new one as well.
OBREG_API void OBRegForkHandler();

/// Makes a connected channel and publishes it in g_pSmartCChannel, which must be null; clientMutex is held. 0 or -1.
OBREG_API int IpcInit();

/// A holder of the process channel, made or replaced if need be; the caller deletes it. Null when none can be had.
/// Throws std::bad_alloc.
OBREG_API SmartCChannel* getCChannel();

/// Sends an encoded request, up to three times, and waits for the reply. 0 and the reply (the caller releases it with
/// delete[]), or -1 and nothing written. Throws nothing. Any thread, which is not cancelled meanwhile.
OBREG_API int ReqReply(char* pClientData, int clientDataLen, char** ppServerData, int* pServerDataLen);

/// Closes and releases the process channel, if there is one. Takes no lock: the caller holds clientMutex or is the only
/// thread.
OBREG_API void IpcShutdown();

} // extern "C"

#endif
