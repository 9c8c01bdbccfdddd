// value.hpp - a registry value, and how C++ types are stored in one. Part of <obreg/registry.hpp>.
//
// Stateless; any thread.
#ifndef OBREG_VALUE_HPP
#define OBREG_VALUE_HPP

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <obreg/obreg.h>
#include <obreg/roots.h>

namespace obreg {

/// A value's data as it is stored, and its REG_ type.
struct Value {
    UINT32 type = REG_NONE;
    std::string data;

    friend bool operator==(const Value& a, const Value& b) { return a.type == b.type && a.data == b.data; }
    friend bool operator!=(const Value& a, const Value& b) { return !(a == b); }
};

using Bytes = std::vector<std::byte>;
using StringList = std::vector<std::string>;

/// How a C++ type is stored. `encode` gives the value, `decode` reads one, or gives nothing when it is of another type.
template <class Type>
struct ValueOf;

namespace detail {

template <class Number>
std::string littleEndian(Number number)
{
    std::string data(sizeof(Number), '\0');
    for (char& byte : data) {
        byte = static_cast<char>(number & 0xFF);
        number = static_cast<Number>(number >> 8);
    }
    return data;
}

template <class Number>
std::optional<Number> fromLittleEndian(std::string_view data)
{
    if (data.size() != sizeof(Number))
        return std::nullopt;
    Number number = 0;
    for (size_t i = data.size(); i-- > 0;)
        number = static_cast<Number>(number << 8 | static_cast<unsigned char>(data[i]));
    return number;
}

} // namespace detail

/// REG_SZ; REG_EXPAND_SZ and REG_LINK are read as well.
template <>
struct ValueOf<std::string> {
    static Value encode(std::string_view text) { return {REG_SZ, std::string(text) + '\0'}; }
    static std::optional<std::string> decode(const Value& value)
    {
        if (value.type != REG_SZ && value.type != REG_EXPAND_SZ && value.type != REG_LINK)
            return std::nullopt;
        std::string text = value.data;
        if (!text.empty() && text.back() == '\0')
            text.pop_back();
        return text;
    }
};

/// REG_MULTI_SZ. An empty string ends the list, so it cannot be stored in one.
template <>
struct ValueOf<StringList> {
    static Value encode(const StringList& list)
    {
        Value value{REG_MULTI_SZ, {}};
        for (const std::string& text : list)
            value.data += text + '\0';
        value.data += '\0';
        return value;
    }
    static std::optional<StringList> decode(const Value& value)
    {
        if (value.type != REG_MULTI_SZ)
            return std::nullopt;
        StringList list;
        for (size_t begin = 0; begin < value.data.size() && value.data[begin] != '\0';) {
            const size_t end = std::min(value.data.find('\0', begin), value.data.size());
            list.push_back(value.data.substr(begin, end - begin));
            begin = end + 1;
        }
        return list;
    }
};

/// REG_DWORD; REG_DWORD_BIG_ENDIAN is read as well.
template <>
struct ValueOf<UINT32> {
    static Value encode(UINT32 number) { return {REG_DWORD, detail::littleEndian(number)}; }
    static std::optional<UINT32> decode(const Value& value)
    {
        if (value.type == REG_DWORD_BIG_ENDIAN)
            return detail::fromLittleEndian<UINT32>(std::string(value.data.rbegin(), value.data.rend()));
        return value.type == REG_DWORD ? detail::fromLittleEndian<UINT32>(value.data) : std::nullopt;
    }
};

/// REG_QWORD; a REG_DWORD is read as well.
template <>
struct ValueOf<UINT64> {
    static Value encode(UINT64 number) { return {REG_QWORD, detail::littleEndian(number)}; }
    static std::optional<UINT64> decode(const Value& value)
    {
        if (value.type == REG_QWORD)
            return detail::fromLittleEndian<UINT64>(value.data);
        const std::optional<UINT32> narrow = ValueOf<UINT32>::decode(value);
        return narrow ? std::optional<UINT64>(*narrow) : std::nullopt;
    }
};

/// REG_BINARY; data of any type is read.
template <>
struct ValueOf<Bytes> {
    static Value encode(const Bytes& bytes)
    {
        return {REG_BINARY, std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size())};
    }
    static std::optional<Bytes> decode(const Value& value)
    {
        const auto* const pBytes = reinterpret_cast<const std::byte*>(value.data.data());
        return Bytes(pBytes, pBytes + value.data.size());
    }
};

/// Any type, as it is.
template <>
struct ValueOf<Value> {
    static Value encode(Value value) { return value; }
    static std::optional<Value> decode(Value value) { return value; }
};

} // namespace obreg

#endif
