// One call of each of the ten functions, with every result asked for, on a key of the caller's choice.
#ifndef OBREG_TESTS_TEN_CALLS_H
#define OBREG_TESTS_TEN_CALLS_H

#include <cstring>
#include <map>
#include <string>

#include "obreg/obreg.h"
#include "obreg/roots.h"
#include "support/scripted_daemon.h"

namespace TenCalls {

// Longer than what a string keeps without an allocation.
inline constexpr char Name[] = "a name that needs a block of its own";
inline constexpr char Doomed[] = "another name that needs a block of its own"; // what is deleted

struct Results {
    HANDLE opened = nullptr;
    UINT32 number = 0, type = 0, length = 64;
    int nameLength = 64;
    UINT64 time = 0;
    char name[64] = {}, data[64] = {};
};

struct Function {
    const char* pName;
    REGSTATUS (*call)(HANDLE key, Results& r);
};

inline constexpr Function all[] = {
    {"open", [](HANDLE key, Results& r) { return OBRegOpenKeyExA(key, Name, 0, 0, &r.opened); }},
    {"create",
     [](HANDLE key, Results& r) {
         return OBRegCreateKeyExA(key, Name, 0, nullptr, 0, 0, nullptr, &r.opened, &r.number);
     }},
    {"close", [](HANDLE key, Results&) { return OBRegCloseKey(key); }},
    {"delete key", [](HANDLE key, Results&) { return OBRegDeleteKeyA(key, Doomed); }},
    {"set", [](HANDLE key, Results& r) { return OBRegSetValueExA(key, Name, 0, REG_SZ, r.data, 64); }},
    {"query",
     [](HANDLE key, Results& r) { return OBRegQueryValueExA(key, Name, nullptr, &r.type, r.data, &r.length); }},
    {"delete value", [](HANDLE key, Results&) { return OBRegDeleteValueA(key, Doomed); }},
    {"enum key",
     [](HANDLE key, Results& r) {
         return OBRegEnumKeyExA(key, 0, r.name, &r.nameLength, nullptr, nullptr, nullptr, &r.time);
     }},
    {"enum value",
     [](HANDLE key, Results& r) {
         return OBRegEnumValueA(key, 0, r.name, &r.nameLength, nullptr, &r.type, r.data, &r.length);
     }},
    {"query info",
     [](HANDLE key, Results& r) {
         return OBRegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &r.number, nullptr, nullptr, &r.type, nullptr,
                                   nullptr, nullptr, &r.time);
     }},
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
