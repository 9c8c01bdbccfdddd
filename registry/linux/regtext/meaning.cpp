#include "regtext/meaning.h"

#include <optional>

namespace regtext {

namespace {

Meaning textMeaning(std::string_view data)
{
    if (data.empty() || data.find('\0') != data.size() - 1)
        return {};
    return {Meaning::Text, data.substr(0, data.size() - 1)};
}

Meaning listMeaning(std::string_view data)
{
    using namespace std::string_view_literals;
    if (data == "\0"sv)
        return {Meaning::List};
    if (data.size() < 2 || data[0] == '\0' || data.find("\0\0"sv) != data.size() - 2)
        return {};
    return {Meaning::List, data.substr(0, data.size() - 2)};
}

Meaning numberMeaning(const obreg::Value& value)
{
    const std::optional<UINT64> number = obreg::ValueOf<UINT64>::decode(value);
    return number ? Meaning{Meaning::Number, {}, *number} : Meaning{};
}

} // namespace

Nature natureOf(UINT32 type)
{
    switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
    case REG_LINK:
        return Nature::Text;
    case REG_MULTI_SZ:
        return Nature::List;
    case REG_DWORD:
    case REG_DWORD_BIG_ENDIAN:
        return Nature::Number32;
    case REG_QWORD:
        return Nature::Number64;
    default:
        return Nature::Bytes;
    }
}

Meaning meaningOf(const obreg::Value& value)
{
    switch (natureOf(value.type)) {
    case Nature::Text:
        return textMeaning(value.data);
    case Nature::List:
        return listMeaning(value.data);
    case Nature::Number32:
    case Nature::Number64:
        return numberMeaning(value);
    case Nature::Bytes:
        break;
    }
    return {};
}

bool isStringType(UINT32 type) { return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ; }

} // namespace regtext
