/*
 * obreg.h - the registry functions of libobreg.
 *
 * The registry is a tree of keys that hold named values. The library keeps none of it: each call below is one
 * request to the registry daemon over a local socket and one reply. The first call connects; there is nothing to
 * initialise and nothing to shut down.
 *
 * Plain C (C89 with <stdint.h>), usable from C++ and through any foreign-function interface.
 *
 * THREADS    Every function may be called from any number of threads at once. A call blocks its own thread until
 *            the reply is there or the connection is lost; there is no time-out. A thread is not cancelled inside
 *            a call.
 * FORK       A child process makes its own connection at its first call. Key handles stay good in it.
 * LOST CONNECTION
 *            A request whose connection breaks is sent again, three times in all. A call is therefore carried out
 *            at least once, not exactly once: a repeated create can answer "opened existing", a repeated delete
 *            "not found".
 * STRINGS    Names are NUL-terminated byte strings and stay the caller's; the library keeps no pointer after a
 *            call returns. A name cannot carry a carriage return followed by a line feed.
 * STATUSES   Every function returns one of the OBREG_STATUS_* codes below or the daemon's own status, passed on
 *            unchanged (<obreg/roots.h> names those of the reference daemon). 0 is success. OBREG_IS_ERROR tells
 *            whether a status is of the error class.
 * EXCEPTIONS When the process is out of memory a function may leave by std::bad_alloc, with everything freed.
 */
#ifndef OBREG_OBREG_H
#define OBREG_OBREG_H

#include <stdint.h>

#if defined(__GNUC__)
#define OBREG_API __attribute__((visibility("default")))
#else
#define OBREG_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t UINT32;
typedef uint64_t UINT64;
typedef void* PVOID;

/* A key, as the daemon numbered it. Passed back and forth unchanged; never null for a key. */
typedef PVOID HANDLE;

/* The result of every function: 0, a code of the library or a code of the daemon. */
typedef UINT32 REGSTATUS;

/* Done. */
#define OBREG_STATUS_SUCCESS ((REGSTATUS)0x00000000u)
/* The request could not be encoded, exchanged with the daemon, or its reply was not well-formed. Typically: no
 * daemon is running, or the connection broke on each of the three attempts. */
#define OBREG_STATUS_REQUEST_FAILED ((REGSTATUS)0xC7F10001u)
/* A required argument is null or out of range; nothing was sent and nothing was written. */
#define OBREG_STATUS_INVALID_PARAMETER ((REGSTATUS)0xC7F10004u)
/* A name or data buffer is too small; the length parameters say what is needed. */
#define OBREG_STATUS_BUFFER_TOO_SMALL ((REGSTATUS)0xC7F10007u)

/* True for a status of the error class: its two most significant bits are set. */
#define OBREG_IS_ERROR(status) (((REGSTATUS)(status) >> 30) == 3u)

/*
 * Opens a key that exists.
 *
 *   parentHandle  an open key or a predefined root; not null
 *   pKeyName      path of the key below the parent; not null; the daemon decides what an empty one means
 *   flags         passed to the daemon unchanged
 *   access        rights asked for, passed to the daemon unchanged
 *   pKeyHandle    receives the handle; not null. Written whenever a reply was decoded, a failed open included.
 *
 * Returns OBREG_STATUS_SUCCESS, OBREG_STATUS_INVALID_PARAMETER, OBREG_STATUS_REQUEST_FAILED or the daemon's status.
 * On the library's own failures nothing is written.
 */
OBREG_API REGSTATUS OBRegOpenKeyExA(HANDLE parentHandle, const char* pKeyName, UINT32 flags, UINT32 access,
                                    HANDLE* pKeyHandle);

/*
 * Opens a key and makes it first, with its missing parents, when it does not exist.
 *
 *   parentHandle, pKeyName, flags, access   as for OBRegOpenKeyExA
 *   reserved, pUnused0, pUnused1            ignored
 *   pKeyHandle    receives the handle; not null
 *   pDisposition  receives what the daemon did (1 created, 2 opened existing); may be null
 *
 * Both results are written whenever a reply was decoded. Returns as OBRegOpenKeyExA.
 */
OBREG_API REGSTATUS OBRegCreateKeyExA(HANDLE parentHandle, const char* pKeyName, UINT32 reserved, void* pUnused0,
                                      UINT32 flags, UINT32 access, void* pUnused1, HANDLE* pKeyHandle,
                                      UINT32* pDisposition);

/*
 * Tells the daemon that a key handle is no longer used.
 *
 *   keyHandle     the handle; not null
 *
 * Returns OBREG_STATUS_SUCCESS, OBREG_STATUS_INVALID_PARAMETER, OBREG_STATUS_REQUEST_FAILED or the daemon's status.
 */
OBREG_API REGSTATUS OBRegCloseKey(HANDLE keyHandle);

/*
 * Deletes a key and its values.
 *
 *   parentKey     an open key or a predefined root; not null
 *   pKeyName      path of the key below the parent; not null
 *
 * Returns as OBRegCloseKey.
 */
OBREG_API REGSTATUS OBRegDeleteKeyA(HANDLE parentKey, const char* pKeyName);

/*
 * Stores a value, replacing one of the same name.
 *
 *   keyHandle     the key; not null
 *   pValueName    the value's name; null, "" and "@" all mean the value named "default"
 *   reserved      ignored
 *   type          the value's type, stored with it and never looked at by the library
 *   pData         the data; not null; copied before the call returns
 *   length        bytes at pData; not 0 (an empty value cannot be stored). Strings are stored as given: count the
 *                 terminating NUL in if it is to be stored.
 *
 * Returns as OBRegCloseKey.
 */
OBREG_API REGSTATUS OBRegSetValueExA(HANDLE keyHandle, const char* pValueName, UINT32 reserved, UINT32 type,
                                     void* pData, UINT32 length);

/*
 * Reads a value.
 *
 *   keyHandle     the key; not null
 *   pValueName    the value's name; null, "" and "@" all mean the value named "default"
 *   pReserved     ignored
 *   pValueType    receives the type; may be null
 *   pData         receives the data exactly as stored, no NUL added; may be null to ask for type and length only
 *   pDataLength   in: bytes at pData; out: bytes of the data. May be null only when pData is null.
 *
 * Returns OBREG_STATUS_SUCCESS, OBREG_STATUS_INVALID_PARAMETER, OBREG_STATUS_REQUEST_FAILED, the daemon's status, or
 * OBREG_STATUS_BUFFER_TOO_SMALL: *pDataLength and *pValueType are then set and pData is untouched; call again with a
 * buffer of that size. Any other status of the error class leaves every result untouched.
 */
OBREG_API REGSTATUS OBRegQueryValueExA(HANDLE keyHandle, const char* pValueName, UINT32* pReserved, UINT32* pValueType,
                                       void* pData, UINT32* pDataLength);

/*
 * Deletes a value.
 *
 *   keyHandle     the key; not null
 *   pValueName    the value's name, sent as it is ("" and "@" have no special meaning here); not null
 *
 * Returns as OBRegCloseKey.
 */
OBREG_API REGSTATUS OBRegDeleteValueA(HANDLE keyHandle, const char* pValueName);

/*
 * Reads the name of the sub-key at a position.
 *
 *   keyHandle          the key; not null
 *   index              position, from 0; a position past the last gives the daemon's status for that
 *   pSubKeyName        receives the name and a NUL; may be null to ask for the length only
 *   pSubKeyNameLength  in: bytes at pSubKeyName, room for the NUL included; out: the name's length without the NUL
 *                      when it was copied, with the NUL when it was not. Not null; not negative when pSubKeyName is
 *                      given.
 *   pReserved, pUnused0, pUnused1   ignored
 *   pLastWriteTime     receives the sub-key's last write time in the daemon's unit; may be null
 *
 * Returns OBREG_STATUS_SUCCESS, OBREG_STATUS_INVALID_PARAMETER, OBREG_STATUS_REQUEST_FAILED, the daemon's status, or
 * OBREG_STATUS_BUFFER_TOO_SMALL: the name was not copied, everything else is set. Any other status of the error class
 * leaves every result untouched.
 */
OBREG_API REGSTATUS OBRegEnumKeyExA(HANDLE keyHandle, UINT32 index, char* pSubKeyName, int* pSubKeyNameLength,
                                    void* pReserved, void* pUnused0, UINT32* pUnused1, UINT64* pLastWriteTime);

/*
 * Reads the value at a position: name, type and data.
 *
 *   keyHandle          the key; not null
 *   index              position, from 0
 *   pValueName, pValueNameLength          as the name and its length of OBRegEnumKeyExA
 *   pReserved          ignored
 *   pValueType, pData, pDataLength        as of OBRegQueryValueExA
 *
 * Returns as OBRegEnumKeyExA; OBREG_STATUS_BUFFER_TOO_SMALL means that name, data or both did not fit: what fits is
 * copied, and the lengths say what is needed.
 */
OBREG_API REGSTATUS OBRegEnumValueA(HANDLE keyHandle, UINT32 index, char* pValueName, int* pValueNameLength,
                                    UINT32* pReserved, UINT32* pValueType, void* pData, UINT32* pDataLength);

/*
 * Reads a key's counts, greatest lengths (in bytes, without NUL) and last write time.
 *
 *   keyHandle          the key; not null
 *   pUnused0, pUnused1, pReserved, pUnused2   ignored
 *   all others         each receives its figure; each may be null
 *
 * The figures are written whenever a reply was decoded, whatever its status. Returns as OBRegCloseKey.
 */
OBREG_API REGSTATUS OBRegQueryInfoKeyA(HANDLE keyHandle, char* pUnused0, UINT32* pUnused1, UINT32* pReserved,
                                       UINT32* pSubKeyCount, UINT32* pMaxSubKeyLength, UINT32* pMaxClassLength,
                                       UINT32* pValueCount, UINT32* pMaxValueNameLength, UINT32* pMaxValueLength,
                                       UINT32* pUnused2, UINT64* pLastWriteTime);

#ifdef __cplusplus
}
#endif

#endif
