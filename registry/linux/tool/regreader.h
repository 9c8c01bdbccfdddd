// Reads .reg text: bytes in, statements out. docs/reg-format.md says what the text looks like.
//
// A reader is fed the file's bytes in pieces of any size and calls its sink for each statement as soon as it is
// complete, so what it holds does not grow with the file. It knows nothing of files or of the registry: one reader and
// its sink belong to one thread, and two readers have nothing to do with each other.
#ifndef OBREG_TOOL_REGREADER_H
#define OBREG_TOOL_REGREADER_H

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <obreg/value.hpp>

#include "keypath.h"
#include "text.h"

namespace obregtool {

struct Place {
    uint64_t line = 0; ///< from 1
    size_t column = 0; ///< from 1, in characters
};

/// The first mistake in the text. what() is "line 3, column 7: expected ...".
struct RegSyntaxError : std::runtime_error {
    RegSyntaxError(Place where, const std::string& complaint);
    Place place;
};

class RegSink {
public:
    virtual ~RegSink() = default;
    /// [key] and [-key].
    virtual void key(const KeyPath& key, const Place& place) = 0;
    virtual void removeKey(const KeyPath& key, const Place& place) = 0;
    /// Values of the last key(). The unnamed value's name is "default".
    virtual void value(std::string&& name, obreg::Value&& value, const Place& place) = 0;
    virtual void removeValue(std::string&& name, const Place& place) = 0;
};

class RegReader {
public:
    explicit RegReader(RegSink& sink) : m_sink(sink) {}

    /// Takes the next bytes. Throws RegSyntaxError, after which the reader is of no more use, and what the sink throws.
    void feed(std::string_view bytes);
    /// The text ends here. Throws as feed does.
    void finish();

private:
    class Cursor;
    enum class Encoding { Unknown, Bytes, Utf16 };
    /// A value whose bytes are being read, perhaps over several lines.
    struct Hex {
        std::string name;
        obreg::Value value;
        Place place;
        bool expectByte = true;
    };

    void decode(std::string_view bytes);
    void text(std::string_view text);
    void line(std::string_view line);
    void header(Cursor& cursor);
    void statement(Cursor& cursor);
    void keyStatement(Cursor& cursor);
    void valueStatement(Cursor& cursor);
    void startHex(Cursor& cursor, std::string&& name, const Place& place);
    void readHex(Cursor& cursor);

    RegSink& m_sink;
    Encoding m_encoding = Encoding::Unknown;
    std::string m_start; // while the encoding is unknown
    Utf16Reader m_utf16;
    std::string m_decoded;
    std::string m_line; // the beginning of a line whose end has not come yet
    uint64_t m_lines = 0;
    bool m_haveHeader = false;
    bool m_haveKey = false;
    std::optional<Hex> m_hex;
};

} // namespace obregtool

#endif
