#include "valuetext.h"

#include <limits>

#include "errors.h"
#include "text.h"

namespace obregtool {

namespace {

using obreg::StringList;
using obreg::Value;
using obreg::ValueOf;

const struct Type {
    UINT32 type;
    const char* pName;
} Types[] = {
    {REG_NONE, "REG_NONE"},
    {REG_SZ, "REG_SZ"},
    {REG_EXPAND_SZ, "REG_EXPAND_SZ"},
    {REG_BINARY, "REG_BINARY"},
    {REG_DWORD, "REG_DWORD"},
    {REG_DWORD_BIG_ENDIAN, "REG_DWORD_BIG_ENDIAN"},
    {REG_LINK, "REG_LINK"},
    {REG_MULTI_SZ, "REG_MULTI_SZ"},
    {REG_RESOURCE_LIST, "REG_RESOURCE_LIST"},
    {REG_FULL_RESOURCE_DESCRIPTOR, "REG_FULL_RESOURCE_DESCRIPTOR"},
    {REG_RESOURCE_REQUIREMENTS_LIST, "REG_RESOURCE_REQUIREMENTS_LIST"},
    {REG_QWORD, "REG_QWORD"},
    {REG_DWORD, "REG_DWORD_LITTLE_ENDIAN"},
    {REG_QWORD, "REG_QWORD_LITTLE_ENDIAN"},
};

const Type* typeOf(UINT32 type)
{
    for (const Type& known : Types)
        if (known.type == type)
            return &known;
    return nullptr;
}

constexpr std::string_view HexMark = "hex:";

Value numberValue(UINT32 type, uint64_t number)
{
    Value value = natureOf(type) == Nature::Number64 ? ValueOf<UINT64>::encode(number)
                                                     : ValueOf<UINT32>::encode(static_cast<UINT32>(number));
    if (type == REG_DWORD_BIG_ENDIAN)
        std::reverse(value.data.begin(), value.data.end());
    value.type = type;
    return value;
}

std::string_view hexMark(const Value& value) { return natureOf(value.type) == Nature::Bytes ? "" : HexMark; }

void writeHex(const Value& value, const TakeText& take)
{
    take(hexMark(value));
    inPieces(value.data, [&](std::string_view piece) { take(hexOf(piece)); });
}

} // namespace

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
    const std::string text = data.empty() ? "" : data.front();
    if (nature == Nature::List) {
        if (data.size() == 1 && text.empty())
            return ValueOf<StringList>::encode({});
        for (const std::string& one : data)
            if (one.empty())
                throw UsageError("an empty string ends a list and cannot be in one; leave it out, or give the bytes "
                                 "with --data-file");
        return ValueOf<StringList>::encode(data);
    }
    if (data.size() > 1)
        throw UsageError("several --data make a REG_MULTI_SZ; give one, or --type REG_MULTI_SZ");
    if (nature == Nature::Text)
        return {type, text + '\0'};
    if (nature == Nature::Bytes) {
        if (type == REG_NONE && text.empty())
            return {REG_NONE, std::string(1, '\0')}; // no value can be stored without bytes
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
    return numberValue(type, *number);
}

void writeData(const Value& value, const TakeText& take)
{
    Meaning meaning = meaningOf(value);
    if (meaning.kind == Meaning::Bytes) {
        writeHex(value, take);
    } else if (meaning.kind == Meaning::Number) {
        take(std::to_string(meaning.number));
    } else {
        if (meaning.text.substr(0, HexMark.size()) == HexMark) { // text, and no mark
            take("\\x68");
            meaning.text.remove_prefix(1);
        }
        inPieces(meaning.text, [&](std::string_view piece) { take(escaped(piece, Escape::Data)); });
    }
}

std::string shownData(const Value& value, size_t mostBytes, size_t from)
{
    const Meaning meaning = meaningOf(value);
    std::string text;
    if (meaning.kind == Meaning::Text) {
        writeData(value, [&text](std::string_view piece) { text += piece; });
    } else if (meaning.kind == Meaning::Number) {
        text = std::to_string(meaning.number) + " (0x" + hexOfNumber(meaning.number, 1) + ")";
    } else if (meaning.kind == Meaning::List) {
        forEachString(meaning.text, [&text](std::string_view one) {
            text += std::string(text.empty() ? "" : ", ") + '"' + escaped(one, Escape::Quoted) + '"';
        });
    } else {
        text = hexMark(value);
        if (from != 0)
            text += std::string(text.empty() ? "" : " ") + "... at " + std::to_string(from) + ":";
        const size_t end = std::min(value.data.size() - from, mostBytes) + from;
        for (size_t i = from; i < end; ++i)
            text += (text.empty() ? "" : " ") + hexOf(value.data.substr(i, 1));
        if (from != 0 || end < value.data.size())
            text += std::string(end < value.data.size() ? " ..." : "") + " (" + std::to_string(value.data.size()) +
                    " bytes)";
    }
    return text;
}

size_t firstToShow(const Value& a, const Value& b)
{
    const size_t common = std::min(a.data.size(), b.data.size());
    const auto differs = std::mismatch(a.data.begin(), a.data.begin() + static_cast<ptrdiff_t>(common), b.data.begin());
    const auto from = static_cast<size_t>(differs.first - a.data.begin());
    return from < ShownBytes ? 0 : from - from % 16;
}

bool writeBare(const Value& value, const TakeText& take)
{
    const Meaning meaning = meaningOf(value);
    if (meaning.kind == Meaning::Number) {
        take(std::to_string(meaning.number));
    } else if (meaning.kind == Meaning::Text) {
        take(meaning.text);
    } else if (meaning.kind == Meaning::List && meaning.text.find('\n') == std::string_view::npos) {
        inPieces(meaning.text, [&](std::string_view piece) {
            std::string lines(piece);
            std::replace(lines.begin(), lines.end(), '\0', '\n');
            take(lines);
        });
    } else {
        writeHex(value, take);
        return hexMark(value).empty();
    }
    return true;
}

} // namespace obregtool
