// watch and ping: what goes on while they run.
#include <chrono>
#include <cmath>
#include <map>

#include "alarm.h"
#include "changes.h"
#include "histogram.h"
#include "readtree.h"
#include "verbs.h"

namespace obregtool {

namespace {

struct LiveOptions {
    std::string key;
    double interval = 0;
    uint64_t count = 0; // 0: for ever
    bool latency = false;
};

/// A key and everything below it, as last seen. Each poll asks every known key for its last write time and reads again
/// those whose time has moved.
class Watched {
public:
    Watched(KeyPath path, Output& output) : m_path(std::move(path)), m_output(output) { add(m_path, false); }

    bool empty() const { return m_nodes.empty(); }
    uint64_t changes() const { return m_changes; }

    void poll()
    {
        std::vector<std::string> moved;
        for (auto at = m_nodes.begin(); at != m_nodes.end();) {
            std::error_code error;
            const obreg::KeyInfo info = at->second.key.info(error);
            if (error == obreg::Status::keyDeleted || error == obreg::Status::notFound) {
                tell(keyChange(Change::Removed, at->second.path));
                at = m_nodes.erase(at);
                continue;
            }
            check(error, at->second.path);
            if (info.lastWriteTime != at->second.lastWriteTime)
                moved.push_back(at->first);
            ++at;
        }
        for (const std::string& identity : moved)
            readAgain(m_nodes[identity]);
        if (m_nodes.empty()) // the watched key itself; it may come back
            add(m_path, true);
    }

private:
    struct Node {
        KeyPath path;
        obreg::Key key;
        UINT64 lastWriteTime = 0;
        std::vector<obreg::NamedValue> values;
    };

    void add(const KeyPath& path, bool news)
    {
        std::error_code error;
        Node node{path, openKey(path, KEY_READ, error), 0, {}};
        if (error == obreg::Status::notFound)
            return;
        check(error, path);
        if (news)
            tell(keyChange(Change::Added, path));
        const std::vector<obreg::SubKey> subKeys = read(node);
        for (const obreg::NamedValue& value : node.values)
            if (news)
                tell(valueChange(Change::Added, path, value));
        m_nodes[path.identity()] = std::move(node);
        for (const obreg::SubKey& subKey : subKeys)
            add(path.child(subKey.name), news);
    }

    void readAgain(Node& node)
    {
        std::vector<obreg::NamedValue> before = node.values;
        const std::vector<obreg::SubKey> subKeys = read(node);
        sideBySide(before, node.values, [&](const obreg::NamedValue* pOld, const obreg::NamedValue* pNew) {
            if (pNew == nullptr)
                tell(valueChange(Change::Removed, node.path, *pOld));
            else if (pOld == nullptr)
                tell(valueChange(Change::Added, node.path, *pNew));
            else if (pOld->value != pNew->value)
                tell(valueChange(node.path, *pOld, *pNew));
        });
        const KeyPath path = node.path;
        for (const obreg::SubKey& subKey : subKeys)
            if (m_nodes.count(path.child(subKey.name).identity()) == 0)
                add(path.child(subKey.name), true);
    }

    /// Fills in time and values and returns the sub-keys. A key that is gone stays as it was: the next poll says so.
    static std::vector<obreg::SubKey> read(Node& node)
    {
        try {
            KeyContent content = readKeyOnce(node.key, node.path); // what it missed has changed the time
            std::vector<obreg::NamedValue> values;
            for (ValueEntry& entry : content.values)
                if (std::optional<obreg::NamedValue> value = takeValue(node.key, node.path, std::move(entry)))
                    values.push_back(*std::move(value));
            node.lastWriteTime = content.lastWriteTime;
            node.values = std::move(values);
            return std::move(content.subKeys);
        } catch (const Failure& failure) {
            if (failure.exit != ExitNotFound)
                throw;
            return {};
        }
    }

    void tell(const Fact& fact)
    {
        ++m_changes;
        m_output.fact(fact);
    }

    const KeyPath m_path;
    Output& m_output;
    std::map<std::string, Node> m_nodes; // by identity, so a key comes before those below it
    uint64_t m_changes = 0;
};

int watch(const LiveOptions& options, Output& output)
{
    Watched watched(keyArgument(options.key), output);
    if (watched.empty())
        openKey(keyArgument(options.key)); // fails and says so
    catchInterrupts();
    while (!interrupted() && (options.count == 0 || watched.changes() < options.count)) {
        pause(options.interval);
        watched.poll();
    }
    return ExitDone;
}

double roundTripUs()
{
    const auto begin = std::chrono::steady_clock::now();
    std::error_code error;
    obreg::localMachine().info(error);
    if (error) {
        const Failure failure = failureOf({HKEY_LOCAL_MACHINE, {}}, nullptr, error);
        throw Failure(failure.exit, error.message(), failure.advice); // the key is not the point
    }
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - begin;
    return std::round(time.count() * 10) / 10;
}

int ping(const LiveOptions& options, Output& output)
{
    const bool terminal = output.form() == Form::Terminal;
    constexpr uint64_t countInPipe = 1000;
    const uint64_t count = options.count != 0 ? options.count : !options.latency ? 1 : terminal ? 0 : countInPipe;
    Histogram histogram;
    catchInterrupts();
    restartTimeout();
    roundTripUs(); // the first one connects
    while (!interrupted() && (count == 0 || histogram.count() < count)) {
        restartTimeout();
        histogram.add(roundTripUs());
        if (options.latency && terminal)
            histogram.draw(output);
        if (histogram.count() != count)
            pause(options.interval);
    }
    if (histogram.count() == 0)
        throw Failure(ExitNoDaemon, "interrupted before the daemon answered");
    if (!options.latency && count == 1) {
        output.fact({"ping", {{"roundTripUs", histogram.mean()}}});
        return ExitDone;
    }
    output.fact({"ping",
                 {{"count", histogram.count()},
                  {"leastUs", histogram.least()},
                  {"meanUs", histogram.mean()},
                  {"medianUs", histogram.quantile(0.5)},
                  {"p90Us", histogram.quantile(0.9)},
                  {"p99Us", histogram.quantile(0.99)},
                  {"mostUs", histogram.most()}}});
    return ExitDone;
}

} // namespace

Run declareWatch(Arguments& arguments)
{
    const auto pOptions = std::make_shared<LiveOptions>();
    pOptions->interval = 1;
    arguments.text("KEY", pOptions->key, "Key to watch, with all below it", Arguments::Required);
    arguments.seconds("--interval", pOptions->interval, 0.001, "Time between two looks");
    arguments.number("--count", pOptions->count, "End after that many changes; otherwise Ctrl-C ends it");
    return [=](Output& output) { return watch(*pOptions, output); };
}

Run declarePing(Arguments& arguments)
{
    const auto pOptions = std::make_shared<LiveOptions>();
    pOptions->interval = 0.01;
    arguments.flag("--latency", pOptions->latency,
                   "Many round trips: a live histogram on a terminal, figures in a pipe");
    arguments.number("--count", pOptions->count, "Round trips [1; with --latency until Ctrl-C, or 1000 in a pipe]");
    arguments.seconds("--interval", pOptions->interval, 0, "Time between two of them");
    return [=](Output& output) { return ping(*pOptions, output); };
}

} // namespace obregtool
