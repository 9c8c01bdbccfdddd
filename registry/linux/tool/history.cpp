#include "history.h"

#include <cinttypes>
#include <cstring>

#include "errors.h"
#include "text.h"

namespace obregtool {

namespace {

constexpr uint64_t PageLength = 1000;
const HANDLE Roots[] = {HKEY_LOCAL_MACHINE, HKEY_USERS, HKEY_CLASSES_ROOT};

std::string idOf(const KeyPath& key) { return key.identity() + '\n'; } // no name has that

std::string idOf(const PastChange& change)
{
    return idOf(change.key) + (change.isOfKey() ? "" : '\n' + (isUnnamed(change.name) ? "" : folded(change.name)));
}

[[noreturn]] void throwUnknownForm()
{
    throw Failure(ExitFailed, "the daemon tells its history in a form that this program does not know",
                  "they may be of different versions");
}

/// Takes the fields of a line, one after the other.
class Fields {
public:
    explicit Fields(std::string_view line, char separator = '\t') : m_rest(line), m_separator(separator) {}

    std::string_view text()
    {
        if (m_over)
            throwUnknownForm();
        const size_t end = m_rest.find(m_separator);
        const std::string_view field = m_rest.substr(0, end);
        m_over = end == std::string_view::npos;
        m_rest.remove_prefix(m_over ? m_rest.size() : end + 1);
        return field;
    }
    uint64_t number()
    {
        const std::optional<uint64_t> number = numberOf(text(), UINT64_MAX);
        if (!number)
            throwUnknownForm();
        return *number;
    }

private:
    std::string_view m_rest;
    const char m_separator;
    bool m_over = false;
};

Past parsePast(std::string_view text)
{
    if (text.empty())
        return {};
    Fields fields(text, ' ');
    Past past{Past::Data, {static_cast<UINT32>(fields.number()), {}}, 0};
    past.length = fields.number();
    const std::string_view data = fields.text();
    if (data == "secret" || data == "not-kept")
        past.what = data == "secret" ? Past::Secret : Past::NotKept;
    else if (std::optional<std::string> bytes = bytesOfHex(data))
        past.value.data = *std::move(bytes);
    else
        throwUnknownForm();
    return past;
}

PastChange parseChange(const KeyPath& root, std::string_view line)
{
    Fields fields(line);
    PastChange change{};
    change.number = fields.number();
    change.time = fields.number();
    change.uid = fields.number();
    change.pid = fields.number();
    const std::string_view kind = fields.text();
    while (kind != change.kindName())
        if (change.kind == PastChange::ValueDeleted)
            throwUnknownForm();
        else
            change.kind = static_cast<PastChange::Kind>(change.kind + 1);
    change.key = {root.root, std::string(fields.text())};
    change.name = fields.text();
    const std::string_view before = fields.text();
    if (!change.isOfKey())
        change.before = parsePast(before);
    else if (!before.empty())
        change.lost = numberOf(before.substr(before.find(' ') + 1), UINT64_MAX).value_or(1);
    change.secret = fields.text() == "secret";
    return change;
}

/// Empty where the daemon keeps none.
obreg::Key openHistory(std::error_code& error)
{
    obreg::Key key = obreg::Key::open(obreg::Key::root(HKEY_DYN_DATA), "History", KEY_QUERY_VALUE, error);
    if (error == obreg::Status::notFound || error == obreg::Status::badHandle)
        error.clear();
    return key;
}

} // namespace

/// Always asked of the root: so a key is found that is not there any more, or is another than before.
History::Page History::ask(const KeyPath& key, bool below, const std::string& from, bool newestFirst, uint64_t most)
{
    std::error_code error;
    const obreg::Key history = openHistory(error);
    if (!error && !history)
        throw Failure(ExitFailed, "the daemon keeps no history", "it may be of an earlier version");
    check(error, key);
    const std::string question = hexOfNumber(reinterpret_cast<uintptr_t>(key.root), 8) + ' ' + from +
                                 (newestFirst ? " before " : " after ") + std::to_string(most) +
                                 (below ? " tree " : " key ") + key.path;
    const auto lines = history.get<obreg::StringList>(question, error);
    if (error == obreg::Status::badHandle)
        throw Failure(ExitFailed, subjectText(key) + ": has no history",
                      "the daemon makes it and stores nothing of it");
    check(error, key);
    if (lines.empty())
        throwUnknownForm();
    Fields fields(lines.front(), ' ');
    Page page{fields.number(), fields.number(), fields.number(), {}};
    for (size_t i = 1; i < lines.size(); ++i)
        page.changes.push_back(parseChange(key, lines[i]));
    return page;
}

std::optional<PastChange> History::next()
{
    if (m_current)
        note(*m_current);
    m_current.reset();
    while (m_page.empty() && (!m_asked || m_next > m_first)) {
        Page page = ask(m_key, m_below, m_asked ? std::to_string(m_next) : "now", true, PageLength);
        m_page = std::move(page.changes);
        m_next = page.next;
        m_first = page.first;
        if (!m_asked)
            m_last = page.last;
        m_asked = true;
    }
    if (m_page.empty())
        return std::nullopt;
    m_current = std::move(m_page.front());
    m_page.pop_front();
    return m_current;
}

void History::note(const PastChange& change)
{
    m_later[idOf(change)] = {change.before, change.number};
    if (change.lost == 0)
        return;
    const std::string values = idOf(change.key) + '\n';
    for (auto at = m_later.lower_bound(values);
         at != m_later.end() && at->first.compare(0, values.size(), values) == 0;)
        at = m_later.erase(at);
    m_lost.insert(values);
}

Past History::became()
{
    if (m_current->kind != PastChange::ValueSet)
        return {};
    if (const auto later = m_later.find(idOf(*m_current)); later != m_later.end())
        return later->second.before;
    return m_lost.count(idOf(m_current->key) + '\n') != 0 ? Past{Past::Unknown} : now();
}

uint64_t History::changedAgain() const
{
    const auto later = m_later.find(idOf(*m_current));
    return later == m_later.end() ? 0 : later->second.number;
}

template <class F>
void History::forEachSince(const KeyPath& key, bool below, const F& f) const
{
    for (Page page{m_last, 0, 0, {}};;) {
        page = ask(key, below, std::to_string(page.next), false, PageLength);
        for (const PastChange& change : page.changes)
            if (!f(change))
                return;
        if (page.next >= page.last)
            return;
    }
}

/// What is there now; or was, when it has been changed since this began.
Past History::now()
{
    Past past{Past::Unknown};
    std::error_code error;
    const obreg::Key key = openKey(m_current->key, KEY_READ, error);
    if (!error)
        past.value = key.get<obreg::Value>(m_current->name, error);
    if (!error) {
        past.what = m_current->secret ? Past::Secret : Past::Data;
        past.length = past.value.data.size();
    } else if (error != obreg::Status::notFound) {
        check(error, m_current->key, &m_current->name);
    }
    forEachSince(m_current->key, false, [&](const PastChange& change) {
        const bool isIt = idOf(change) == idOf(*m_current);
        if (isIt)
            past = change.before;
        return !isIt;
    });
    return past;
}

bool History::hasMovedOn() const
{
    bool moved = false;
    forEachSince(m_key, m_below, [&](const PastChange& change) {
        const std::string id = idOf(change);
        moved = m_later.count(id) != 0 || (m_current && idOf(*m_current) == id);
        return !moved;
    });
    return moved;
}

std::optional<uint64_t> History::lastNow()
{
    std::error_code error;
    const bool isKept = static_cast<bool>(openHistory(error));
    if (!isKept && !error)
        return std::nullopt;
    return ask({HKEY_LOCAL_MACHINE, {}}, false, "now", true, 1).last;
}

std::optional<PastChange> History::find(uint64_t number)
{
    for (const HANDLE root : Roots) {
        Page page = ask({root, {}}, true, std::to_string(number - 1), false, 1);
        if (!page.changes.empty() && page.changes.front().number == number)
            return std::move(page.changes.front());
    }
    return std::nullopt;
}

} // namespace obregtool
