// What each of the ten operations does, between its decoded request and the fields of its response.
//
// A handler returns the response's status and sets the other fields only when that is success. Pointers that it gives
// hold until the next use of the session's store. See operations.h for sessions and for what may be thrown.
#ifndef OBREG_DAEMON_HANDLERS_H
#define OBREG_DAEMON_HANDLERS_H

#include "daemon/operations.h"

namespace obregd {

REGSTATUS openKey(const Session& session, const OpenKeyReqMsg& request, HANDLE& key);
REGSTATUS createKey(const Session& session, const CreateKeyReqMsg& request, HANDLE& key, UINT32& disposition);
REGSTATUS closeKey(const Session& session, const CloseKeyReqMsg& request);
REGSTATUS deleteKey(const Session& session, const DeleteKeyReqMsg& request);
REGSTATUS setValue(const Session& session, const SetValueReqMsg& request);
REGSTATUS queryValue(const Session& session, const QueryValueReqMsg& request, UINT32& type, const char*& pData,
                     UINT32& length);
REGSTATUS deleteValue(const Session& session, const DeleteValueReqMsg& request);
REGSTATUS enumKey(const Session& session, const EnumKeyReqMsg& request, const char*& pName, UINT64& written);
REGSTATUS enumValue(const Session& session, const EnumValueReqMsg& request, const char*& pName, UINT32& type,
                    const char*& pData, UINT32& length);
REGSTATUS queryInfoKey(const Session& session, const QueryInfoKeyReqMsg& request, UINT32& subKeys,
                       UINT32& longestSubKey, UINT32& longestClass, UINT32& values, UINT32& longestValueName,
                       UINT32& longestValue, UINT64& written);

/// The number of the store's key that a handle stands for, which may be gone; 0 when it is none of the store's.
KeyId storedKey(const Session& session, HANDLE handle);

} // namespace obregd

#endif
