// watch and wait: what changes, as the daemon tells it.
#include <map>

#include "alarm.h"
#include "changes.h"
#include "keywatch.h"
#include "readtree.h"
#include "verbs.h"

namespace obregtool {

namespace {

struct WatchOptions {
    std::string key;
    std::string name;
    double interval = 1;
    uint64_t count = 0; // 0: for ever
    std::string equals;
    std::string notEquals;
    bool absent = false;
    bool changed = false;
};

/// A key and everything below it, as last seen. It tells how that differs from what it sees next.
class Seen {
public:
    /// most: differences that are told; 0: all.
    Seen(KeyPath top, Output& output, uint64_t most) : m_top(std::move(top)), m_output(output), m_most(most)
    {
        read(m_top, m_nodes);
    }

    bool isDone() const { return m_most != 0 && m_told == m_most; }

    void look() { lookAt(m_top); }

    void look(const obreg::Change& change)
    {
        const KeyPath path = change.path.empty() ? m_top : m_top.child(change.path);
        const bool ofValue =
            change.kind == obreg::ChangeKind::valueSet || change.kind == obreg::ChangeKind::valueDeleted;
        const auto found = m_nodes.find(path.identity());
        if (ofValue && found != m_nodes.end())
            lookAtValue(found->second, change.name);
        else if (change.kind == obreg::ChangeKind::keyMade ? found == m_nodes.end() : !ofValue)
            lookAt(path); // also at one that was deleted: it may have been made again
    }

private:
    struct Node {
        KeyPath path;
        std::vector<obreg::NamedValue> values; ///< in order of name
    };
    using Nodes = std::map<std::string, Node>; // by identity, so a key comes before those below it

    /// Adds a key and all below it; nothing when it is not there.
    static void read(const KeyPath& path, Nodes& nodes)
    {
        std::error_code error;
        const obreg::Key key = openKey(path, KEY_READ, error);
        if (error == obreg::Status::notFound || error == obreg::Status::keyDeleted)
            return;
        check(error, path);
        Node node{path, {}};
        std::vector<obreg::SubKey> subKeys;
        try {
            KeyContent content = readKeyOnce(key, path); // what it misses is told as a change
            for (ValueEntry& entry : content.values)
                if (std::optional<obreg::NamedValue> value = takeValue(key, path, std::move(entry)))
                    node.values.push_back(*std::move(value));
            subKeys = std::move(content.subKeys);
        } catch (const Failure& failure) {
            if (failure.exit != ExitNotFound)
                throw;
            return;
        }
        nodes.emplace(path.identity(), std::move(node));
        for (const obreg::SubKey& subKey : subKeys)
            read(path.child(subKey.name), nodes);
    }

    void lookAt(const KeyPath& top)
    {
        Nodes now;
        read(top, now);
        const std::string first = top.identity();
        Nodes before;
        for (auto at = m_nodes.lower_bound(first);
             at != m_nodes.end() && at->first.compare(0, first.size(), first) == 0;) {
            const auto next = std::next(at);
            if (at->second.path.isWithin(top))
                before.insert(m_nodes.extract(at));
            at = next;
        }
        for (const auto& [identity, node] : before)
            if (now.count(identity) == 0)
                tell(keyChange(Change::Removed, node.path));
        for (auto& [identity, node] : now) {
            const auto old = before.find(identity);
            if (old == before.end())
                tell(keyChange(Change::Added, node.path));
            std::vector<obreg::NamedValue> none;
            tellValues(node.path, old == before.end() ? none : old->second.values, node.values);
        }
        m_nodes.merge(now);
    }

    void lookAtValue(Node& node, const std::string& name)
    {
        std::error_code error;
        const obreg::Key key = openKey(node.path, KEY_READ, error);
        if (error == obreg::Status::notFound)
            return; // with its key, of which a later change tells
        check(error, node.path);
        std::vector<obreg::NamedValue> now;
        if (std::optional<obreg::Value> value = findValue(key, node.path, name))
            now.push_back({name, *std::move(value)});
        const auto at = std::lower_bound(node.values.begin(), node.values.end(), name,
                                         [](const obreg::NamedValue& value, const std::string& sought) {
                                             return compareValueNames(value.name, sought) < 0;
                                         });
        const bool known = at != node.values.end() && compareValueNames(at->name, name) == 0;
        std::vector<obreg::NamedValue> before(at, at + (known ? 1 : 0));
        tellValues(node.path, before, now);
        const auto place = known ? node.values.erase(at) : at;
        node.values.insert(place, now.begin(), now.end());
    }

    void tellValues(const KeyPath& path, std::vector<obreg::NamedValue>& before, std::vector<obreg::NamedValue>& now)
    {
        sideBySide(before, now, [&](const obreg::NamedValue* pOld, const obreg::NamedValue* pNew) {
            if (pNew == nullptr)
                tell(valueChange(Change::Removed, path, *pOld));
            else if (pOld == nullptr)
                tell(valueChange(Change::Added, path, *pNew));
            else if (pOld->value != pNew->value)
                tell(valueChange(path, *pOld, *pNew));
        });
    }

    void tell(const Fact& fact)
    {
        if (isDone())
            return;
        ++m_told;
        m_output.fact(fact);
    }

    const KeyPath m_top;
    Output& m_output;
    const uint64_t m_most;
    Nodes m_nodes;
    uint64_t m_told = 0;
};

/// Waits until there is something to tell; false when it was interrupted. The time without an answer goes on only while
/// the daemon is away.
bool waitForNews(KeyWatch& watch)
{
    const int descriptor = watch.descriptor();
    if (!watch.isAway())
        stopTimeout();
    const bool ready = waitReadable(descriptor);
    if (!watch.isAway())
        restartTimeout();
    return ready;
}

int watchFigures(const KeyPath& path, double interval, Seen& seen)
{
    openKey(path); // fails and says so
    while (!interrupted() && !seen.isDone()) {
        pause(interval);
        seen.look();
    }
    return ExitDone;
}

int watch(const WatchOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const bool figures = path.root == HKEY_PERFORMANCE_DATA; // which nobody tells
    KeyWatch keyWatch(path, obreg::Watch::Scope::tree, output);
    if (!figures && !keyWatch.begin())
        openKey(path); // fails and says so
    Seen seen(path, output, options.count);
    catchInterrupts();
    if (figures)
        return watchFigures(path, options.interval, seen);
    for (bool anew = false; !interrupted() && !seen.isDone();) {
        const auto part = [&] {
            if (anew) {
                keyWatch.begin();
                seen.look();
            }
            anew = false;
            if (!waitForNews(keyWatch))
                return;
            const std::optional<obreg::Changes> told = keyWatch.next(std::chrono::milliseconds(0));
            anew = !told || told->lost;
            if (told && told->lost)
                output.warning("more has changed than the daemon still knows: what is shown next is all that differs");
            else if (told)
                for (const obreg::Change& change : told->changes)
                    seen.look(change);
        };
        anew = !outliving(keyWatch, part) || anew;
    }
    return ExitDone;
}

/// Whether it is what `set` would store for that text in its place.
bool isText(const std::optional<obreg::Value>& value, const std::string& text)
{
    try {
        return value && *value == valueOfArguments(value->type, {text});
    } catch (const UsageError&) { // no number, say
        return false;
    }
}

/// What is waited for.
using Condition = std::function<bool(const std::optional<obreg::Value>& value, bool changed)>;

Condition conditionOf(const WatchOptions& options, const Arguments& arguments)
{
    const std::pair<const char*, Condition> all[] = {
        {"--equals", [&](const auto& value, bool) { return isText(value, options.equals); }},
        {"--not-equals", [&](const auto& value, bool) { return value && !isText(value, options.notEquals); }},
        {"--absent", [](const auto& value, bool) { return !value; }},
        {"--changed", [](const auto&, bool changed) { return changed; }},
    };
    const std::pair<const char*, Condition>* pChosen = nullptr;
    for (const auto& one : all) {
        if (!arguments.given(one.first))
            continue;
        if (pChosen != nullptr)
            throw UsageError(std::string(pChosen->first) + " and " + one.first + ": it waits for one of them");
        pChosen = &one;
    }
    return pChosen != nullptr ? pChosen->second : [](const auto& value, bool) { return value.has_value(); };
}

/// Whether something was done to a value of the watched key.
bool concerns(const obreg::Changes& told, const std::string& name)
{
    const auto isOfIt = [&](const obreg::Change& change) {
        const bool ofKey = change.kind == obreg::ChangeKind::keyMade || change.kind == obreg::ChangeKind::keyDeleted;
        return change.path.empty() && (ofKey || compareValueNames(change.name, name) == 0);
    };
    return told.lost || std::any_of(told.changes.begin(), told.changes.end(), isOfIt);
}

int wait(const WatchOptions& options, const Arguments& arguments, Output& output)
{
    const Condition holds = conditionOf(options, arguments);
    const KeyPath path = keyArgument(options.key);
    if (path.root == HKEY_PERFORMANCE_DATA)
        throw UsageError("the daemon does not tell when its figures change; \"obreg watch\" looks at them regularly");
    Failure late(ExitTimeUp, subjectText(path, &options.name) + ": the time is up, and what was waited for is not so");
    late.key = path.text();
    changeTimeout(failureText(output.form() == Form::Json, late), late.exit);
    KeyWatch keyWatch(path, obreg::Watch::Scope::key, output);
    keyWatch.begin();
    std::optional<obreg::Value> value = findValue(path, options.name);
    bool changed = false;
    for (bool anew = false; !holds(value, changed);) {
        const auto part = [&] {
            bool told = false;
            if (anew) {
                keyWatch.begin();
            } else {
                const std::optional<obreg::Changes> changes = keyWatch.next(obreg::Watch::forever);
                anew = !changes;
                told = changes && concerns(*changes, options.name);
                if (!told)
                    return;
            }
            std::optional<obreg::Value> now = findValue(path, options.name);
            changed = told || now != value;
            value = std::move(now);
            anew = false;
        };
        anew = !outliving(keyWatch, part) || anew;
    }
    if (value)
        printValue(output, path, {options.name, *std::move(value)});
    else if (output.form() == Form::Json)
        output.fact({"no-value", {{"key", path.text(), Style::Key}, {"name", shownName(options.name), Style::Name}}});
    return ExitDone;
}

} // namespace

Run declareWatch(Arguments& arguments)
{
    const auto pOptions = std::make_shared<WatchOptions>();
    arguments.text("KEY", pOptions->key, "Key to watch, with all below it", Arguments::Required);
    arguments.number("--count", pOptions->count, "End after that many changes; otherwise Ctrl-C ends it");
    arguments.seconds("--interval", pOptions->interval, 0.001,
                      "Time between two looks at HKPD; of other changes the daemon tells at once");
    return [=](Output& output) { return watch(*pOptions, output); };
}

Run declareWait(Arguments& arguments)
{
    const auto pOptions = std::make_shared<WatchOptions>();
    arguments.text("KEY", pOptions->key, "Key; it need not be there yet", Arguments::Required);
    arguments.valueName("NAME", pOptions->name, "Wait until it has a value of this name, and print that",
                        Arguments::Required);
    arguments.text("--equals", pOptions->equals, "Until the value is this text, or number");
    arguments.text("--not-equals", pOptions->notEquals, "Until it is there and another one");
    arguments.flag("--absent", pOptions->absent, "Until it is not there");
    arguments.flag("--changed", pOptions->changed, "Until it is set or deleted the next time");
    return [=, &arguments](Output& output) { return wait(*pOptions, arguments, output); };
}

} // namespace obregtool
