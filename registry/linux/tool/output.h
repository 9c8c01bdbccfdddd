// What a verb says on standard output, in the form that fits who reads it.
//
// A verb gives facts: a kind and named fields, with hints for a terminal. On a terminal they are aligned and coloured;
// in a pipe each is a line, fields separated by tabs; with --json each is an object. One thread at a time.
#ifndef OBREG_TOOL_OUTPUT_H
#define OBREG_TOOL_OUTPUT_H

#include <string>
#include <variant>
#include <vector>

#include <obreg/registry.hpp>

#include "errors.h"

namespace obregtool {

enum class Form { Terminal, Plain, Json };

/// How a verb's facts make one document.
enum class Shape {
    List,   ///< JSON: an array with an object in each line
    Record, ///< one fact. JSON: an object; a pipe: a line for each field, its name first
    Stream, ///< facts as they happen. JSON: an object in each line, and no array
};

enum class Style { Normal, Key, Name, Type, Faint, Good, Bad, Changed };

struct Field {
    const char* pName; ///< a field "value" is spread over its object, a value of another name is an object in it
    std::variant<std::string, uint64_t, double, obreg::Value> data;
    Style style = Style::Normal;
    size_t width = 0;    ///< on a terminal filled up to that many columns; of a value, its type
    bool hidden = false; ///< on a terminal left out: what stands above says it
    size_t from = 0;     ///< of a value that a terminal does not show whole: the first byte worth showing
};

struct Fact {
    std::string kind;
    std::vector<Field> fields;
    /// For a terminal: what stands in front, and whether the kind is written at all.
    std::string lead = {};
    Style leadStyle = Style::Faint;
    bool showKind = false;
};

class Output {
public:
    /// Data is cut to make lines fit into `width` columns. 0: these are not known; Unlimited: all bytes are shown.
    static constexpr size_t Unlimited = SIZE_MAX;
    Output(Form form, bool coloured, Shape shape, size_t width = 0);

    Form form() const { return m_form; }
    /// For a verb that may give several facts although it is declared to give one. Before the first.
    void makeList() { m_shape = Shape::List; }
    void fact(const Fact& fact);
    /// What a verb did that prints nothing in a pipe.
    void summary(const Fact& fact);
    /// What went wrong, or may be, while the verb goes on: on standard error, as text or as JSON.
    void problem(const Failure& failure);
    void warning(const std::string& text, std::vector<Field> figures = {});
    /// Bytes as they are.
    void bytes(std::string_view bytes);
    /// Each throws Failure when standard output did not take everything.
    void flush();
    void finish(); ///< ends the document as well

private:
    void terminal(const Fact& fact);
    void plain(const Fact& fact);
    void json(const Fact& fact);
    void painted(std::string_view text, Style style);
    std::string shown(const obreg::Value& value, size_t from, size_t column, bool alone) const;

    const Form m_form;
    const bool m_coloured;
    Shape m_shape;
    const size_t m_width;
    size_t m_facts = 0;
};

/// Facts that several verbs give.
Fact keyFact(const KeyPath& key, const char* pKind = "key");
Fact valueFact(const KeyPath& key, obreg::NamedValue value, const char* pKind = "value");

/// The data of a value by themselves; JSON: the value as a fact.
void printValue(Output& output, const KeyPath& key, obreg::NamedValue value);

/// What is said of a failure on standard error.
std::string failureText(bool json, const Failure& failure);

/// "@" for the unnamed value.
std::string shownName(const std::string& valueName);

/// A line on standard error that says how far a long task is; nothing when that is no terminal. One thread.
class Progress {
public:
    /// total 0: not known.
    Progress(std::string what, uint64_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void update(uint64_t done);
    void clear(); ///< before something else is written to the terminal

private:
    const std::string m_what;
    const uint64_t m_total;
    const bool m_shown;
    bool m_drawn = false;
    int64_t m_next = 0; // milliseconds, when to draw again
};

/// Asks on standard error; true for yes. Throws UsageError, which names --yes, when there is no terminal to ask.
bool confirmed(const std::string& question);

} // namespace obregtool

#endif
