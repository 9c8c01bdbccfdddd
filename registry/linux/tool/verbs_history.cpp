// log and blame: what has changed, when, and who did it.
#include <algorithm>

#include "changes.h"
#include "moment.h"
#include "readtree.h"
#include "text.h"
#include "verbs.h"

namespace obregtool {

namespace {

constexpr uint64_t CountOnTerminal = 20;

struct HistoryOptions {
    std::string key;
    std::string name;
    uint64_t count = 0; // 0: all
    std::string since, until, user;
    bool noSubKeys = false;
};

/// Which changes are wanted.
struct Wanted {
    std::optional<Moment> since, until;
    std::optional<uint64_t> uid;
    std::optional<std::string> name;

    bool has(const PastChange& change) const
    {
        return !(until && until->isBefore(change)) && (!uid || *uid == change.uid) &&
               (!name || (!change.isOfKey() && compareValueNames(*name, change.name) == 0));
    }
};

/// What stands in the place of data.
std::string stateText(const Past& past)
{
    constexpr const char* texts[] = {"absent", "", "secret", "not-kept", "unknown"};
    return texts[past.what];
}

/// A value at a time, for a pipe or JSON: data, or what is known of it. In data a backslash would be doubled.
void addPast(std::vector<Field>& fields, const char* const (&names)[3], const Past& past, Form form)
{
    if (past.what == Past::Data) {
        fields.push_back({names[0], past.value});
        return;
    }
    const bool typed = past.what == Past::Secret || past.what == Past::NotKept;
    if (form == Form::Json && past.what == Past::Absent)
        return;
    if (form == Form::Plain || typed)
        fields.push_back({names[1], typed ? typeName(past.value.type) : "-"});
    fields.push_back({names[2], form == Form::Plain ? '\\' + stateText(past) : stateText(past)});
}

Fact pipeFact(const PastChange& change, const Past& after, Form form)
{
    Fact fact{change.kindName(),
              {{"number", change.number},
               {"time", timeText(change.time)},
               {"user", userName(change.uid)},
               {"uid", change.uid},
               {"pid", change.pid},
               {"key", change.key.text()}}};
    if (change.isOfKey()) {
        if (change.lost != 0)
            fact.fields.push_back({"valuesLost", change.lost});
        return fact;
    }
    fact.fields.push_back({"name", shownName(change.name)});
    addPast(fact.fields, {"old", "oldType", "oldIs"}, change.before, form);
    addPast(fact.fields, {"new", "newType", "newIs"}, after, form);
    return fact;
}

Fact pastLine(const char* pLead, Style style, const Past& past)
{
    if (past.what == Past::Data)
        return {"", {{"value", past.value, style}}, pLead, style};
    std::string text = past.what == Past::Unknown ? "not known, for what followed was not noted"
                                                  : typeName(past.value.type) + "  (" + counted(past.length, "byte") +
                                                        ", " + (past.what == Past::Secret ? "secret)" : "not kept)");
    return {"", {{"value", std::move(text), style}}, pLead, style};
}

/// On a terminal: who and when, and below it what was and what is.
void show(const PastChange& change, const Past& after, bool first, Output& output)
{
    output.fact({"",
                 {{"number", change.number, Style::Changed},
                  {"time", localTimeText(change.time)},
                  {"user", userName(change.uid), Style::Name},
                  {"pid", "pid " + std::to_string(change.pid), Style::Faint}},
                 first ? "" : "\n"});
    if (change.isOfKey()) {
        Fact fact = keyChange(change.kind == PastChange::KeyMade ? Change::Added : Change::Removed, change.key);
        if (change.lost != 0)
            fact.fields.push_back({"lost", "with " + std::to_string(change.lost) + " values that were not noted"});
        fact.lead.insert(0, "  ");
        return output.fact(fact);
    }
    output.fact({"", {{"key", change.key.text(), Style::Key}, {"name", shownName(change.name), Style::Name}}, "  "});
    if (change.before.what != Past::Absent)
        output.fact(pastLine("  - ", Style::Bad, change.before));
    if (after.what != Past::Absent)
        output.fact(pastLine("  + ", Style::Good, after));
}

/// The histories of several keys as one, the newest change first.
class Histories {
public:
    Histories(const std::vector<KeyPath>& keys, bool below)
    {
        for (const KeyPath& key : keys) {
            m_parts.push_back({History(key, below), {}});
            m_parts.back().head = m_parts.back().history.next();
        }
    }

    /// The part whose change is next; null at the end.
    History* next(PastChange& change)
    {
        if (m_pLast != nullptr)
            m_pLast->head = m_pLast->history.next();
        m_pLast = nullptr;
        for (Part& part : m_parts)
            if (part.head && (m_pLast == nullptr || part.head->number > m_pLast->head->number))
                m_pLast = &part;
        if (m_pLast == nullptr)
            return nullptr;
        change = *m_pLast->head;
        return &m_pLast->history;
    }

    uint64_t first() const { return m_parts.front().history.first(); }

private:
    struct Part {
        History history;
        std::optional<PastChange> head;
    };
    std::vector<Part> m_parts;
    Part* m_pLast = nullptr;
};

void sayWhereItEnds(uint64_t first, Output& output)
{
    if (first > 1)
        output.warning("changes before number " + std::to_string(first) + " are no longer kept", {{"first", first}});
}

int log(const HistoryOptions& options, const Wanted& wanted, Output& output)
{
    std::vector<KeyPath> keys;
    if (options.key.empty())
        keys = {{HKEY_LOCAL_MACHINE, {}}, {HKEY_USERS, {}}, {HKEY_CLASSES_ROOT, {}}};
    else
        keys.push_back(keyArgument(options.key));
    Histories histories(keys, !options.noSubKeys);
    PastChange change;
    uint64_t shown = 0;
    while (History* const pHistory = histories.next(change)) {
        if (wanted.since && wanted.since->isBehind(change))
            return ExitDone;
        if (!wanted.has(change))
            continue;
        if (shown++ == options.count && options.count != 0) {
            if (output.form() == Form::Terminal)
                output.fact({"", {{"more", "there are older ones: --count 0 shows all", Style::Faint}}, "\n"});
            return ExitDone;
        }
        if (output.form() == Form::Terminal)
            show(change, pHistory->became(), shown == 1, output);
        else
            output.fact(pipeFact(change, pHistory->became(), output.form()));
    }
    output.flush();
    sayWhereItEnds(histories.first(), output);
    return ExitDone;
}

/// The last change of each of a key's values.
int blame(const HistoryOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const obreg::Key key = openKey(path);
    KeyContent content = readKey(key, path);
    std::map<std::string, PastChange> last; // by name
    const auto id = [](const std::string& name) { return isUnnamed(name) ? "" : folded(name); };
    History history(path, false);
    while (last.size() < content.values.size()) {
        const std::optional<PastChange> change = history.next();
        if (!change || (change->isOfKey() && change->key.identity() == path.identity()))
            break; // what was before that is of another key
        const auto isIt = [&](const ValueEntry& value) { return id(value.name) == id(change->name); };
        if (!change->isOfKey() && std::any_of(content.values.begin(), content.values.end(), isIt))
            last.emplace(id(change->name), *change);
    }
    const bool terminal = output.form() == Form::Terminal;
    bool someAreOlder = false;
    forEachValue(key, path, content.values, [&](obreg::NamedValue&& value) {
        const auto found = last.find(id(value.name));
        const bool known = found != last.end();
        someAreOlder = someAreOlder || !known;
        Fact fact{"value", {}};
        if (known)
            fact.fields = {{"number", found->second.number, Style::Changed},
                           {"time", (terminal ? localTimeText : timeText)(found->second.time)},
                           {"user", userName(found->second.uid), Style::Name, 8},
                           {"uid", found->second.uid, Style::Normal, 0, true}};
        else if (output.form() != Form::Json)
            fact.fields = {{"number", "-"}, {"time", "-"}, {"user", "-", Style::Name, 8}, {"uid", "-", {}, 0, true}};
        for (Field& field : valueFact(path, std::move(value)).fields)
            fact.fields.push_back(std::move(field));
        fact.fields[fact.fields.size() - 3].hidden = true;
        output.fact(fact);
    });
    output.flush();
    if (someAreOlder)
        sayWhereItEnds(history.first(), output);
    return ExitDone;
}

} // namespace

Run declareLog(Arguments& arguments)
{
    const auto pOptions = std::make_shared<HistoryOptions>();
    arguments.text("KEY", pOptions->key, "Key, with all below it; it may be deleted [all keys]");
    arguments.valueName("-v,--value", pOptions->name,
                        "Only this value of it, and of the keys below it; @ for the unnamed");
    arguments.flag("--no-subkeys", pOptions->noSubKeys, "Only the key, its values and the list of its sub-keys");
    arguments.number("-n,--count", pOptions->count, "So many changes at most; 0: all [20 on a terminal, else all]");
    arguments.text("--since", pOptions->since, "From that change's number on, or that time");
    arguments.text("--until", pOptions->until, "Up to that change's number, or that time");
    arguments.text("--user", pOptions->user, "Only what this user changed: a name or number");
    return [=, &arguments](Output& output) {
        Wanted wanted;
        if (!pOptions->since.empty())
            wanted.since = momentArgument(pOptions->since);
        if (!pOptions->until.empty())
            wanted.until = momentArgument(pOptions->until);
        if (!pOptions->user.empty())
            wanted.uid = userArgument(pOptions->user);
        if (arguments.given("--value"))
            wanted.name = pOptions->name;
        if (output.form() == Form::Terminal && !arguments.given("--count"))
            pOptions->count = CountOnTerminal;
        return log(*pOptions, wanted, output);
    };
}

Run declareBlame(Arguments& arguments)
{
    const auto pOptions = std::make_shared<HistoryOptions>();
    arguments.text("KEY", pOptions->key, "Key whose values are shown, each with who set it last", Arguments::Required);
    return [=](Output& output) { return blame(*pOptions, output); };
}

} // namespace obregtool
