// copy: a key's values, and what is below it, to another key.
#include "caution.h"
#include "copier.h"
#include "verbs.h"

namespace obregtool {

namespace {

struct TwoKeys {
    std::string from;
    std::string to;
    bool recursive = false;
    Caution caution;

    uint64_t depth() const { return recursive ? UINT64_MAX : 0; }
};

/// Tells what a copy changes.
void tellCopy(RegSink& sink, const KeyPath& from, const KeyPath& to, uint64_t depth)
{
    TreeReader reader(from, depth, Read::All);
    while (TreeReader::Entry* const pEntry = reader.next()) {
        sink.key(moved(pEntry->path, from, to), {});
        for (ValueEntry& entry : pEntry->content.values)
            if (std::optional<obreg::NamedValue> value = takeValue(pEntry->key, pEntry->path, std::move(entry)))
                sink.value(std::move(value->name), std::move(value->value), {});
    }
}

void copyAll(Copier& copier, const KeyPath& from, const KeyPath& to, uint64_t depth)
{
    Progress progress("copied", 0);
    try {
        TreeReader reader(from, depth, Read::All);
        while (TreeReader::Entry* const pEntry = reader.next()) {
            copier.copy(*pEntry, moved(pEntry->path, from, to));
            progress.update(copier.values());
        }
        copier.finish();
    } catch (Failure& failure) {
        failure.advice += std::string(failure.advice.empty() ? "" : "; ") + std::to_string(copier.values()) +
                          " values were copied, and it can be done again";
        throw;
    }
}

int copy(const TwoKeys& options, Output& output)
{
    const KeyPath from = keyArgument(options.from);
    const KeyPath to = keyArgument(options.to);
    if (to.isWithin(from))
        throw UsageError("a key cannot be copied to itself or below itself; choose another place");
    const Changes changes = [&](RegSink& sink) { tellCopy(sink, from, to, options.depth()); };
    if (!prepare(options.caution, Rehearsal::Missing::Passes, changes, output))
        return ExitDone;
    Copier copier;
    carryOut(options.caution, [&] { copyAll(copier, from, to, options.depth()); });
    output.summary({"copied",
                    {{"from", from.text()}, {"to", to.text()}, {"keys", copier.keys()}, {"values", copier.values()}},
                    "",
                    Style::Normal,
                    true});
    return ExitDone;
}

} // namespace

Run declareCopy(Arguments& arguments)
{
    auto pOptions = std::make_shared<TwoKeys>();
    arguments.text("FROM", pOptions->from, "Key to copy", Arguments::Required);
    arguments.text("TO", pOptions->to, "Key to copy to; what it has of the same name is replaced", Arguments::Required);
    arguments.flag("-s,--recursive", pOptions->recursive, "With all keys below");
    addDryRunAndBackup(arguments, pOptions->caution);
    return [=](Output& output) { return copy(*pOptions, output); };
}

} // namespace obregtool
