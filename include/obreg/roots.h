/*
 * roots.h - what the reference daemon, obregd, adds to the protocol: predefined roots, statuses, value types, access
 * bits, dispositions. The library passes all of these through without looking at them.
 *
 * Plain C, like <obreg/obreg.h>. The names and values are those that callers of this style of API know.
 */
#ifndef OBREG_ROOTS_H
#define OBREG_ROOTS_H

#include <obreg/obreg.h>

/* Predefined roots: always open, good as the parent of any path. */
#define HKEY_CLASSES_ROOT ((HANDLE)(uintptr_t)0x80000000u)
/* The calling user's own tree: the key of the peer's uid under HKEY_USERS. */
#define HKEY_CURRENT_USER ((HANDLE)(uintptr_t)0x80000001u)
#define HKEY_LOCAL_MACHINE ((HANDLE)(uintptr_t)0x80000002u)
#define HKEY_USERS ((HANDLE)(uintptr_t)0x80000003u)
/* What the daemon counts of its own work, for reading only. */
#define HKEY_PERFORMANCE_DATA ((HANDLE)(uintptr_t)0x80000004u)
/* What the daemon makes on demand: its key Changes tells what changes, when it does, its key History what has changed,
 * and what is set in its key Transactions is done whole or not at all (docs/daemon.md). */
#define HKEY_DYN_DATA ((HANDLE)(uintptr_t)0x80000006u)

/* Statuses of the daemon; each is of the error class. */
/* The key or value does not exist. */
#define OBREG_STATUS_NOT_FOUND ((REGSTATUS)0xC7F20002u)
/* The peer may not do this to this key. */
#define OBREG_STATUS_ACCESS_DENIED ((REGSTATUS)0xC7F20005u)
/* The handle never named a key. */
#define OBREG_STATUS_BAD_HANDLE ((REGSTATUS)0xC7F20006u)
/* The store is full, or all key numbers have been given out. */
#define OBREG_STATUS_STORE_FULL ((REGSTATUS)0xC7F20070u)
/* A name is empty where it may not be, too long, or holds bytes that a name cannot hold. */
#define OBREG_STATUS_BAD_NAME ((REGSTATUS)0xC7F2007Bu)
/* The token of a transaction was used for another transaction. */
#define OBREG_STATUS_TOKEN_USED ((REGSTATUS)0xC7F200B7u)
/* The user's programs wait for as many changes as they may. */
#define OBREG_STATUS_TOO_MANY_WATCHES ((REGSTATUS)0xC7F2012Au)
/* A condition of a transaction does not hold; nothing of it was done. */
#define OBREG_STATUS_CONDITION_FAILED ((REGSTATUS)0xC7F21A2Cu)
/* The text of a transaction cannot be read; nothing of it was done. */
#define OBREG_STATUS_BAD_TRANSACTION ((REGSTATUS)0xC7F21A2Fu)
/* What the user's tree may take is used up. */
#define OBREG_STATUS_QUOTA_EXCEEDED ((REGSTATUS)0xC7F20718u)
/* The engine through which this tree is shared with other machines gave no answer in time. Nothing was changed here;
 * what was sent may still be done, and is then told as any change. */
#define OBREG_STATUS_ENGINE_AWAY ((REGSTATUS)0xC7F204CFu)
/* Value data is longer than the daemon keeps, or a transaction than it carries out. */
#define OBREG_STATUS_TOO_LARGE ((REGSTATUS)0xC7F200DFu)
/* An enumeration's position is past the last entry. */
#define OBREG_STATUS_NO_MORE_ENTRIES ((REGSTATUS)0xC7F20103u)
/* The key that the handle named has been deleted. */
#define OBREG_STATUS_KEY_DELETED ((REGSTATUS)0xC7F203FAu)
/* A key with sub-keys is not deleted. */
#define OBREG_STATUS_KEY_HAS_SUBKEYS ((REGSTATUS)0xC7F203FCu)
/* The store failed; the daemon's log says how. */
#define OBREG_STATUS_STORE_FAILED ((REGSTATUS)0xC7F203F7u)

/* Types of a value's data. */
#define REG_NONE 0u                       /* no defined type */
#define REG_SZ 1u                         /* string */
#define REG_EXPAND_SZ 2u                  /* string with references to environment variables */
#define REG_BINARY 3u                     /* bytes */
#define REG_DWORD 4u                      /* 32-bit number, least significant byte first */
#define REG_DWORD_LITTLE_ENDIAN REG_DWORD /* the same */
#define REG_DWORD_BIG_ENDIAN 5u           /* 32-bit number, most significant byte first */
#define REG_LINK 6u                       /* path of another key */
#define REG_MULTI_SZ 7u                   /* strings, each with its NUL, and one more NUL */
#define REG_RESOURCE_LIST 8u              /* hardware resources */
#define REG_FULL_RESOURCE_DESCRIPTOR 9u
#define REG_RESOURCE_REQUIREMENTS_LIST 10u
#define REG_QWORD 11u                     /* 64-bit number, least significant byte first */
#define REG_QWORD_LITTLE_ENDIAN REG_QWORD /* the same */

/* Access bits. Those that change something are checked when a key is opened and again at each request. */
#define KEY_QUERY_VALUE 0x0001u
#define KEY_SET_VALUE 0x0002u
#define KEY_CREATE_SUB_KEY 0x0004u
#define KEY_ENUMERATE_SUB_KEYS 0x0008u
#define KEY_NOTIFY 0x0010u
#define KEY_CREATE_LINK 0x0020u
#define KEY_READ 0x20019u
#define KEY_EXECUTE KEY_READ
#define KEY_WRITE 0x20006u
#define KEY_ALL_ACCESS 0xF003Fu

/* A value of this name, whatever its data, marks its key and all keys below it as secret: the daemon keeps no former
 * data of their values. */
#define OBREG_SECRET_VALUE "obreg.secret"

/* The longest names, in bytes, and how many keys a path may name. Longer ones are OBREG_STATUS_BAD_NAME. */
#define OBREG_MAX_KEY_NAME 1024u
#define OBREG_MAX_VALUE_NAME 16383u
#define OBREG_MAX_PATH_KEYS 512u

/* What a create did. */
#define REG_CREATED_NEW_KEY 1u
#define REG_OPENED_EXISTING_KEY 2u

#endif
