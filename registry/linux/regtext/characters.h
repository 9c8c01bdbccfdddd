// Bytes and text: UTF-8, UTF-16, case, escapes, numbers. Pure functions; any thread.
//
// The registry holds bytes. Where text is asked for, bytes that are no UTF-8 take detours on which none is lost.
#ifndef OBREG_REGTEXT_CHARACTERS_H
#define OBREG_REGTEXT_CHARACTERS_H

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace regtext {

/// Takes one character of UTF-8 from `text` at `at` and moves `at` behind it. Nothing, and `at` stays, when the bytes
/// there are none: overlong, a surrogate, above U+10FFFF or cut short.
std::optional<uint32_t> takeUtf8(std::string_view text, size_t& at);
void appendUtf8(std::string& text, uint32_t character);
bool isUtf8(std::string_view text);
/// Characters, a byte that is no UTF-8 counting as one.
size_t characters(std::string_view text);

/// UTF-16LE of UTF-8. A byte that is no UTF-8 becomes the lone surrogate 0xDC00 + byte.
std::string toUtf16(std::string_view text);

/// The way back, for bytes that come in pieces. A surrogate without its partner is a byte when toUtf16 makes one of a
/// byte, and otherwise written in three bytes like any character of its size.
class Utf16Reader {
public:
    void read(std::string_view bytes, std::string& text);
    /// Appends what was kept back. False when half a character was left.
    bool finish(std::string& text);

private:
    void unit(uint32_t unit, std::string& text);
    void lone(uint32_t unit, std::string& text);

    int m_firstByte = -1; // of a unit, or -1
    uint32_t m_high = 0;  // a high surrogate that waits for its partner, or 0
};

/// Text of UTF-16LE; nothing when half a character is left over.
std::optional<std::string> fromUtf16(std::string_view bytes);

inline bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20; }

/// ASCII letters in lower case: the registry finds names whatever their case.
std::string folded(std::string_view text);
inline char lowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

enum class Escape {
    Name,   ///< a name for a terminal: nothing but what would disturb it, as \xHH
    Data,   ///< data, unambiguous: also a backslash, as \\, and \t \n \r \0
    Quoted, ///< as Data, for between quotes: also a quote, as \"
    Screen, ///< as Name, but lines stay lines; backslashes in front of what looks like \xHH are doubled
    Pipe,   ///< a name for a program: control characters only
};
/// What would disturb a terminal: bytes that are no UTF-8, control characters, and those that turn the direction of
/// writing, which make text look like other text.
std::string escaped(std::string_view text, Escape how);

/// Calls f(piece) for pieces of a long text, which end between characters.
template <class F>
void inPieces(std::string_view text, const F& f)
{
    constexpr size_t length = size_t{64} * 1024;
    while (!text.empty()) {
        size_t end = std::min(length, text.size());
        for (size_t back = 0; back < 3 && end < text.size() && (text[end] & 0xC0) == 0x80; ++back)
            --end;
        f(text.substr(0, end));
        text.remove_prefix(end);
    }
}

inline constexpr char HexDigits[] = "0123456789abcdef";
std::string hexOf(std::string_view bytes); ///< two digits a byte
std::string hexOfNumber(uint64_t number, size_t leastDigits);

/// The value of a hexadecimal digit, or -1.
int hexDigit(char c);

} // namespace regtext

#endif
