#include "regreader.h"

namespace obregtool {

namespace {

constexpr size_t LongestLine = 256u << 20; // more than a daemon takes as one value
constexpr const char* Headers[] = {"Windows Registry Editor Version 5.00", "REGEDIT4"};

std::string placeText(const Place& place)
{
    return "line " + std::to_string(place.line) + ", column " + std::to_string(place.column) + ": ";
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

} // namespace

RegSyntaxError::RegSyntaxError(Place where, const std::string& complaint)
    : std::runtime_error(placeText(where) + complaint), place(where)
{}

/// A position in one line.
class RegReader::Cursor {
public:
    Cursor(std::string_view text, uint64_t line) : m_text(text), m_line(line) {}

    bool atEnd() const { return m_at == m_text.size(); }
    /// The character here; a line feed at the end of the line, which is in no line.
    char peek() const { return atEnd() ? '\n' : m_text[m_at]; }
    size_t at() const { return m_at; }
    std::string_view rest() const { return m_text.substr(m_at); }
    void skip(size_t count) { m_at += count; }

    void skipBlanks()
    {
        while (isBlank(peek()))
            ++m_at;
    }
    bool accept(char c)
    {
        if (peek() != c)
            return false;
        ++m_at;
        return true;
    }
    bool acceptWord(std::string_view word)
    {
        if (folded(rest().substr(0, word.size())) != word)
            return false;
        m_at += word.size();
        return true;
    }
    /// Nothing but blanks and a comment may follow.
    void endOfStatement(const char* pBefore)
    {
        skipBlanks();
        if (!atEnd() && peek() != ';')
            expected(std::string("the end of the line or a comment after ") + pBefore);
    }

    Place place() const { return placeAt(m_at); }
    Place placeAt(size_t at) const { return {m_line, characters(m_text.substr(0, at)) + 1}; }

    [[noreturn]] void expected(const std::string& what) const
    {
        size_t end = m_at;
        if (!atEnd() && !takeUtf8(m_text, end))
            ++end;
        const std::string found =
            atEnd() ? "the end of the line" : '\'' + escaped(m_text.substr(m_at, end - m_at), Escape::Data) + '\'';
        throw RegSyntaxError(place(), "expected " + what + ", found " + found);
    }

    /// Between quotes, the first of which is here. Backslash and quote are escaped by a backslash.
    std::string quoted()
    {
        std::string result;
        for (++m_at; !accept('"'); ++m_at) {
            if (atEnd())
                expected("a quote that closes the string on its line");
            if (accept('\\') && peek() != '\\' && peek() != '"')
                expected(R"(\\ or \" (a backslash in a string is written twice))");
            if (peek() == '\0')
                expected("text without NUL (give the bytes as hex:)");
            result += peek();
        }
        return result;
    }

private:
    const std::string_view m_text;
    const uint64_t m_line;
    size_t m_at = 0;
};

void RegReader::feed(std::string_view bytes)
{
    if (m_encoding != Encoding::Unknown) {
        decode(bytes);
        return;
    }
    m_start += bytes;
    if (m_start.size() < 3)
        return;
    size_t mark = 0;
    m_encoding = Encoding::Bytes;
    if (m_start.compare(0, 2, "\xFF\xFE") == 0) {
        m_encoding = Encoding::Utf16;
        mark = 2;
    } else if (m_start.compare(0, 3, "\xEF\xBB\xBF") == 0) {
        mark = 3;
    }
    const std::string start = std::move(m_start);
    decode(std::string_view(start).substr(mark));
}

void RegReader::decode(std::string_view bytes)
{
    if (m_encoding == Encoding::Bytes) {
        text(bytes);
        return;
    }
    m_decoded.clear();
    m_utf16.read(bytes, m_decoded);
    text(m_decoded);
}

void RegReader::text(std::string_view text)
{
    for (;;) {
        const size_t end = text.find('\n');
        if (m_line.size() + std::min(end, text.size()) > LongestLine)
            throw RegSyntaxError({m_lines + 1, 1}, "expected a line of at most 256 MiB");
        if (end == std::string_view::npos)
            break;
        if (m_line.empty()) {
            line(text.substr(0, end));
        } else {
            m_line += text.substr(0, end);
            line(m_line);
            m_line.clear();
        }
        text.remove_prefix(end + 1);
    }
    m_line += text;
}

void RegReader::finish()
{
    if (m_encoding == Encoding::Unknown)
        text(m_start);
    m_decoded.clear();
    const bool whole = m_utf16.finish(m_decoded);
    text(m_decoded);
    if (!m_line.empty() || !m_haveHeader)
        line(m_line);
    if (!whole)
        throw RegSyntaxError({m_lines, 1}, "expected a whole UTF-16 character at the end, found one byte");
    if (m_hex)
        Cursor({}, m_lines + 1).expected("more bytes: the line before ends in a backslash");
}

void RegReader::line(std::string_view line)
{
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    Cursor cursor(line, ++m_lines);
    if (m_hex)
        readHex(cursor);
    else if (m_haveHeader)
        statement(cursor);
    else
        header(cursor);
}

void RegReader::header(Cursor& cursor)
{
    for (const char* const pHeader : Headers)
        if (cursor.rest().substr(0, std::string_view(pHeader).size()) == pHeader) {
            cursor.skip(std::string_view(pHeader).size());
            cursor.endOfStatement("the header");
            m_haveHeader = true;
            return;
        }
    cursor.expected(std::string("the header \"") + Headers[0] + "\" or \"" + Headers[1] +
                    "\" (in UTF-8, or UTF-16LE with a byte-order mark)");
}

void RegReader::statement(Cursor& cursor)
{
    cursor.skipBlanks();
    if (cursor.atEnd() || cursor.peek() == ';')
        return;
    if (cursor.peek() == '[')
        keyStatement(cursor);
    else if (cursor.peek() == '"' || cursor.peek() == '@')
        valueStatement(cursor);
    else
        cursor.expected("[key], \"name\"=, @= or a comment");
}

void RegReader::keyStatement(Cursor& cursor)
{
    const Place place = cursor.place();
    cursor.skip(1);
    const size_t close = cursor.rest().rfind(']'); // a name may have one too
    if (close == std::string_view::npos) {
        cursor.skip(cursor.rest().size());
        cursor.expected("] after the key");
    }
    const bool remove = cursor.accept('-');
    const std::string_view text = cursor.rest().substr(0, close - (remove ? 1 : 0));
    KeyPath key;
    try {
        key = parseKey(text, false);
    } catch (const BadKey& bad) {
        throw RegSyntaxError(cursor.placeAt(cursor.at() + bad.offset), "expected a key, but " + bad.message);
    }
    if (remove && key.isRoot())
        cursor.expected("a key below the root: a root cannot be deleted");
    cursor.skip(text.size() + 1);
    cursor.endOfStatement("the key");
    m_haveKey = !remove;
    if (remove)
        m_sink.removeKey(key, place);
    else
        m_sink.key(key, place);
}

void RegReader::valueStatement(Cursor& cursor)
{
    const Place place = cursor.place();
    if (!m_haveKey)
        cursor.expected("a [key] before this value");
    std::string name = "default";
    if (!cursor.accept('@')) {
        const std::string text = cursor.quoted();
        if (text == "@")
            throw RegSyntaxError(place, "expected another name: here \"@\" would be the unnamed value, which is "
                                        "written without the quotes");
        for (const char c : text)
            if (isControl(c))
                throw RegSyntaxError(place, "expected a name without control characters");
        if (!text.empty())
            name = text;
    }
    cursor.skipBlanks();
    if (!cursor.accept('='))
        cursor.expected("= after the value's name");
    cursor.skipBlanks();
    if (cursor.accept('-')) {
        cursor.endOfStatement("the -");
        m_sink.removeValue(std::move(name), place);
    } else if (cursor.peek() == '"') {
        obreg::Value value{REG_SZ, cursor.quoted() + '\0'};
        cursor.endOfStatement("the string");
        m_sink.value(std::move(name), std::move(value), place);
    } else {
        startHex(cursor, std::move(name), place);
    }
}

void RegReader::startHex(Cursor& cursor, std::string&& name, const Place& place)
{
    const auto number = [&cursor](const char* pWhat) {
        UINT32 result = 0;
        size_t digits = 0;
        for (; hexDigit(cursor.peek()) >= 0 && digits < 8; ++digits, cursor.skip(1))
            result = result << 4 | static_cast<UINT32>(hexDigit(cursor.peek()));
        if (digits == 0 || hexDigit(cursor.peek()) >= 0)
            cursor.expected(pWhat);
        return result;
    };
    if (cursor.acceptWord("dword:")) {
        cursor.skipBlanks();
        const UINT32 dword = number("1 to 8 hexadecimal digits");
        cursor.endOfStatement("the number");
        m_sink.value(std::move(name), obreg::ValueOf<UINT32>::encode(dword), place);
        return;
    }
    Hex hex{std::move(name), {REG_BINARY, {}}, place, true};
    if (cursor.acceptWord("hex(")) {
        hex.value.type = number("the type as 1 to 8 hexadecimal digits");
        if (!cursor.acceptWord("):"))
            cursor.expected("): after the type");
    } else if (!cursor.acceptWord("hex:")) {
        cursor.expected("\"text\", dword:, hex:, hex(type): or -");
    }
    m_hex = std::move(hex);
    readHex(cursor);
}

void RegReader::readHex(Cursor& cursor)
{
    std::string& data = m_hex->value.data;
    for (;;) {
        cursor.skipBlanks();
        if (cursor.accept('\\')) {
            cursor.endOfStatement("the backslash that continues the value");
            return;
        }
        if (!m_hex->expectByte) {
            if (cursor.atEnd() || cursor.peek() == ';')
                break;
            if (!cursor.accept(','))
                cursor.expected("a comma, a backslash or the end of the line after a byte");
            m_hex->expectByte = true;
            continue;
        }
        const int high = hexDigit(cursor.peek());
        if (high < 0)
            cursor.expected(data.empty() ? "two hexadecimal digits (an empty value cannot be stored)"
                                         : "two hexadecimal digits after the comma");
        cursor.skip(1);
        const int low = hexDigit(cursor.peek());
        if (low >= 0)
            cursor.skip(1);
        data += static_cast<char>(low < 0 ? high : high << 4 | low);
        m_hex->expectByte = false;
        if (data.size() > LongestLine)
            cursor.expected("a value of at most 256 MiB");
    }
    Hex hex = *std::exchange(m_hex, std::nullopt);
    m_sink.value(std::move(hex.name), std::move(hex.value), hex.place);
}

} // namespace obregtool
