// copy and compare: two keys and what is below them.
#include "alarm.h"
#include "changes.h"
#include "readtree.h"
#include "verbs.h"
#include "writequeue.h"

namespace obregtool {

namespace {

struct TwoKeys {
    std::string from;
    std::string to;
    bool recursive = false;
};

int copy(const TwoKeys& options, Output& output)
{
    const KeyPath from = keyArgument(options.from);
    const KeyPath to = keyArgument(options.to);
    if (to.isWithin(from))
        throw UsageError("a key cannot be copied to itself or below itself; choose another place");
    uint64_t keys = 0;
    uint64_t values = 0;
    WriteQueue queue;
    letInterruptsEndWork();
    try {
        Progress progress("copied", 0);
        walk(from, options.recursive,
             [&](const KeyPath& path, const obreg::Key& key, KeyContent& content, size_t depth) {
                 const KeyPath place =
                     depth == 0 ? to : to.child(path.path.substr(from.isRoot() ? 0 : from.path.size() + 1));
                 const auto pTarget = std::make_shared<Target>(place);
                 queue.createKey(pTarget);
                 ++keys;
                 forEachValue(key, path, content.values, [&](obreg::NamedValue&& value) {
                     endIfInterrupted();
                     queue.set(pTarget, std::move(value.name), std::move(value.value));
                     ++values;
                     progress.update(queue.done());
                 });
                 return true;
             });
        queue.wait();
    } catch (const Failure& failure) {
        throw queue.end(failure);
    }
    output.summary({"copied",
                    {{"from", from.text()}, {"to", to.text()}, {"keys", keys}, {"values", values}},
                    "",
                    Style::Normal,
                    true});
    return ExitDone;
}

/// Gives a fact for each difference.
class Comparison {
public:
    Comparison(bool recursive, Output& output) : m_recursive(recursive), m_output(output) {}

    void run(const KeyPath& a, const KeyPath& b)
    {
        const obreg::Key keyA = a.open();
        const obreg::Key keyB = b.open();
        KeyContent contentA = readKey(keyA, a);
        KeyContent contentB = readKey(keyB, b);
        sideBySide(contentA.values, contentB.values, [&](ValueEntry* pA, ValueEntry* pB) {
            compareValues(pA ? takeValue(keyA, a, std::move(*pA)) : std::nullopt,
                          pB ? takeValue(keyB, b, std::move(*pB)) : std::nullopt, a, b);
        });
        contentA.values = contentB.values = {};
        if (!m_recursive)
            return;
        sideBySide(contentA.subKeys, contentB.subKeys, [&](const obreg::SubKey* pA, const obreg::SubKey* pB) {
            if (pA != nullptr && pB != nullptr)
                run(a.child(pA->name), b.child(pB->name));
            else
                found(pA != nullptr ? keyChange(Change::Removed, a.child(pA->name))
                                    : keyChange(Change::Added, b.child(pB->name)));
        });
    }

    bool different() const { return m_different; }

private:
    void compareValues(const std::optional<obreg::NamedValue>& valueA, const std::optional<obreg::NamedValue>& valueB,
                       const KeyPath& a, const KeyPath& b)
    {
        if (valueA && !valueB)
            found(valueChange(Change::Removed, a, *valueA));
        else if (valueB && !valueA)
            found(valueChange(Change::Added, b, *valueB));
        else if (valueA && valueA->value != valueB->value)
            found(valueChange(a, *valueA, *valueB));
    }

    void found(const Fact& fact)
    {
        m_different = true;
        m_output.fact(fact);
    }

    const bool m_recursive;
    Output& m_output;
    bool m_different = false;
};

int compare(const TwoKeys& options, Output& output)
{
    Comparison comparison(options.recursive, output);
    comparison.run(keyArgument(options.from), keyArgument(options.to));
    return comparison.different() ? ExitDifferent : ExitDone;
}

std::shared_ptr<TwoKeys> withTwoKeys(Arguments& arguments, const char* pFrom, const char* pTo)
{
    auto pOptions = std::make_shared<TwoKeys>();
    arguments.text("FROM", pOptions->from, pFrom, Arguments::Required);
    arguments.text("TO", pOptions->to, pTo, Arguments::Required);
    arguments.flag("-s,--recursive", pOptions->recursive, "With all keys below");
    return pOptions;
}

} // namespace

Run declareCopy(Arguments& arguments)
{
    const auto pOptions =
        withTwoKeys(arguments, "Key to copy", "Key to copy to; what it has of the same name is replaced");
    return [=](Output& output) { return copy(*pOptions, output); };
}

Run declareCompare(Arguments& arguments)
{
    const auto pOptions = withTwoKeys(arguments, "Key to begin from", "Key to compare with it");
    return [=](Output& output) { return compare(*pOptions, output); };
}

} // namespace obregtool
