// What the handlers read: keys by number, and what is in them. The store is one such tree, the daemon's figures
// another.
//
// Pointers in results hold until the next call on the same tree by the same thread.
#ifndef OBREG_DAEMON_TREE_H
#define OBREG_DAEMON_TREE_H

#include <optional>
#include <string>

#include "daemon/govern/access.h"
#include "obreg/obreg.h"

namespace obregd {

using KeyId = int64_t;

/// The predefined roots' keys, there from the beginning. Numbers below FirstKeyId are never given to a key of the
/// store.
inline constexpr KeyId ClassesId = 1;
inline constexpr KeyId MachineId = 2;
inline constexpr KeyId UsersId = 3;
inline constexpr KeyId PerformanceId = 4; ///< and those that follow: the figures
inline constexpr KeyId FirstKeyId = 16;
inline constexpr KeyId LastKeyId = 0x7FFFFFFF;

struct Key {
    KeyId id;
    KeyId parent;
    Owner owner;
    uint64_t written; ///< last write time, 100 ns units since 1601-01-01 UTC; grows with every change of the key
    UINT32 subKeys;
    UINT32 values;
};

struct Value {
    UINT32 type;
    const char* pData;
    UINT32 length;
};

struct SubKeyEntry {
    const char* pName;
    uint64_t written;
};

struct ValueEntry {
    const char* pName;
    Value value;
};

/// The greatest lengths among a key's entries.
struct Longest {
    UINT32 subKeyName;
    UINT32 valueName;
    UINT32 valueData;
};

/// Thrown by a tree that may not work for long: what was asked for is to be asked of one that may.
struct TooLong {};

class Tree {
public:
    virtual ~Tree() = default;
    virtual std::optional<Key> key(KeyId id) = 0;
    virtual std::optional<KeyId> child(KeyId parent, const std::string& name) = 0;
    /// Whether the number was ever given to a key, one that is deleted by now included.
    virtual bool wasIssued(KeyId id) = 0;
    virtual std::optional<Value> value(KeyId key, const std::string& name) = 0;
    /// Whether there is such a value; its data is not looked at.
    virtual bool hasValue(KeyId key, const std::string& name) { return value(key, name).has_value(); }
    virtual std::optional<SubKeyEntry> subKeyAt(const Key& key, UINT32 index) = 0;
    virtual std::optional<ValueEntry> valueAt(const Key& key, UINT32 index) = 0;
    virtual Longest longest(const Key& key) = 0;
};

} // namespace obregd

#endif
