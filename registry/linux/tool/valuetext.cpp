#include "valuetext.h"

#include <limits>

#include "errors.h"
#include "text.h"

namespace obregtool {

namespace {

using obreg::StringList;
using obreg::Value;
using obreg::ValueOf;

enum class Nature { Text, List, Number32, Number64, Bytes };

const struct Type {
    UINT32 type;
    Nature nature;
    const char* pName;
} Types[] = {
    {REG_NONE, Nature::Bytes, "REG_NONE"},
    {REG_SZ, Nature::Text, "REG_SZ"},
    {REG_EXPAND_SZ, Nature::Text, "REG_EXPAND_SZ"},
    {REG_BINARY, Nature::Bytes, "REG_BINARY"},
    {REG_DWORD, Nature::Number32, "REG_DWORD"},
    {REG_DWORD_BIG_ENDIAN, Nature::Number32, "REG_DWORD_BIG_ENDIAN"},
    {REG_LINK, Nature::Text, "REG_LINK"},
    {REG_MULTI_SZ, Nature::List, "REG_MULTI_SZ"},
    {REG_RESOURCE_LIST, Nature::Bytes, "REG_RESOURCE_LIST"},
    {REG_FULL_RESOURCE_DESCRIPTOR, Nature::Bytes, "REG_FULL_RESOURCE_DESCRIPTOR"},
    {REG_RESOURCE_REQUIREMENTS_LIST, Nature::Bytes, "REG_RESOURCE_REQUIREMENTS_LIST"},
    {REG_QWORD, Nature::Number64, "REG_QWORD"},
    {REG_DWORD, Nature::Number32, "REG_DWORD_LITTLE_ENDIAN"},
    {REG_QWORD, Nature::Number64, "REG_QWORD_LITTLE_ENDIAN"},
};

const Type* typeOf(UINT32 type)
{
    for (const Type& known : Types)
        if (known.type == type)
            return &known;
    return nullptr;
}

Nature natureOf(UINT32 type)
{
    const Type* const pType = typeOf(type);
    return pType == nullptr ? Nature::Bytes : pType->nature;
}

template <class Stored>
Meaning meaningAs(const Value& value)
{
    auto decoded = ValueOf<Stored>::decode(value);
    return decoded ? Meaning(*decoded) : Meaning();
}

} // namespace

Meaning meaningOf(const Value& value)
{
    switch (natureOf(value.type)) {
    case Nature::Text:
        return meaningAs<std::string>(value);
    case Nature::List:
        return meaningAs<StringList>(value);
    case Nature::Number32:
    case Nature::Number64:
        return meaningAs<UINT64>(value);
    case Nature::Bytes:
        break;
    }
    return {};
}

Value valueMeaning(UINT32 type, const Meaning& meaning)
{
    Value value;
    if (const auto* pText = std::get_if<std::string>(&meaning))
        value = ValueOf<std::string>::encode(*pText);
    else if (const auto* pList = std::get_if<StringList>(&meaning))
        value = ValueOf<StringList>::encode(*pList);
    else if (const auto* pNumber = std::get_if<uint64_t>(&meaning))
        value = natureOf(type) == Nature::Number64 ? ValueOf<UINT64>::encode(*pNumber)
                                                   : ValueOf<UINT32>::encode(static_cast<UINT32>(*pNumber));
    if (type == REG_DWORD_BIG_ENDIAN)
        std::reverse(value.data.begin(), value.data.end());
    value.type = type;
    return value;
}

std::string typeName(UINT32 type)
{
    if (const Type* const pType = typeOf(type))
        return pType->pName;
    return "0x" + hexOfNumber(type, 8);
}

UINT32 typeArgument(const std::string& text)
{
    if (const auto number = numberOf(text, std::numeric_limits<UINT32>::max()))
        return static_cast<UINT32>(*number);
    for (const Type& type : Types)
        if (folded(text) == folded(type.pName) || folded(text) == folded(type.pName + 4))
            return type.type;
    throw UsageError("type \"" + text + "\" is not known; give a number or one of " + typeNames());
}

std::string typeNames()
{
    std::string names;
    for (const Type& type : Types)
        names += (names.empty() ? "" : ", ") + std::string(type.pName);
    return names;
}

Value valueOfArguments(UINT32 type, const std::vector<std::string>& data)
{
    const Nature nature = natureOf(type);
    if (nature == Nature::List) {
        for (const std::string& text : data)
            if (text.empty())
                throw UsageError("an empty string ends a list and cannot be in one; leave it out, or give the bytes "
                                 "with --data-file");
        return valueMeaning(type, data);
    }
    if (data.size() > 1)
        throw UsageError("several --data make a REG_MULTI_SZ; give one, or --type REG_MULTI_SZ");
    const std::string text = data.empty() ? "" : data.front();
    if (nature == Nature::Text)
        return valueMeaning(type, text);
    if (nature == Nature::Bytes) {
        const std::optional<std::string> bytes = bytesOfHex(text);
        if (!bytes || bytes->empty())
            throw UsageError("data \"" + text + "\" of " + typeName(type) +
                             ": give at least one byte as pairs of hexadecimal digits, or a --data-file");
        return {type, *bytes};
    }
    const bool wide = nature == Nature::Number64;
    const uint64_t greatest = wide ? std::numeric_limits<uint64_t>::max() : std::numeric_limits<UINT32>::max();
    const std::optional<uint64_t> number = numberOf(text, greatest);
    if (!number)
        throw UsageError("data \"" + text + "\" of " + typeName(type) + ": give a number from 0 to " +
                         std::to_string(greatest) + ", decimal or with 0x");
    return valueMeaning(type, *number);
}

std::string dataText(const Value& value)
{
    const Meaning meaning = meaningOf(value);
    if (const auto* pText = std::get_if<std::string>(&meaning))
        return escaped(*pText, Escape::Data);
    if (const auto* pNumber = std::get_if<uint64_t>(&meaning))
        return std::to_string(*pNumber);
    if (const auto* pList = std::get_if<StringList>(&meaning)) {
        std::string text;
        for (const std::string& one : *pList)
            text += (&one == pList->data() ? "" : "\\0") + escaped(one, Escape::Data);
        return text;
    }
    return hexOf(value.data);
}

std::string shownData(const Value& value, size_t mostBytes)
{
    const Meaning meaning = meaningOf(value);
    if (const auto* pText = std::get_if<std::string>(&meaning))
        return escaped(*pText, Escape::Data);
    if (const auto* pNumber = std::get_if<uint64_t>(&meaning))
        return std::to_string(*pNumber) + " (0x" + hexOfNumber(*pNumber, 1) + ")";
    if (const auto* pList = std::get_if<StringList>(&meaning)) {
        std::string text;
        for (const std::string& one : *pList)
            text += std::string(text.empty() ? "" : ", ") + '"' + escaped(one, Escape::Data) + '"';
        return text;
    }
    std::string text;
    for (size_t i = 0; i < std::min(value.data.size(), mostBytes); ++i)
        text += (text.empty() ? "" : " ") + hexOf(value.data.substr(i, 1));
    if (value.data.size() > mostBytes)
        text += " ... (" + std::to_string(value.data.size()) + " bytes)";
    return text;
}

std::string bareData(const Value& value)
{
    const Meaning meaning = meaningOf(value);
    if (const auto* pText = std::get_if<std::string>(&meaning))
        return *pText;
    if (const auto* pList = std::get_if<StringList>(&meaning)) {
        std::string text;
        for (const std::string& one : *pList)
            text += (&one == pList->data() ? "" : "\n") + one;
        return text;
    }
    return dataText(value);
}

} // namespace obregtool
