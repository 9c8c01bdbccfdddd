#include "regtext/regwriter.h"

#include <algorithm>
#include <stdexcept>

#include "regtext/characters.h"
#include "regtext/keypath.h"
#include "regtext/meaning.h"

namespace regtext {

namespace {

constexpr size_t PieceSize = size_t{64} * 1024;
constexpr size_t LineWidth = 80;

void checkName(const std::string& name)
{
    if (std::any_of(name.begin(), name.end(), isControl))
        throw std::invalid_argument("the name \"" + escaped(name, Escape::Name) +
                                    "\" has control characters, which .reg text cannot hold");
}

/// As it stands between quotes.
std::string withBackslashes(std::string_view text)
{
    std::string result;
    for (const char c : text) {
        if (c == '"' || c == '\\')
            result += '\\';
        result += c;
    }
    return result;
}

/// A string that reads back from between quotes as the same bytes.
bool isCleanString(const obreg::Value& value)
{
    if (value.type != REG_SZ || value.data.empty() || value.data.back() != '\0')
        return false;
    const std::string_view text = std::string_view(value.data).substr(0, value.data.size() - 1);
    return std::none_of(text.begin(), text.end(), [](char c) { return isControl(c) || c == 0x7F; }) && isUtf8(text);
}

} // namespace

RegWriter::RegWriter(RegFormat format, std::function<void(std::string_view)> write, bool utf16Data)
    : m_format(format), m_write(std::move(write)), m_utf16Data(utf16Data)
{
    if (m_format == RegFormat::Utf16)
        m_write("\xFF\xFE");
    put(m_format == RegFormat::Regedit4 ? "REGEDIT4" : "Windows Registry Editor Version 5.00");
    endLine();
}

void RegWriter::key(const std::string& key) { section("[", key); }

void RegWriter::removeKey(const std::string& key) { section("[-", key); }

void RegWriter::section(const char* pBracket, const std::string& key)
{
    checkName(key);
    endLine();
    put(pBracket);
    put(key);
    put("]");
    endLine();
}

size_t RegWriter::valueName(const std::string& name)
{
    checkName(name);
    const std::string start = (name == "default" ? "@" : '"' + withBackslashes(name) + '"') + '=';
    put(start);
    return characters(start);
}

void RegWriter::removeValue(const std::string& name)
{
    valueName(name);
    put("-");
    endLine();
}

void RegWriter::value(const std::string& name, const obreg::Value& value)
{
    const size_t column = valueName(name);
    if (isCleanString(value)) {
        put("\"");
        inPieces(std::string_view(value.data).substr(0, value.data.size() - 1),
                 [this](std::string_view piece) { put(withBackslashes(piece)); });
        put("\"");
    } else if (value.type == REG_DWORD && value.data.size() == sizeof(UINT32)) {
        put("dword:");
        put(hexOfNumber(*obreg::ValueOf<UINT32>::decode(value), 8));
    } else {
        hex(value, column);
    }
    endLine();
}

void RegWriter::hex(const obreg::Value& value, size_t column)
{
    const std::string mark = value.type == REG_BINARY ? "hex:" : "hex(" + hexOfNumber(value.type, 1) + "):";
    put(mark);
    column += mark.size();
    const std::string converted = m_utf16Data && isStringType(value.type) ? toUtf16(value.data) : "";
    std::string_view data = converted.empty() ? std::string_view(value.data) : converted;
    char line[LineWidth];
    while (!data.empty()) {
        constexpr size_t each = 3; // characters of a byte and its comma; then there is room for a backslash
        const size_t count = column + 1 + each > LineWidth ? 0 : (LineWidth - 1 - column) / each;
        char* pEnd = line;
        for (const char byte : data.substr(0, count)) {
            *pEnd++ = HexDigits[static_cast<unsigned char>(byte) >> 4];
            *pEnd++ = HexDigits[byte & 15];
            *pEnd++ = ',';
        }
        data.remove_prefix(std::min(count, data.size()));
        put({line, static_cast<size_t>(pEnd - line) - (data.empty() ? 1 : 0)});
        if (data.empty())
            break;
        put("\\");
        endLine();
        put("  ");
        column = 2;
    }
}

void RegWriter::put(std::string_view text)
{
    m_text += text;
    if (m_text.size() >= PieceSize)
        finish();
}

void RegWriter::finish()
{
    if (m_format == RegFormat::Utf16)
        m_text = toUtf16(m_text);
    m_write(m_text);
    m_text.clear();
}

} // namespace regtext
