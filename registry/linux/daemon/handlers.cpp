#include "daemon/handlers.h"

#include <cstddef>
#include <vector>

#include "daemon/carryout.h"
#include "daemon/govern/names.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

// What a key's change costs those who watch above it grows with these.
constexpr size_t MaxDepth = 768;                    ///< keys from a root down
constexpr size_t MaxDepthBytes = size_t{64} * 1024; ///< of their names

/// The predefined roots that are always the same key, by handle.
const struct {
    HANDLE handle;
    KeyId id;
} Roots[] = {{HKEY_CLASSES_ROOT, ClassesId},
             {HKEY_LOCAL_MACHINE, MachineId},
             {HKEY_USERS, UsersId},
             {HKEY_PERFORMANCE_DATA, PerformanceId},
             {HKEY_DYN_DATA, DynamicId}};

HANDLE handleOf(KeyId id)
{
    for (const auto& root : Roots)
        if (root.id == id)
            return root.handle;
    if (const uint32_t handle = dynamicHandle(id); handle != 0)
        return reinterpret_cast<HANDLE>(uintptr_t{handle});
    return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(id));
}

Owner ownerBelow(KeyId parent, Owner parentOwner, const std::string& name)
{
    return parent == UsersId ? ownerOfUserTree(name) : parentOwner;
}

/// The peer's own tree, made when it is first needed; no quota counts for that one key.
KeyId currentUser(const Session& session)
{
    const std::string name = std::to_string(session.peer.uid);
    if (const auto id = session.store.child(UsersId, name))
        return *id;
    return session.writer().addKey(UsersId, name, static_cast<Owner>(session.peer.uid));
}

/// The number of the key that a handle stands for; the key may be gone, or never have been there.
KeyId idOf(const Session& session, HANDLE handle)
{
    if (handle == HKEY_CURRENT_USER)
        return currentUser(session);
    for (const auto& root : Roots)
        if (root.handle == handle)
            return root.id;
    const auto number = reinterpret_cast<uintptr_t>(handle);
    if (number > PerformanceId && number <= LastKeyId)
        return static_cast<KeyId>(number);
    return dynamicKey(handle);
}

REGSTATUS findById(const Session& session, KeyId id, Key& key)
{
    if (const auto found = session.at(id).key(id)) {
        key = *found;
        return Success;
    }
    return session.at(id).wasIssued(id) ? OBREG_STATUS_KEY_DELETED : OBREG_STATUS_BAD_HANDLE;
}

REGSTATUS findByHandle(const Session& session, HANDLE handle, Key& key)
{
    return findById(session, idOf(session, handle), key);
}

/// A key that the store has just named.
Key existing(const Session& session, KeyId id)
{
    const auto found = session.at(id).key(id);
    if (!found)
        throwDamaged(id, "its parent has it, but its row is missing");
    return *found;
}

/// Follows names downwards from key as far as there are such keys. Returns how many there were; key is the last.
size_t follow(const Session& session, const std::vector<std::string>& names, Key& key)
{
    size_t found = 0;
    KeyId id = key.id;
    for (; found < names.size(); ++found) {
        const auto child = session.at(id).child(id, names[found]);
        if (!child)
            break;
        id = *child;
    }
    if (id != key.id)
        key = existing(session, id);
    return found;
}

/// The key at a path below a handle. `found` is less than the number of names when only key, a part of the way, exists.
struct PathSearch {
    std::vector<std::string> names;
    size_t found = 0;
    Key key{};

    REGSTATUS run(const Session& session, HANDLE parent, const std::string& path)
    {
        if (!splitPath(path, names))
            return OBREG_STATUS_BAD_NAME;
        const REGSTATUS status = findByHandle(session, parent, key);
        if (status == Success)
            found = follow(session, names, key);
        return status;
    }

    bool complete() const { return found == names.size(); }
};

bool deniesAccess(const Session& session, UINT32 access, Owner owner)
{
    return asksToWrite(access) && !mayWrite(session.peer, owner);
}

/// The key whose values a request is about to change.
REGSTATUS findToChange(const Session& session, HANDLE handle, const std::string& valueName, Key& key)
{
    return isValueName(valueName) ? findByHandle(session, handle, key) : OBREG_STATUS_BAD_NAME;
}

bool looksAtQuota(const Session& session, Owner owner) { return !session.quotaLater && isLimited(session.peer, owner); }

/// Whether keys of these names, from the given one on, would come to stand deeper below the root than any may.
bool isTooDeep(const Session& session, KeyId parent, const std::vector<std::string>& names, size_t first)
{
    auto [keys, bytes] = session.writer().depthOf(parent);
    keys += names.size() - first;
    for (size_t i = first; i < names.size(); ++i)
        bytes += names[i].size() + 1;
    return keys > MaxDepth || bytes > MaxDepthBytes;
}

/// Whether the quota of the tree lets the peer make keys of these names, from the given one on.
bool allowsKeys(const Session& session, Owner owner, const std::vector<std::string>& names, size_t first)
{
    if (!looksAtQuota(session, owner))
        return true;
    size_t bytes = 0;
    for (size_t i = first; i < names.size(); ++i)
        bytes += names[i].size();
    return session.writer().allowsKeys(owner, names.size() - first, bytes);
}

/// Tells what has changed at a key, as the name asks. See dynamic.h.
REGSTATUS queryChanges(const Session& session, const std::string& name, std::string& text)
{
    std::optional<ParsedWait> parsed = parseWait(name);
    if (!parsed)
        return OBREG_STATUS_BAD_NAME;
    Wait& wait = parsed->wait;
    if (wait.ends && session.mayWait)
        throw MustWait{wait};
    Key key;
    const KeyId id = idOf(session, reinterpret_cast<HANDLE>(uintptr_t{parsed->handle}));
    const REGSTATUS status = findById(session, id, key);
    if (&session.at(id) != &session.store)
        return status == Success ? OBREG_STATUS_BAD_HANDLE : status;
    if (status == OBREG_STATUS_BAD_HANDLE)
        return status;
    wait.watched.key = id;
    if (wait.now) {
        text = answerText({session.store.lastChange(), false, {}});
        return status;
    }
    const Told told = session.store.told(wait.watched);
    if (told.empty() && status != Success)
        return status; // it is gone, and the client knows what was before that
    if (told.empty() && wait.atMost.count() != 0 && session.mayWait) {
        wait.watched.since = told.upTo;
        throw MustWait{wait};
    }
    text = answerText(told);
    return Success;
}

/// Tells what has happened to a key, as the name asks. See dynamic.h.
REGSTATUS queryHistory(const Session& session, const std::string& name, std::string& text)
{
    std::optional<ParsedHistory> parsed = parseHistory(name);
    if (!parsed)
        return OBREG_STATUS_BAD_NAME;
    const KeyId id = idOf(session, reinterpret_cast<HANDLE>(uintptr_t{parsed->handle}));
    Key key;
    const REGSTATUS status = findById(session, id, key);
    if (status == OBREG_STATUS_BAD_HANDLE || &session.at(id) != &session.store)
        return OBREG_STATUS_BAD_HANDLE;
    parsed->question.key = id; // which may be deleted
    text = session.store.history(parsed->question);
    return Success;
}

/// Answers when the copy of a shared tree is as new as the engine was when it was asked.
REGSTATUS syncShare(const Session& session, KeyId id, UINT32& type, const char*& pData, UINT32& length)
{
    if (session.pShared == nullptr)
        throw NeedsWriter();
    if (!session.pShared->isDone)
        session.pShared->sync = shareOf(id);
    const std::optional<Value> revision = session.at(id).value(id, "Revision");
    type = revision->type;
    pData = revision->pData;
    length = revision->length;
    return Success;
}

} // namespace

KeyId storedKey(const Session& session, HANDLE handle)
{
    const KeyId id = idOf(session, handle);
    return &session.at(id) == &session.store ? id : 0;
}

REGSTATUS openKey(const Session& session, const OpenKeyReqMsg& request, HANDLE& key)
{
    PathSearch search;
    const REGSTATUS status = search.run(session, request.m_parentKeyHandle, request.m_keyName);
    if (status != Success)
        return status;
    if (!search.complete())
        return OBREG_STATUS_NOT_FOUND;
    if (deniesAccess(session, request.m_access, search.key.owner))
        return OBREG_STATUS_ACCESS_DENIED;
    key = handleOf(search.key.id);
    return Success;
}

REGSTATUS createKey(const Session& session, const CreateKeyReqMsg& request, HANDLE& key, UINT32& disposition)
{
    PathSearch search;
    const REGSTATUS status = search.run(session, request.m_parentKeyHandle, request.m_keyName);
    if (status != Success)
        return status;
    KeyId id = search.key.id;
    Owner owner = search.key.owner;
    if (search.complete()) {
        if (deniesAccess(session, request.m_access, owner))
            return OBREG_STATUS_ACCESS_DENIED;
        key = handleOf(id);
        const bool wasMade = session.pShared != nullptr && session.pShared->isDone;
        disposition = wasMade ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
        return Success;
    }
    owner = ownerBelow(id, owner, search.names[search.found]); // and so of all below
    if (!mayWrite(session.peer, owner))
        return OBREG_STATUS_ACCESS_DENIED;
    WritableStore& writer = session.writer();
    if (isTooDeep(session, id, search.names, search.found))
        return OBREG_STATUS_BAD_NAME;
    if (!allowsKeys(session, owner, search.names, search.found))
        return OBREG_STATUS_QUOTA_EXCEEDED;
    for (size_t i = search.found; i < search.names.size(); ++i)
        id = writer.addKey(id, search.names[i], owner);
    key = handleOf(id);
    disposition = REG_CREATED_NEW_KEY;
    return Success;
}

REGSTATUS closeKey(const Session& session, const CloseKeyReqMsg& request)
{
    if (request.m_keyHandle == HKEY_CURRENT_USER)
        return Success;
    Key key;
    const REGSTATUS status = findByHandle(session, request.m_keyHandle, key);
    return status == OBREG_STATUS_KEY_DELETED ? Success : status;
}

REGSTATUS deleteKey(const Session& session, const DeleteKeyReqMsg& request)
{
    if (request.m_keyName.empty())
        return OBREG_STATUS_BAD_NAME;
    PathSearch search;
    const REGSTATUS status = search.run(session, request.m_parentKeyHandle, request.m_keyName);
    if (status != Success)
        return status;
    if (!search.complete())
        return OBREG_STATUS_NOT_FOUND;
    if (!mayWrite(session.peer, search.key.owner))
        return OBREG_STATUS_ACCESS_DENIED;
    if (search.key.subKeys != 0)
        return OBREG_STATUS_KEY_HAS_SUBKEYS;
    session.writer().removeKey(search.key);
    return Success;
}

REGSTATUS setValue(const Session& session, const SetValueReqMsg& request)
{
    Key key;
    if (session.pWriter == nullptr && idOf(session, request.m_keyHandle) == TransactionsId)
        return takeTransaction(session, request);
    const REGSTATUS status = findToChange(session, request.m_keyHandle, request.m_valueName, key);
    if (status != Success)
        return status;
    if (!mayWrite(session.peer, key.owner))
        return OBREG_STATUS_ACCESS_DENIED;
    WritableStore& writer = session.writer();
    if (looksAtQuota(session, key.owner) && !writer.allowsValue(key, request.m_valueName, request.m_valueDataLen))
        return OBREG_STATUS_QUOTA_EXCEEDED;
    writer.setValue(key.id, request.m_valueName, request.m_valueType, request.m_pValueData, request.m_valueDataLen);
    return Success;
}

REGSTATUS queryValue(const Session& session, const QueryValueReqMsg& request, UINT32& type, const char*& pData,
                     UINT32& length)
{
    if (!isValueName(request.m_valueName))
        return OBREG_STATUS_BAD_NAME;
    const KeyId id = idOf(session, request.m_keyHandle);
    if (id == ChangesId || id == TransactionsId || id == HistoryId) {
        static thread_local std::string text;
        const auto answer = id == ChangesId ? queryChanges : id == HistoryId ? queryHistory : queryTransaction;
        const REGSTATUS status = answer(session, request.m_valueName, text);
        if (status != Success)
            return status;
        type = id == TransactionsId ? REG_SZ : REG_MULTI_SZ;
        pData = text.data();
        length = static_cast<UINT32>(text.size());
        return Success;
    }
    if (shareOf(id) && strcasecmp(request.m_valueName.c_str(), "Sync") == 0)
        return syncShare(session, id, type, pData, length);
    if (const auto value = session.at(id).value(id, request.m_valueName)) {
        type = value->type;
        pData = value->pData;
        length = value->length;
        return Success;
    }
    Key key;
    const REGSTATUS status = findById(session, id, key);
    return status == Success ? OBREG_STATUS_NOT_FOUND : status;
}

REGSTATUS deleteValue(const Session& session, const DeleteValueReqMsg& request)
{
    Key key;
    const REGSTATUS status = findToChange(session, request.m_keyHandle, request.m_valueName, key);
    if (status != Success)
        return status;
    if (!mayWrite(session.peer, key.owner))
        return session.at(key.id).hasValue(key.id, request.m_valueName) ? OBREG_STATUS_ACCESS_DENIED
                                                                        : OBREG_STATUS_NOT_FOUND;
    return session.writer().removeValue(key.id, request.m_valueName) ? Success : OBREG_STATUS_NOT_FOUND;
}

REGSTATUS enumKey(const Session& session, const EnumKeyReqMsg& request, const char*& pName, UINT64& written)
{
    Key key;
    const REGSTATUS status = findByHandle(session, request.m_keyHandle, key);
    if (status != Success)
        return status;
    const auto entry = session.at(key.id).subKeyAt(key, request.m_index);
    if (!entry)
        return OBREG_STATUS_NO_MORE_ENTRIES;
    pName = entry->pName;
    written = entry->written;
    return Success;
}

REGSTATUS enumValue(const Session& session, const EnumValueReqMsg& request, const char*& pName, UINT32& type,
                    const char*& pData, UINT32& length)
{
    Key key;
    const REGSTATUS status = findByHandle(session, request.m_keyHandle, key);
    if (status != Success)
        return status;
    const auto entry = session.at(key.id).valueAt(key, request.m_index);
    if (!entry)
        return OBREG_STATUS_NO_MORE_ENTRIES;
    pName = entry->pName;
    type = entry->value.type;
    pData = entry->value.pData;
    length = entry->value.length;
    return Success;
}

REGSTATUS queryInfoKey(const Session& session, const QueryInfoKeyReqMsg& request, UINT32& subKeys,
                       UINT32& longestSubKey, UINT32& longestClass, UINT32& values, UINT32& longestValueName,
                       UINT32& longestValue, UINT64& written)
{
    Key key;
    const REGSTATUS status = findByHandle(session, request.m_keyHandle, key);
    if (status != Success)
        return status;
    const Longest longest = session.at(key.id).longest(key);
    subKeys = key.subKeys;
    longestSubKey = longest.subKeyName;
    longestClass = 0; // keys have no classes here
    values = key.values;
    longestValueName = longest.valueName;
    longestValue = longest.valueData;
    written = key.written;
    return Success;
}

} // namespace obregd
