// One call of each of the ten functions, with every result asked for, on a key of the caller's choice.
#ifndef OBREG_TESTS_TEN_CALLS_H
#define OBREG_TESTS_TEN_CALLS_H

#include <cstring>
#include <map>
#include <string>
#include <type_traits>

#include "common/msgproto.h"
#include "obreg/obreg.h"
#include "obreg/roots.h"
#include "support/encoded.h"

namespace TenCalls {

// Longer than what a string keeps without an allocation.
inline constexpr char Name[] = "a name that needs a block of its own";
inline constexpr char Doomed[] = "another name that needs a block of its own"; // what is deleted

struct Results {
    HANDLE opened = nullptr, created = nullptr;
    UINT32 disposition = 0, type = 0, length = 64, figures[6] = {};
    int nameLength = 64;
    UINT64 time = 0;
    char name[64] = {}, data[64] = {};
};

inline bool same(const Results& a, const Results& b)
{
    static_assert(std::has_unique_object_representations_v<Results>);
    return memcmp(&a, &b, sizeof(a)) == 0;
}

struct Function {
    const char* pName; ///< as the log has it
    REGSTATUS (*call)(HANDLE key, Results& r);
    std::string (*request)(HANDLE key); ///< what it sends
};

inline constexpr Function all[] = {
    {"OBRegOpenKeyExA", [](HANDLE key, Results& r) { return OBRegOpenKeyExA(key, Name, 1, 2, &r.opened); },
     [](HANDLE key) { return encoded(OpenKeyReqMsg(key, Name, 1, 2)); }},
    {"OBRegCreateKeyExA",
     [](HANDLE key, Results& r) {
         return OBRegCreateKeyExA(key, Name, 9, nullptr, 1, 2, nullptr, &r.created, &r.disposition);
     },
     [](HANDLE key) { return encoded(CreateKeyReqMsg(key, Name, 1, 2)); }},
    {"OBRegCloseKey", [](HANDLE key, Results&) { return OBRegCloseKey(key); },
     [](HANDLE key) { return encoded(CloseKeyReqMsg(key)); }},
    {"OBRegDeleteKeyA", [](HANDLE key, Results&) { return OBRegDeleteKeyA(key, Doomed); },
     [](HANDLE key) { return encoded(DeleteKeyReqMsg(key, Doomed)); }},
    {"OBRegSetValueExA", [](HANDLE key, Results& r) { return OBRegSetValueExA(key, Name, 9, REG_SZ, r.data, 64); },
     [](HANDLE key) { return encoded(SetValueReqMsg(key, Name, REG_SZ, Results().data, 64)); }},
    {"OBRegQueryValueExA",
     [](HANDLE key, Results& r) { return OBRegQueryValueExA(key, Name, nullptr, &r.type, r.data, &r.length); },
     [](HANDLE key) { return encoded(QueryValueReqMsg(key, Name)); }},
    {"OBRegDeleteValueA", [](HANDLE key, Results&) { return OBRegDeleteValueA(key, Doomed); },
     [](HANDLE key) { return encoded(DeleteValueReqMsg(key, Doomed)); }},
    {"OBRegEnumKeyExA",
     [](HANDLE key, Results& r) {
         return OBRegEnumKeyExA(key, 0, r.name, &r.nameLength, nullptr, nullptr, nullptr, &r.time);
     },
     [](HANDLE key) { return encoded(EnumKeyReqMsg(key, 0)); }},
    {"OBRegEnumValueA",
     [](HANDLE key, Results& r) {
         return OBRegEnumValueA(key, 0, r.name, &r.nameLength, nullptr, &r.type, r.data, &r.length);
     },
     [](HANDLE key) { return encoded(EnumValueReqMsg(key, 0)); }},
    {"OBRegQueryInfoKeyExA",
     [](HANDLE key, Results& r) {
         UINT32* const f = r.figures;
         return OBRegQueryInfoKeyA(key, nullptr, nullptr, nullptr, f, f + 1, f + 2, f + 3, f + 4, f + 5, nullptr,
                                   &r.time);
     },
     [](HANDLE key) { return encoded(QueryInfoKeyReqMsg(key)); }},
};

/// Replies that answer any request, by the digits of its type code; every one carries `status`.
inline std::map<std::string, std::string> goodReplies(REGSTATUS status)
{
    const auto handle = [](uintptr_t value) { return reinterpret_cast<HANDLE>(value); };
    return {
        {"01", encoded(CloseKeyRespMsg(status))},
        {"02", encoded(CreateKeyRespMsg(status, handle(0x2B), 1))},
        {"03", encoded(DeleteKeyRespMsg(status))},
        {"04", encoded(DeleteValueRespMsg(status))},
        {"05", encoded(EnumKeyRespMsg(status, "child", 0x01D2C3B4A5968778))},
        {"06", encoded(EnumValueRespMsg(status, "value", 3, "data", 4))},
        {"07", encoded(OpenKeyRespMsg(status, handle(0x2A)))},
        {"08", encoded(QueryValueRespMsg(status, 3, "data", 4))},
        {"09", encoded(SetValueRespMsg(status))},
        {"0A", encoded(QueryInfoKeyRespMsg(status, 1, 2, 3, 4, 5, 6, 0x01D2C3B4A5968778))},
    };
}

} // namespace TenCalls

#endif
