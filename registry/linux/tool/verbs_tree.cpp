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
    carryOut(options.caution, [&] {
        try {
            copier.copyTree(from, to, options.depth());
        } catch (Failure& failure) {
            failure.addAdvice(std::to_string(copier.values()) + " values were copied, and it can be done again");
            throw;
        }
    });
    output.summary({"copied",
                    {{"from", from.text()},
                     {"to", to.text()},
                     {"keys", copier.keys()},
                     {"values", copier.values()},
                     {"as", copier.how()}},
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
