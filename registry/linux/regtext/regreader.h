// Reads .reg text: bytes in, statements out. docs/reg-format.md says what the text looks like.
//
// A reader is fed the file's bytes in pieces of any size and calls its sink for each statement as soon as it is
// complete, so what it holds does not grow with the file. It knows nothing of files or of the registry: one reader and
// its sink belong to one thread, and two readers have nothing to do with each other.
#ifndef OBREG_REGTEXT_REGREADER_H
#define OBREG_REGTEXT_REGREADER_H

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <obreg/value.hpp>

#include "regtext/characters.h"
#include "regtext/keypath.h"

namespace regtext {

struct Place {
    uint64_t line = 0; ///< from 1
    size_t column = 0; ///< from 1, in characters
};

/// The first mistake in the text. what() is "line 3, column 7: expected ...".
struct RegSyntaxError : std::runtime_error {
    RegSyntaxError(Place where, const std::string& what);
    Place place;
    std::string complaint; ///< what() without the place
};

class RegSink {
public:
    virtual ~RegSink() = default;
    /// [key] and [-key].
    virtual void key(const KeyPath& key, const Place& place) = 0;
    virtual void removeKey(const KeyPath& key, const Place& place) = 0;
    /// Values of the last key(). The unnamed value's name is "default".
    /// The data may be empty.
    virtual void value(std::string&& name, obreg::Value&& value, const Place& place) = 0;
    virtual void removeValue(std::string&& name, const Place& place) = 0;

    // The conditions of a transaction; no other text has any.
    /// [?key] and [?-key].
    virtual void requireKey(const KeyPath& /*key*/, const Place& /*place*/) {}
    virtual void requireNoKey(const KeyPath& /*key*/, const Place& /*place*/) {}
    /// What the key of the last requireKey() has, and has not.
    virtual void requireValue(std::string&& /*name*/, obreg::Value&& /*value*/, const Place& /*place*/) {}
    virtual void requireNoValue(std::string&& /*name*/, const Place& /*place*/) {}
    /// Neither that key nor anything below it has changed after the change of that number.
    virtual void requireUnchanged(uint64_t /*since*/, const Place& /*place*/) {}
};

enum class RegKind {
    File,
    Transaction, ///< may have conditions, and keys by their handles
};

class RegReader {
public:
    /// `utf16Data`: strings that are written as bytes are UTF-16LE.
    explicit RegReader(RegSink& sink, bool utf16Data = false, RegKind kind = RegKind::File)
        : m_sink(sink), m_utf16Data(utf16Data), m_isTransaction(kind == RegKind::Transaction)
    {}

    /// Takes the next bytes. Throws RegSyntaxError, after which the reader is of no more use, and what the sink throws.
    void feed(std::string_view bytes);
    /// The text ends here. Throws as feed does.
    void finish();

    /// Strings written as bytes that are no text but would be one in UTF-16LE: how many, and where the first is.
    uint64_t utf16Alike() const { return m_utf16Alike; }
    const Place& firstUtf16Alike() const { return m_firstUtf16Alike; }

private:
    class Cursor;
    enum class Encoding { Unknown, Bytes, Utf16 };
    /// A value that is being read, perhaps over several lines.
    struct Unfinished {
        std::string name;
        obreg::Value value;
        Place place;
        bool isString;
        bool expectByte = true;
    };

    void start();
    void decode(std::string_view bytes);
    void text(std::string_view text);
    void line(std::string_view line, bool ended);
    void header(Cursor& cursor);
    void statement(Cursor& cursor);
    void keyStatement(Cursor& cursor);
    void valueStatement(Cursor& cursor);
    void unchangedStatement(Cursor& cursor);
    static UINT32 hexNumber(Cursor& cursor, const char* pWhat);
    void readString(Cursor& cursor);
    void readHex(Cursor& cursor);
    void readUtf16(Cursor& cursor);
    void takeValue(std::string&& name, obreg::Value&& value, const Place& place);
    void finishValue();

    RegSink& m_sink;
    const bool m_utf16Data;
    const bool m_isTransaction;
    Encoding m_encoding = Encoding::Unknown;
    std::string m_start; // while the encoding is unknown
    Utf16Reader m_utf16;
    std::string m_decoded;
    std::string m_line; // the beginning of a line whose end has not come yet
    uint64_t m_lines = 0;
    bool m_haveHeader = false;
    bool m_haveKey = false;
    bool m_isCondition = false; // what is said of that key
    std::optional<Unfinished> m_value;
    uint64_t m_utf16Alike = 0;
    Place m_firstUtf16Alike;
};

} // namespace regtext

#endif
