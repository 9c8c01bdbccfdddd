// The text primitives under carrier headers and messages: hexadecimal numbers, handles and CRLF lines.
//
// Stateless and bounded: the readers look only at the bytes they are given and write nowhere; the writers put text at
// a pointer whose room the caller has reckoned, and return the byte after it.
#ifndef OBREG_COMMON_WIRETEXT_H
#define OBREG_COMMON_WIRETEXT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>

namespace wiretext {

inline constexpr std::string_view Crlf = "\r\n";
inline constexpr std::string_view NullHandle = "(nil)";

inline char* put(char* pOut, std::string_view text)
{
    if (!text.empty())
        std::memcpy(pOut, text.data(), text.size());
    return pOut + text.size();
}

/// Writes all the digits of value, upper case with leading zeros: 8 of a 32-bit number, 16 of a 64-bit one.
template <class Number>
char* putHex(char* pOut, Number value)
{
    constexpr int digits = 2 * sizeof(Number);
    for (int i = digits - 1; i >= 0; --i, value >>= 4)
        pOut[i] = "0123456789ABCDEF"[value & 15];
    return pOut + digits;
}

/// Writes a handle as the C library's "%p" does: "0x" and lower-case digits without leading zeros, "(nil)" for null.
inline char* putHandle(char* pOut, uintptr_t handle)
{
    if (handle == 0)
        return put(pOut, NullHandle);
    pOut = put(pOut, "0x");
    int shift = 0;
    while (shift + 4 < std::numeric_limits<uintptr_t>::digits && handle >> (shift + 4) != 0)
        shift += 4;
    for (; shift >= 0; shift -= 4)
        *pOut++ = "0123456789abcdef"[handle >> shift & 15];
    return pOut;
}

inline constexpr uint8_t NoDigit = 16;

inline constexpr std::array<uint8_t, 256> DigitValues = [] {
    std::array<uint8_t, 256> values{};
    for (uint8_t& value : values)
        value = NoDigit;
    for (uint8_t i = 0; i < 10; ++i)
        values[static_cast<size_t>('0') + i] = i;
    for (uint8_t i = 0; i < 6; ++i)
        values[static_cast<size_t>('a') + i] = values[static_cast<size_t>('A') + i] = static_cast<uint8_t>(10 + i);
    return values;
}();

inline uint8_t digitValue(char c) { return DigitValues[static_cast<unsigned char>(c)]; }

/// White space of the C locale, whatever locale the process has set.
inline bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

/// Reads text as the C library's unsigned base-16 conversion into a Number would: white space, a sign, "0x", digits;
/// it stops at the first other byte, gives 0 without digits, the greatest Number when the digits do not fit, and
/// else the two's complement of a negative one. Equal on machines with a 32-bit and a 64-bit long.
template <class Number>
Number readHex(std::string_view text)
{
    const char* p = text.data();
    const char* const pEnd = p + text.size();
    while (p != pEnd && isSpace(*p))
        ++p;
    const bool negative = p != pEnd && *p == '-';
    if (p != pEnd && (*p == '-' || *p == '+'))
        ++p;
    if (pEnd - p > 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && digitValue(p[2]) != NoDigit)
        p += 2;

    constexpr Number max = std::numeric_limits<Number>::max();
    Number value = 0;
    for (; p != pEnd; ++p) {
        const uint8_t digit = digitValue(*p);
        if (digit == NoDigit)
            break;
        if (value > max >> 4)
            return max;
        value = static_cast<Number>(value << 4 | digit);
    }
    return negative ? static_cast<Number>(0 - value) : value;
}

/// True when the line at pText, which ends at a carriage return, is exactly `code`. Compares from the first byte and
/// stops at the first difference, so it reads no further than one byte past a line of that length.
inline bool lineIs(const char* pText, std::string_view code)
{
    for (const char c : code)
        if (*pText++ != c)
            return false;
    return *pText == '\r';
}

/// Walks the lines of a text. A line ends at a carriage return directly followed by a line feed; either of them
/// alone is an ordinary byte.
class LineWalker {
public:
    LineWalker(const char* pText, size_t length) : m_pText(pText), m_length(length) {}

    /// Stores the next line, without its end, and returns true; false when no line end is left.
    bool next(std::string_view& line)
    {
        for (size_t from = m_offset; from + 1 < m_length; ++from) {
            const void* pCr = std::memchr(m_pText + from, '\r', m_length - from - 1);
            if (pCr == nullptr)
                break;
            from = static_cast<size_t>(static_cast<const char*>(pCr) - m_pText);
            if (m_pText[from + 1] == '\n') {
                line = std::string_view(m_pText + m_offset, from - m_offset);
                m_offset = from + 2;
                return true;
            }
        }
        if (m_offset < m_length)
            m_offset = m_length - 1;
        return false;
    }

    /// Where the walk stands: after the last line's end, or, once next() has returned false, where fewer than two
    /// bytes remain.
    size_t offset() const { return m_offset; }

private:
    const char* m_pText;
    size_t m_length;
    size_t m_offset = 0;
};

inline bool startsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

} // namespace wiretext

#endif
