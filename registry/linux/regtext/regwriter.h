// Writes .reg text: keys and values in, bytes out. docs/reg-format.md says what the text looks like.
//
// What a writer writes, a RegReader reads back to the same names, types and bytes. It holds one piece of text and knows
// nothing of files or of the registry. One writer belongs to one thread.
#ifndef OBREG_REGTEXT_REGWRITER_H
#define OBREG_REGTEXT_REGWRITER_H

#include <functional>
#include <string>
#include <string_view>

#include <obreg/value.hpp>

namespace regtext {

enum class RegFormat {
    Utf8,     ///< Version 5.00, UTF-8, lines end in LF
    Utf16,    ///< Version 5.00, UTF-16LE with a byte-order mark, CR LF
    Regedit4, ///< REGEDIT4, bytes as they are, CR LF
};

class RegWriter {
public:
    /// `utf16Data`: the bytes of strings that are written as bytes are UTF-16LE.
    RegWriter(RegFormat format, std::function<void(std::string_view)> write, bool utf16Data = false);

    /// The names that follow: first a key, then its values. Throws std::invalid_argument for a name with control
    /// characters, which the text cannot hold.
    void key(const std::string& key);
    void value(const std::string& name, const obreg::Value& value);
    /// The same, deleted: a key with all below it, a value of the key that was named last.
    void removeKey(const std::string& key);
    void removeValue(const std::string& name);
    /// Hands over what is still held.
    void finish();

private:
    /// Whole characters of UTF-8.
    void put(std::string_view text);
    void endLine() { put(m_format == RegFormat::Utf8 ? "\n" : "\r\n"); }
    void section(const char* pBracket, const std::string& key);
    size_t valueName(const std::string& name); ///< returns how wide the line is
    void hex(const obreg::Value& value, size_t column);

    const RegFormat m_format;
    const std::function<void(std::string_view)> m_write;
    const bool m_utf16Data;
    std::string m_text;
};

} // namespace regtext

#endif
