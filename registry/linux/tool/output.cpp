#include "output.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <unistd.h>

#include "errors.h"
#include "json.h"
#include "text.h"
#include "valuetext.h"

namespace obregtool {

namespace {

constexpr size_t BufferSize = size_t{64} * 1024;
constexpr int BarWidth = 30;
constexpr int64_t RedrawMs = 100;

/// By Style.
constexpr const char* Colours[] = {"", "\33[1;34m", "\33[36m", "\33[35m", "\33[2m", "\33[32m", "\33[31m", "\33[33m"};

int64_t nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string numberText(double number)
{
    char text[32];
    snprintf(text, sizeof(text), "%.1f", number);
    return text;
}

/// What differs between the forms: how text and values are written.
struct FieldText {
    Escape names;
    std::string (*valueText)(const obreg::Value&);

    std::string operator()(const std::string& text) const { return escaped(text, names); }
    std::string operator()(uint64_t number) const { return std::to_string(number); }
    std::string operator()(double number) const { return numberText(number); }
    std::string operator()(const obreg::Value& value) const { return valueText(value); }
};

} // namespace

Output::Output(Form form, bool coloured, Shape shape) : m_form(form), m_coloured(coloured), m_shape(shape)
{
    setvbuf(stdout, nullptr, _IOFBF, BufferSize);
}

void Output::fact(const Fact& fact)
{
    if (m_form == Form::Json)
        json(fact);
    else if (m_form == Form::Plain)
        plain(fact);
    else
        terminal(fact);
    ++m_facts;
    if (m_shape == Shape::Stream)
        flush();
}

void Output::summary(const Fact& fact)
{
    if (m_form != Form::Plain)
        this->fact(fact);
}

void Output::terminal(const Fact& fact)
{
    painted(fact.lead, fact.leadStyle);
    if (fact.showKind)
        painted(fact.kind + "  ", fact.leadStyle);
    const FieldText textOf{Escape::Name, shownData};
    for (const Field& field : fact.fields) {
        if (field.hidden)
            continue;
        const bool last = &field == &fact.fields.back();
        if (m_shape == Shape::Record)
            bytes(std::string(field.pName) + ": ");
        if (const auto* pValue = std::get_if<obreg::Value>(&field.data)) {
            const std::string type = typeName(pValue->type);
            painted(type, Style::Type);
            bytes(std::string(type.size() < 9 ? 11 - type.size() : 2, ' '));
        }
        const std::string text = std::visit(textOf, field.data);
        painted(text, field.style);
        const size_t width = characters(text);
        if (m_shape == Shape::Record)
            bytes(last ? "" : "\n");
        else if (!last)
            bytes(std::string((width < field.width ? field.width - width : 0) + 2, ' '));
    }
    bytes("\n");
}

void Output::plain(const Fact& fact)
{
    const FieldText textOf{Escape::Pipe, dataText};
    std::string line = m_shape == Shape::Record ? "" : fact.kind;
    for (const Field& field : fact.fields) {
        if (m_shape == Shape::Record)
            line += std::string(line.empty() ? "" : "\n") + field.pName;
        if (const auto* pValue = std::get_if<obreg::Value>(&field.data))
            line += '\t' + typeName(pValue->type);
        line += '\t' + std::visit(textOf, field.data);
    }
    bytes(line + '\n');
}

void Output::json(const Fact& fact)
{
    if (m_shape == Shape::List)
        bytes(m_facts == 0 ? "[\n" : ",\n");
    bytes(jsonOf(fact));
    if (m_shape != Shape::List)
        bytes("\n");
}

void Output::painted(std::string_view text, Style style)
{
    const char* const pColour = Colours[static_cast<int>(style)];
    if (!m_coloured || *pColour == '\0' || text.empty()) {
        bytes(text);
        return;
    }
    bytes(pColour);
    bytes(text);
    bytes("\33[0m");
}

void Output::bytes(std::string_view bytes) { fwrite(bytes.data(), 1, bytes.size(), stdout); }

void Output::flush() { fflush(stdout); }

void Output::finish()
{
    if (m_form == Form::Json && m_shape == Shape::List)
        bytes(m_facts == 0 ? "[]\n" : "\n]\n");
    errno = 0;
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        throw fileFailure("standard output", errno != 0 ? errno : EIO);
}

std::string shownName(const std::string& valueName) { return isUnnamed(valueName) ? "@" : valueName; }

Fact keyFact(const KeyPath& key, const char* pKind) { return {pKind, {{"key", key.text(), Style::Key}}}; }

Fact valueFact(const KeyPath& key, const obreg::NamedValue& value, const char* pKind)
{
    return {pKind,
            {{"key", key.text(), Style::Key}, {"name", shownName(value.name), Style::Name}, {"value", value.value}}};
}

Progress::Progress(std::string what, uint64_t total)
    : m_what(std::move(what)), m_total(total), m_shown(isatty(STDERR_FILENO) == 1), m_next(nowMs() + RedrawMs)
{}

Progress::~Progress()
{
    if (m_shown)
        fputs("\r\33[K", stderr);
}

void Progress::update(uint64_t done)
{
    if (!m_shown || nowMs() < m_next)
        return;
    m_next = nowMs() + RedrawMs;
    std::string line = m_what + ' ' + std::to_string(done);
    if (m_total != 0) {
        const auto filled = static_cast<size_t>(BarWidth * std::min(done, m_total) / m_total);
        line += " of " + std::to_string(m_total) + " [" + std::string(filled, '#') +
                std::string(BarWidth - filled, '.') + ']';
    }
    fputs(("\r" + line + "\33[K").c_str(), stderr);
}

bool confirmed(const std::string& question)
{
    if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0)
        throw UsageError(question + " There is no terminal to answer on; say --yes if that is wanted");
    fputs((question + " [y/N] ").c_str(), stderr);
    std::string answer;
    std::getline(std::cin, answer);
    return folded(answer) == "y" || folded(answer) == "yes";
}

} // namespace obregtool
