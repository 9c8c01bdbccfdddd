#include "regtext/regreader.h"

#include <charconv>
#include <utility>

#include "regtext/meaning.h"

namespace regtext {

namespace {

constexpr size_t LongestLine = 256u << 20; // more than a daemon takes as one value

// The header, and what is said of a first line that is none, by how that begins (in lower case).
constexpr const char* Headers[] = {"windows registry editor version 5.00", "regedit4"};
constexpr const char* Header = R"(the header "Windows Registry Editor Version 5.00" or "REGEDIT4")";
constexpr struct {
    const char* pStart;
    const char* pMore;
} Mistaken[] = {
    {"windows registry editor version", " (this is another version of the text, which is not known here)"},
    {"regedit", " (this is another version of the text, which is not known here)"},
    {"[", " in front of the first key (is the file's first line missing?)"},
    {";", " in front of the first comment"},
    {"", " in the file's first line"},
};

// Byte-order marks, and how a first character looks in encodings that are not read.
constexpr struct {
    std::string_view start;
    const char* pName;
} OtherEncodings[] = {
    {{"\xFF\xFE\0\0", 4}, "UTF-32"},
    {{"\0\0", 2}, "UTF-32"},
    {{"\xFE\xFF", 2}, "UTF-16BE"},
    {{"\0", 1}, "UTF-16BE"},
};
constexpr std::string_view Utf16Mark = "\xFF\xFE";
constexpr std::string_view Utf8Mark = "\xEF\xBB\xBF";
constexpr size_t LongestStart = 4;
constexpr std::string_view Unchanged = "unchanged-since=";

std::string placeText(const Place& place)
{
    return "line " + std::to_string(place.line) + ", column " + std::to_string(place.column) + ": ";
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

} // namespace

RegSyntaxError::RegSyntaxError(Place where, const std::string& what)
    : std::runtime_error(placeText(where) + what), place(where), complaint(what)
{}

/// A position in one line.
class RegReader::Cursor {
public:
    Cursor(std::string_view text, uint64_t line) : m_text(text), m_line(line) {}

    void backToStart() { m_at = 0; }
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
    void endOfStatement(const std::string& before)
    {
        skipBlanks();
        if (!atEnd() && peek() != ';')
            expected("the end of the line or a comment after " + before);
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
        for (++m_at; !accept('"');) {
            if (atEnd())
                expected("a quote that closes the name on its line");
            result += stringCharacter();
        }
        return result;
    }
    char stringCharacter()
    {
        if (accept('\\') && peek() != '\\' && peek() != '"')
            expected(R"(\\ or \" (a backslash in a string is written twice))");
        if (peek() == '\0')
            expected("text without NUL (give the bytes as hex:)");
        return m_text[m_at++];
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
    if (m_start.size() >= LongestStart)
        start();
}

/// Finds out the encoding.
void RegReader::start()
{
    const std::string held = std::move(m_start);
    std::string_view bytes = held;
    const auto startsWith = [&bytes](std::string_view start) { return bytes.substr(0, start.size()) == start; };
    for (const auto& other : OtherEncodings)
        if (startsWith(other.start))
            throw RegSyntaxError({1, 1}, std::string("expected a file in UTF-8 or UTF-16LE, found ") + other.pName +
                                             " (\"iconv -f " + other.pName + " -t UTF-8\" converts it)");
    m_encoding = Encoding::Bytes;
    if (startsWith(Utf16Mark) || (bytes.size() > 1 && bytes[1] == '\0')) // every header begins with ASCII
        m_encoding = Encoding::Utf16;
    if (startsWith(Utf16Mark))
        bytes.remove_prefix(Utf16Mark.size());
    if (startsWith(Utf8Mark))
        bytes.remove_prefix(Utf8Mark.size());
    decode(bytes);
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
            line(text.substr(0, end), true);
        } else {
            m_line += text.substr(0, end);
            line(m_line, true);
            m_line.clear();
        }
        text.remove_prefix(end + 1);
    }
    m_line += text;
}

void RegReader::finish()
{
    if (m_encoding == Encoding::Unknown)
        start();
    m_decoded.clear();
    const bool whole = m_utf16.finish(m_decoded);
    text(m_decoded);
    if (!m_line.empty() || !m_haveHeader)
        line(m_line, false);
    if (!whole)
        throw RegSyntaxError({m_lines, 1}, "expected a whole UTF-16 character at the end, found one byte");
    if (!m_value)
        return;
    const Cursor end({}, m_lines + 1);
    if (m_value->isString)
        end.expected("a quote that closes the string that begins in line " + std::to_string(m_value->place.line));
    end.expected("more bytes: the line before ends in a backslash");
}

void RegReader::line(std::string_view line, bool ended)
{
    const bool isCrLf = !line.empty() && line.back() == '\r';
    if (isCrLf)
        line.remove_suffix(1);
    Cursor cursor(line, ++m_lines);
    if (!m_haveHeader)
        header(cursor);
    else if (!m_value)
        statement(cursor);
    else if (m_value->isString)
        readString(cursor);
    else
        readHex(cursor);
    if (m_value && m_value->isString && ended) // a string may have line ends, which are what they are
        m_value->value.data += isCrLf ? "\r\n" : "\n";
}

void RegReader::header(Cursor& cursor)
{
    cursor.skipBlanks();
    for (const char* const pHeader : Headers)
        if (cursor.acceptWord(pHeader)) {
            cursor.endOfStatement("the header");
            m_haveHeader = true;
            return;
        }
    for (const auto& mistaken : Mistaken)
        if (cursor.acceptWord(mistaken.pStart)) {
            cursor.backToStart();
            cursor.expected(std::string(Header) + mistaken.pMore);
        }
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
    else if (m_isTransaction && cursor.acceptWord(Unchanged))
        unchangedStatement(cursor);
    else
        cursor.expected("[key], \"name\"=, @= or a comment");
}

void RegReader::unchangedStatement(Cursor& cursor)
{
    const Place place = cursor.placeAt(cursor.at() - Unchanged.size());
    if (!m_haveKey || !m_isCondition)
        cursor.expected("a [?key] before this condition");
    const std::string_view rest = cursor.rest();
    uint64_t since = 0;
    const auto [pEnd, error] = std::from_chars(rest.data(), rest.data() + rest.size(), since);
    if (error != std::errc())
        cursor.expected("the number of a change");
    cursor.skip(static_cast<size_t>(pEnd - rest.data()));
    cursor.endOfStatement("the number");
    m_sink.requireUnchanged(since, place);
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
    const size_t begin = cursor.at();
    const bool condition = cursor.peek() == '?';
    if (condition && !m_isTransaction)
        cursor.expected("a key ([? begins a condition, which only a transaction has: import the file with --atomic)");
    cursor.skip(condition ? 1 : 0);
    const bool remove = cursor.accept('-');
    const std::string_view text = cursor.rest().substr(0, close - (cursor.at() - begin));
    KeyPath key;
    try {
        key = parseKey(text, m_isTransaction ? KeyForm::Handles : KeyForm::Plain);
    } catch (const BadKey& bad) {
        throw RegSyntaxError(cursor.placeAt(cursor.at() + bad.offset), "expected a key, but " + bad.message);
    }
    if (remove && !condition && key.isRoot())
        cursor.expected("a key below the root: a root cannot be deleted");
    cursor.skip(text.size() + 1);
    cursor.endOfStatement("the key");
    m_haveKey = !remove;
    m_isCondition = condition;
    if (condition && remove)
        m_sink.requireNoKey(key, place);
    else if (condition)
        m_sink.requireKey(key, place);
    else if (remove)
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
        if (m_isCondition)
            m_sink.requireNoValue(std::move(name), place);
        else
            m_sink.removeValue(std::move(name), place);
    } else if (cursor.accept('"')) {
        m_value = {std::move(name), {REG_SZ, {}}, place, true};
        readString(cursor);
    } else if (cursor.acceptWord("dword:")) {
        cursor.skipBlanks();
        const UINT32 dword = hexNumber(cursor, "1 to 8 hexadecimal digits");
        cursor.endOfStatement("the number");
        takeValue(std::move(name), obreg::ValueOf<UINT32>::encode(dword), place);
    } else {
        UINT32 type = REG_BINARY;
        if (cursor.acceptWord("hex(")) {
            type = hexNumber(cursor, "the type as 1 to 8 hexadecimal digits");
            if (!cursor.acceptWord("):"))
                cursor.expected("): after the type");
        } else if (!cursor.acceptWord("hex:")) {
            cursor.expected("\"text\", dword:, hex:, hex(type): or -");
        }
        m_value = {std::move(name), {type, {}}, place, false};
        readHex(cursor);
    }
}

UINT32 RegReader::hexNumber(Cursor& cursor, const char* pWhat)
{
    UINT32 result = 0;
    size_t digits = 0;
    for (; hexDigit(cursor.peek()) >= 0 && digits < 8; ++digits, cursor.skip(1))
        result = result << 4 | static_cast<UINT32>(hexDigit(cursor.peek()));
    if (digits == 0 || hexDigit(cursor.peek()) >= 0)
        cursor.expected(pWhat);
    return result;
}

void RegReader::readString(Cursor& cursor)
{
    std::string& text = m_value->value.data;
    for (; !cursor.accept('"'); text += cursor.stringCharacter()) {
        if (text.size() > LongestLine)
            cursor.expected("a string of at most 256 MiB");
        if (cursor.atEnd())
            return;
    }
    const uint64_t begin = m_value->place.line;
    cursor.endOfStatement("the string" + (begin == cursor.place().line
                                              ? std::string()
                                              : " that begins in line " + std::to_string(begin)));
    text += '\0';
    finishValue();
}

void RegReader::readHex(Cursor& cursor)
{
    std::string& data = m_value->value.data;
    for (;;) {
        cursor.skipBlanks();
        if (cursor.accept('\\')) {
            cursor.endOfStatement("the backslash that continues the value");
            return;
        }
        const bool atEnd = cursor.atEnd() || cursor.peek() == ';';
        if (atEnd && (data.empty() || !m_value->expectByte))
            break;
        if (!m_value->expectByte) {
            if (!cursor.accept(','))
                cursor.expected("a comma, a backslash or the end of the line after a byte");
            m_value->expectByte = true;
            continue;
        }
        const int high = hexDigit(cursor.peek());
        if (high < 0)
            cursor.expected(data.empty() ? "two hexadecimal digits" : "two hexadecimal digits after the comma");
        cursor.skip(1);
        const int low = hexDigit(cursor.peek());
        if (low >= 0)
            cursor.skip(1);
        data += static_cast<char>(low < 0 ? high : high << 4 | low);
        m_value->expectByte = false;
        if (data.size() > LongestLine)
            cursor.expected("a value of at most 256 MiB");
    }
    if (isStringType(m_value->value.type))
        readUtf16(cursor);
    finishValue();
}

void RegReader::readUtf16(Cursor& cursor)
{
    const UINT32 type = m_value->value.type;
    std::string& data = m_value->value.data;
    std::optional<std::string> converted = fromUtf16(data);
    if (m_utf16Data) {
        if (!converted)
            cursor.expected("another byte: UTF-16 has an even number");
        data = *std::move(converted);
        return;
    }
    const auto isText = [type](const std::string& bytes) {
        return meaningOf({type, bytes}).kind != Meaning::Bytes && isUtf8(bytes);
    };
    if (!converted || isText(data))
        return;
    const bool cutOff = data.find('\0') != std::string::npos && isText(*converted + '\0');
    if ((cutOff || isText(*converted)) && m_utf16Alike++ == 0)
        m_firstUtf16Alike = m_value->place;
}

void RegReader::takeValue(std::string&& name, obreg::Value&& value, const Place& place)
{
    if (m_isCondition)
        m_sink.requireValue(std::move(name), std::move(value), place);
    else
        m_sink.value(std::move(name), std::move(value), place);
}

void RegReader::finishValue()
{
    Unfinished value = *std::exchange(m_value, std::nullopt);
    takeValue(std::move(value.name), std::move(value.value), value.place);
}

} // namespace regtext
