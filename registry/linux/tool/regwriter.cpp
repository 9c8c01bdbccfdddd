#include "regwriter.h"

#include <algorithm>
#include <stdexcept>

#include "keypath.h"
#include "text.h"

namespace obregtool {

namespace {

constexpr size_t PieceSize = size_t{64} * 1024;
constexpr size_t LineWidth = 80;

void checkName(const std::string& name)
{
    if (std::any_of(name.begin(), name.end(), isControl))
        throw std::invalid_argument("the name \"" + escaped(name, Escape::Name) +
                                    "\" has control characters, which .reg text cannot hold");
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

RegWriter::RegWriter(RegFormat format, std::function<void(std::string_view)> write)
    : m_format(format), m_write(std::move(write))
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

void RegWriter::valueName(const std::string& name)
{
    checkName(name);
    if (name == "default")
        put("@");
    else
        quoted(name);
    put("=");
}

void RegWriter::removeValue(const std::string& name)
{
    valueName(name);
    put("-");
    endLine();
}

void RegWriter::value(const std::string& name, const obreg::Value& value)
{
    const size_t begin = m_text.size();
    valueName(name);
    if (isCleanString(value)) {
        quoted(std::string_view(value.data).substr(0, value.data.size() - 1));
    } else if (value.type == REG_DWORD && value.data.size() == sizeof(UINT32)) {
        put("dword:");
        put(hexOfNumber(*obreg::ValueOf<UINT32>::decode(value), 8));
    } else {
        hex(value, characters(std::string_view(m_text).substr(begin)));
    }
    endLine();
    if (m_text.size() >= PieceSize)
        finish();
}

void RegWriter::hex(const obreg::Value& value, size_t column)
{
    const std::string mark = value.type == REG_BINARY ? "hex:" : "hex(" + hexOfNumber(value.type, 1) + "):";
    put(mark);
    column += mark.size();
    for (size_t i = 0; i < value.data.size(); ++i) {
        if (column + 4 > LineWidth) { // a byte, its comma and the backslash
            put("\\");
            endLine();
            put("  ");
            column = 2;
        }
        put(hexOf({&value.data[i], 1}));
        if (i + 1 < value.data.size())
            put(",");
        column += 3;
    }
}

void RegWriter::quoted(std::string_view text)
{
    m_text += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\')
            m_text += '\\';
        m_text += c;
    }
    m_text += '"';
}

void RegWriter::put(std::string_view text) { m_text += text; }

void RegWriter::finish()
{
    if (m_format == RegFormat::Utf16)
        m_text = toUtf16(m_text);
    m_write(m_text);
    m_text.clear();
}

} // namespace obregtool
