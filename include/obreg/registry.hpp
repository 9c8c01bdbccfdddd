// registry.hpp - the C++ face of libobreg: keys that close themselves, values as C++ types, ranges, errors as
// std::error_code. Header-only, C++17, on nothing but the ten functions of <obreg/obreg.h>.
//
//     using namespace obreg;
//     Key key = Key::create(localMachine(), "Software\\Acme");
//     key.set("Greeting", "hello");
//     std::string text = key.get<std::string>("Greeting");
//     for (const auto& [name, value] : key.values())
//         std::cout << name << '\n';
//
// ERRORS. Every operation comes in two forms: one throws std::system_error, one takes a std::error_code& as its last
// argument, sets it (or clears it) and returns an empty result on failure. Both may throw std::bad_alloc. Error codes
// are of obreg::category() and hold the REGSTATUS: compare with obreg::Status, print with message().
//
// THREADS. As the functions below it: any number of threads, one Key belongs to one thread at a time.
//
// STRINGS. REG_SZ and REG_EXPAND_SZ are stored with their NUL and given back without; REG_MULTI_SZ with a NUL after
// each string and one at the end. Data that lacks its terminator reads the same. Names "" and "@" mean the key's
// unnamed value, in every operation; an enumeration shows it as "default".
#ifndef OBREG_REGISTRY_HPP
#define OBREG_REGISTRY_HPP

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

#include <obreg/obreg.h>
#include <obreg/roots.h>
#include <obreg/status.hpp>
#include <obreg/value.hpp>

namespace obreg {

/// One entry of Key::subKeys().
struct SubKey {
    std::string name;
    UINT64 lastWriteTime = 0; ///< 100 ns units since 1601-01-01 UTC
};

/// One entry of Key::values().
struct NamedValue {
    std::string name;
    Value value;
};

struct KeyInfo {
    UINT32 subKeys = 0;
    UINT32 maxSubKeyLength = 0; ///< bytes, as the other lengths
    UINT32 maxClassLength = 0;
    UINT32 values = 0;
    UINT32 maxValueNameLength = 0;
    UINT32 maxValueLength = 0;
    UINT64 lastWriteTime = 0; ///< 100 ns units since 1601-01-01 UTC
};

/// A one-pass range over the entries of a key, which must outlive it. Each step asks the daemon for one entry, so the
/// range follows what changes meanwhile: an entry may be missed or met twice. An error other than the end throws from
/// the step, or ends the range and sets the error_code that the range was made with.
template <class Entry>
class Entries {
public:
    class iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Entry;
        using difference_type = std::ptrdiff_t;
        using pointer = const Entry*;
        using reference = const Entry&;

        iterator() = default; ///< the end
        iterator(HANDLE key, std::error_code* pError) : m_key(key), m_pError(pError) { fetch(); }

        reference operator*() const { return m_entry; }
        pointer operator->() const { return &m_entry; }
        iterator& operator++()
        {
            ++m_index;
            fetch();
            return *this;
        }
        friend bool operator==(const iterator& a, const iterator& b) { return a.m_key == b.m_key; }
        friend bool operator!=(const iterator& a, const iterator& b) { return !(a == b); }

    private:
        void fetch();

        HANDLE m_key = nullptr; // null at the end
        std::error_code* m_pError = nullptr;
        UINT32 m_index = 0;
        Entry m_entry;
    };

    Entries(HANDLE key, std::error_code* pError) : m_key(key), m_pError(pError) {}

    iterator begin() const { return {m_key, m_pError}; }
    iterator end() const { return {}; }

private:
    HANDLE m_key;
    std::error_code* m_pError;
};

namespace detail {

/// Clears the error, or sets Status::badName for a name that the functions, which end it at its NUL, would cut short.
inline bool isName(const std::string& name, std::error_code& error)
{
    error.clear();
    if (name.find('\0') != std::string::npos)
        error = Status::badName;
    return !error;
}

} // namespace detail

/// An open key; move-only, closes itself. Empty after a failed non-throwing open and when moved from.
class Key {
public:
    Key() = default;
    Key(Key&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)), m_root(other.m_root) {}
    Key& operator=(Key&& other) noexcept
    {
        if (this != &other) {
            close();
            m_handle = std::exchange(other.m_handle, nullptr);
            m_root = other.m_root;
        }
        return *this;
    }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    ~Key() { close(); }

    /// A predefined root: never closed, costs nothing. localMachine() and its like below give them by name.
    static Key root(HANDLE handle)
    {
        Key key;
        key.m_handle = handle;
        key.m_root = true;
        return key;
    }

    /// Opens a key that exists.
    static Key open(const Key& parent, const std::string& path, UINT32 access, std::error_code& error)
    {
        Key key;
        if (!detail::isName(path, error))
            return key;
        error = errorCode(OBRegOpenKeyExA(parent.m_handle, path.c_str(), 0, access, &key.m_handle));
        return key.orNothing(error);
    }
    static Key open(const Key& parent, const std::string& path, UINT32 access = KEY_READ)
    {
        return detail::throwing(path, [&](std::error_code& error) { return open(parent, path, access, error); });
    }

    /// Opens a key and makes it, with its parents, when it is not there. *pCreated tells whether it was made; a request
    /// that had to be sent again after a lost connection can say false although it made the key.
    static Key create(const Key& parent, const std::string& path, UINT32 access, bool* pCreated, std::error_code& error)
    {
        Key key;
        UINT32 disposition = 0;
        if (pCreated != nullptr)
            *pCreated = false;
        if (!detail::isName(path, error))
            return key;
        error = errorCode(OBRegCreateKeyExA(parent.m_handle, path.c_str(), 0, nullptr, 0, access, nullptr,
                                            &key.m_handle, &disposition));
        if (pCreated != nullptr)
            *pCreated = !error && disposition == REG_CREATED_NEW_KEY;
        return key.orNothing(error);
    }
    static Key create(const Key& parent, const std::string& path, UINT32 access = KEY_ALL_ACCESS,
                      bool* pCreated = nullptr)
    {
        return detail::throwing(path,
                                [&](std::error_code& error) { return create(parent, path, access, pCreated, error); });
    }

    /// Deletes the key at a path below this one, and its values. It must have no sub-keys.
    void remove(const std::string& path, std::error_code& error) const
    {
        if (detail::isName(path, error))
            error = errorCode(OBRegDeleteKeyA(m_handle, path.c_str()));
    }
    void remove(const std::string& path) const
    {
        detail::throwing(path, [&](std::error_code& error) { remove(path, error); });
    }

    /// Reads a value as a std::string, StringList, UINT32, UINT64, Bytes or Value. A value of another type is the error
    /// Status::invalidParameter.
    template <class Type>
    Type get(const std::string& name, std::error_code& error) const
    {
        const Value value = query(name, error);
        if (error)
            return {};
        std::optional<Type> result = ValueOf<Type>::decode(value);
        if (!result)
            error = Status::invalidParameter;
        return std::move(result).value_or(Type());
    }
    template <class Type>
    Type get(const std::string& name) const
    {
        return detail::throwing(name, [&](std::error_code& error) { return get<Type>(name, error); });
    }

    /// Stores a value of a C++ type; text of any kind as a string. An empty Bytes or Value cannot be stored
    /// (Status::invalidParameter).
    template <class Type>
    void set(const std::string& name, const Type& data, std::error_code& error) const
    {
        if constexpr (std::is_convertible_v<const Type&, std::string_view>)
            store(name, ValueOf<std::string>::encode(data), error);
        else
            store(name, ValueOf<Type>::encode(data), error);
    }
    template <class Type>
    void set(const std::string& name, const Type& data) const
    {
        detail::throwing(name, [&](std::error_code& error) { set(name, data, error); });
    }

    void removeValue(const std::string& name, std::error_code& error) const
    {
        const bool unnamed = name.empty() || name == "@"; // set and get send these as "default"; a delete would not
        if (detail::isName(name, error))
            error = errorCode(OBRegDeleteValueA(m_handle, unnamed ? "default" : name.c_str()));
    }
    void removeValue(const std::string& name) const
    {
        detail::throwing(name, [&](std::error_code& error) { removeValue(name, error); });
    }

    KeyInfo info(std::error_code& error) const
    {
        KeyInfo info;
        error = errorCode(OBRegQueryInfoKeyA(m_handle, nullptr, nullptr, nullptr, &info.subKeys, &info.maxSubKeyLength,
                                             &info.maxClassLength, &info.values, &info.maxValueNameLength,
                                             &info.maxValueLength, nullptr, &info.lastWriteTime));
        return error ? KeyInfo() : info;
    }
    KeyInfo info() const
    {
        return detail::throwing("key information", [&](std::error_code& error) { return info(error); });
    }

    Entries<SubKey> subKeys() const { return {m_handle, nullptr}; }
    Entries<SubKey> subKeys(std::error_code& error) const { return {m_handle, &error}; }
    Entries<NamedValue> values() const { return {m_handle, nullptr}; }
    Entries<NamedValue> values(std::error_code& error) const { return {m_handle, &error}; }

    explicit operator bool() const { return m_handle != nullptr; }

    /// The handle, still this key's own.
    HANDLE handle() const { return m_handle; }

    /// Closes it now; it is empty afterwards.
    void close()
    {
        try {
            if (m_handle != nullptr && !m_root)
                OBRegCloseKey(m_handle);
        } catch (const std::bad_alloc&) { // left open: that costs less than a program that ends in a destructor
        }
        m_handle = nullptr;
    }

private:
    /// Itself, or an empty key after an error: a failed call may have stored a handle that is none.
    Key orNothing(const std::error_code& error)
    {
        if (error)
            m_handle = nullptr;
        return std::move(*this);
    }

    Value query(const std::string& name, std::error_code& error) const
    {
        Value value;
        if (!detail::isName(name, error))
            return value;
        value.data.resize(FirstRoom);
        for (;;) {
            auto length = static_cast<UINT32>(value.data.size());
            const REGSTATUS status =
                OBRegQueryValueExA(m_handle, name.c_str(), nullptr, &value.type, value.data.data(), &length);
            if (status == OBREG_STATUS_BUFFER_TOO_SMALL) { // again, until the value stops growing in between
                value.data.resize(length);
                continue;
            }
            error = errorCode(status);
            if (error)
                return {};
            value.data.resize(length);
            return value;
        }
    }

    void store(const std::string& name, Value value, std::error_code& error) const
    {
        if (!detail::isName(name, error))
            return;
        if (UINT64{value.data.size()} > std::numeric_limits<UINT32>::max()) {
            error = Status::tooLarge;
            return;
        }
        error = errorCode(OBRegSetValueExA(m_handle, name.c_str(), 0, value.type, value.data.data(),
                                           static_cast<UINT32>(value.data.size())));
    }

    static constexpr size_t FirstRoom = 256;

    HANDLE m_handle = nullptr;
    bool m_root = false;
};

inline Key classesRoot() { return Key::root(HKEY_CLASSES_ROOT); }
inline Key currentUser() { return Key::root(HKEY_CURRENT_USER); }
inline Key localMachine() { return Key::root(HKEY_LOCAL_MACHINE); }
inline Key users() { return Key::root(HKEY_USERS); }
inline Key performanceData() { return Key::root(HKEY_PERFORMANCE_DATA); }

namespace detail {

inline constexpr size_t FirstNameRoom = 256;

/// Asks for one sub-key with the room that entry.name has; grows it when that was too little.
inline REGSTATUS fetchOnce(HANDLE key, UINT32 index, SubKey& entry)
{
    entry.name.resize(std::max(entry.name.capacity(), FirstNameRoom));
    auto length = static_cast<int>(entry.name.size());
    const REGSTATUS status =
        OBRegEnumKeyExA(key, index, entry.name.data(), &length, nullptr, nullptr, nullptr, &entry.lastWriteTime);
    if (status == OBREG_STATUS_BUFFER_TOO_SMALL || status == OBREG_STATUS_SUCCESS)
        entry.name.resize(static_cast<size_t>(length));
    return status;
}

inline REGSTATUS fetchOnce(HANDLE key, UINT32 index, NamedValue& entry)
{
    std::string& data = entry.value.data;
    entry.name.resize(std::max(entry.name.capacity(), FirstNameRoom));
    data.resize(std::max(data.capacity(), FirstNameRoom));
    auto nameLength = static_cast<int>(entry.name.size());
    auto dataLength = static_cast<UINT32>(data.size());
    const REGSTATUS status = OBRegEnumValueA(key, index, entry.name.data(), &nameLength, nullptr, &entry.value.type,
                                             data.data(), &dataLength);
    if (status == OBREG_STATUS_BUFFER_TOO_SMALL || status == OBREG_STATUS_SUCCESS) {
        entry.name.resize(static_cast<size_t>(nameLength));
        data.resize(dataLength);
    }
    return status;
}

} // namespace detail

template <class Entry>
void Entries<Entry>::iterator::fetch()
{
    REGSTATUS status = OBREG_STATUS_BUFFER_TOO_SMALL;
    while (status == OBREG_STATUS_BUFFER_TOO_SMALL) // again, until the entry stops growing in between
        status = detail::fetchOnce(m_key, m_index, m_entry);
    if (m_pError != nullptr)
        m_pError->clear();
    if (status == OBREG_STATUS_SUCCESS)
        return;
    m_key = nullptr;
    if (status == OBREG_STATUS_NO_MORE_ENTRIES)
        return;
    if (m_pError == nullptr)
        throw std::system_error(errorCode(status), "enumeration");
    *m_pError = errorCode(status);
}

} // namespace obreg

#endif
