#include "output.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <unistd.h>

#include "errors.h"
#include "json.h"
#include "terminal.h"
#include "text.h"
#include "valuetext.h"

namespace obregtool {

namespace {

constexpr size_t BufferSize = size_t{64} * 1024;
constexpr int BarWidth = 30;
constexpr size_t LeastTypeWidth = 9; // REG_DWORD
constexpr size_t LeastDataWidth = 8;
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

/// A field that is no value. What differs between the forms is how text is written.
std::string fieldText(const Field& field, Escape names)
{
    if (const auto* pText = std::get_if<std::string>(&field.data))
        return escaped(*pText, names);
    if (const auto* pNumber = std::get_if<uint64_t>(&field.data))
        return std::to_string(*pNumber);
    return numberText(std::get<double>(field.data));
}

} // namespace

Output::Output(Form form, bool coloured, Shape shape, size_t width)
    : m_form(form), m_coloured(coloured), m_shape(shape), m_width(width)
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
    const std::string kind = fact.showKind ? fact.kind + "  " : "";
    painted(fact.lead, fact.leadStyle);
    painted(kind, fact.leadStyle);
    size_t column = columns(fact.lead) + columns(kind);
    size_t values = 0;
    for (const Field& field : fact.fields)
        values += std::holds_alternative<obreg::Value>(field.data) ? 1 : 0;
    const auto put = [&](const std::string& text, Style style, size_t width) {
        const size_t taken = columns(text);
        painted(text, style);
        bytes(std::string(std::max(width, taken) - taken, ' '));
        column += std::max(width, taken);
    };
    for (const Field& field : fact.fields) {
        if (field.hidden)
            continue;
        const bool last = &field == &fact.fields.back();
        if (m_shape == Shape::Record)
            bytes(std::string(field.pName) + ": ");
        const auto* const pValue = std::get_if<obreg::Value>(&field.data);
        if (pValue != nullptr)
            put(typeName(pValue->type) + "  ", Style::Type, std::max(field.width, LeastTypeWidth) + 2);
        const std::string text =
            pValue != nullptr ? shown(*pValue, field.from, column, values == 1) : fieldText(field, Escape::Name);
        put(text, field.style, last || pValue != nullptr || m_shape == Shape::Record ? 0 : field.width);
        if (!last)
            put(m_shape == Shape::Record ? "\n" : "  ", Style::Normal, 0);
    }
    bytes("\n");
}

/// A value as it stands from that column on. Only one that is alone is cut: of two, the ends may be what differs.
std::string Output::shown(const obreg::Value& value, size_t from, size_t column, bool alone) const
{
    if (m_width == Unlimited)
        return shownData(value, SIZE_MAX);
    std::string text = shownData(value, ShownBytes, from);
    if (!alone || m_shape == Shape::Record || m_width == 0)
        return text;
    return cutToFit(text, std::max(m_width > column ? m_width - column : 0, LeastDataWidth));
}

void Output::plain(const Fact& fact)
{
    const bool record = m_shape == Shape::Record;
    if (!record)
        bytes(fact.kind);
    for (const Field& field : fact.fields) {
        if (record)
            bytes(std::string(&field == &fact.fields.front() ? "" : "\n") + field.pName);
        if (const auto* pValue = std::get_if<obreg::Value>(&field.data)) {
            bytes('\t' + typeName(pValue->type) + '\t');
            writeData(*pValue, [this](std::string_view piece) { bytes(piece); });
        } else {
            bytes('\t' + fieldText(field, Escape::Pipe));
        }
    }
    bytes("\n");
}

void Output::json(const Fact& fact)
{
    if (m_shape == Shape::List)
        bytes(m_facts == 0 ? "[\n" : ",\n");
    writeJson(std::cout, fact); // goes through the buffer of stdout
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

void Output::problem(const Failure& failure) { fputs(failureText(m_form == Form::Json, failure).c_str(), stderr); }

void Output::warning(const std::string& text, std::vector<Field> figures)
{
    if (m_form != Form::Json) {
        fputs(("obreg: warning: " + text + '\n').c_str(), stderr);
        return;
    }
    figures.insert(figures.begin(), {"text", text});
    writeJson(std::cerr, {"warning", std::move(figures)});
    std::cerr << '\n';
}

void Output::bytes(std::string_view bytes) { fwrite(bytes.data(), 1, bytes.size(), stdout); }

void Output::flush()
{
    errno = 0;
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        throw fileFailure("standard output", errno != 0 ? errno : EIO);
}

void Output::finish()
{
    if (m_form == Form::Json && m_shape == Shape::List)
        bytes(m_facts == 0 ? "[]\n" : "\n]\n");
    flush();
}

void printValue(Output& output, const KeyPath& key, obreg::NamedValue value)
{
    if (output.form() == Form::Json) {
        output.fact(valueFact(key, std::move(value)));
        return;
    }
    const bool terminal = output.form() == Form::Terminal;
    const bool bare = writeBare(
        value.value, [&](std::string_view piece) { output.bytes(terminal ? escaped(piece, Escape::Screen) : piece); });
    output.bytes("\n");
    if (!bare)
        output.warning("the data cannot be written as the text or number that its type " + typeName(value.value.type) +
                       " promises: these are its bytes; --raw gives them as they are");
}

std::string failureText(bool json, const Failure& failure)
{
    if (json)
        return jsonOf(failure) + '\n';
    return "obreg: " + std::string(failure.what()) + (failure.advice.empty() ? "" : "\n  " + failure.advice) + '\n';
}

std::string shownName(const std::string& valueName) { return isUnnamed(valueName) ? "@" : valueName; }

Fact keyFact(const KeyPath& key, const char* pKind) { return {pKind, {{"key", key.text(), Style::Key}}}; }

Fact valueFact(const KeyPath& key, obreg::NamedValue value, const char* pKind)
{
    Fact fact{pKind, {{"key", key.text(), Style::Key}, {"name", shownName(value.name), Style::Name}}};
    fact.fields.push_back({"value", std::move(value.value)}); // which may be long
    return fact;
}

Progress::Progress(std::string what, uint64_t total)
    : m_what(std::move(what)), m_total(total), m_shown(isatty(STDERR_FILENO) == 1), m_next(nowMs() + RedrawMs)
{}

Progress::~Progress() { clear(); }

void Progress::clear()
{
    if (m_drawn)
        fputs("\r\33[K", stderr);
    m_drawn = false;
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
    m_drawn = true;
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
