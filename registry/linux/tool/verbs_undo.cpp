// undo: changes taken back, all of them or none.
#include "batch.h"
#include "caution.h"
#include "moment.h"
#include "text.h"
#include "undoing.h"
#include "verbs.h"

namespace obregtool {

namespace {

constexpr int MostLooks = 10;
constexpr uint64_t JustBefore = 10'000'000; // a second: what belongs to one deletion follows closer than that

struct UndoOptions {
    std::string what; ///< a change's number, or a key
    std::string to;
    Caution caution;
};

[[noreturn]] void refuse(const PastChange& change, const std::string& why, const std::string& advice)
{
    throw Failure(ExitCondition,
                  "change " + std::to_string(change.number) + " of " + subjectText(change.key) +
                      " cannot be taken back alone: " + why,
                  "nothing was changed; " + advice);
}

std::string undoTo(const PastChange& change)
{
    return "\"obreg undo --to " + std::to_string(change.number - 1) + ' ' + shellQuoted(change.key.text()) +
           "\" takes back all that came after it as well";
}

/// Whether what a change did is still as it left it.
void checkUntouched(const PastChange& change, const History& history)
{
    if (const uint64_t again = history.changedAgain(); again != 0)
        refuse(change, "change " + std::to_string(again) + " is about the same", undoTo(change));
    if (change.kind != PastChange::KeyMade)
        return;
    std::error_code error;
    const obreg::Key key = openKey(change.key, KEY_READ, error);
    const obreg::KeyInfo info = error ? obreg::KeyInfo() : key.info(error);
    check(error, change.key);
    if (info.values != 0 || info.subKeys != 0)
        refuse(change, "the key has values or sub-keys now", undoTo(change));
}

/// Takes back one change. The deletion of a key comes with those of its values, and of all that was deleted below it by
/// the same process just before. Returns the history that it has gone through.
History takeOne(uint64_t number, Undoing& undoing)
{
    const std::optional<PastChange> found = number == 0 ? std::nullopt : History::find(number);
    if (!found)
        throw Failure(ExitNotFound, "there is no change " + std::to_string(number) + ", or it is no longer kept",
                      "\"obreg log\" shows those that are");
    History history(found->key, found->isOfKey());
    std::optional<PastChange> change = history.next();
    while (change && change->number > number)
        change = history.next();
    if (!change || change->number != number)
        throw Failure(ExitFailed, "change " + std::to_string(number) + " is no longer kept");
    checkUntouched(*change, history);
    undoing.take(*change);
    uint64_t time = found->time;
    const auto goesWithIt = [&](const PastChange& one) {
        return (one.kind == PastChange::KeyDeleted || one.kind == PastChange::ValueDeleted) && one.uid == found->uid &&
               one.pid == found->pid && one.time + JustBefore >= time;
    };
    if (found->kind == PastChange::KeyDeleted)
        for (; (change = history.next()) && goesWithIt(*change); time = change->time)
            undoing.take(*change);
    return history;
}

/// Takes back all that has happened to a key and below it since then.
History takeAll(const KeyPath& key, const Moment& to, Undoing& undoing)
{
    History history(key, true);
    std::optional<PastChange> change = history.next();
    for (; change && to.isBefore(*change); change = history.next())
        undoing.take(*change);
    if (change || history.first() <= 1)
        return history;
    const std::optional<PastChange> oldest = History::find(history.first());
    if (to.isTime ? !oldest || to.isBefore(*oldest) : to.at + 1 < history.first())
        throw Failure(ExitFailed,
                      subjectText(key) + ": how it was then is not known, for changes before number " +
                          std::to_string(history.first()) + " are no longer kept",
                      "nothing was changed; a later time can be named, or a backup restored");
    return history;
}

/// What is to be done, from a look at the history and one at what is there, between which nothing of it has changed.
Undoing plan(const UndoOptions& options)
{
    const std::optional<uint64_t> number = numberOf(options.what, INT64_MAX);
    if (options.to.empty() && !number)
        throw UsageError("\"" + escaped(options.what, Escape::Name) +
                         "\" is no change's number; to bring a key back to what it was, add --to and when");
    for (int i = 0; i < MostLooks; ++i) {
        Undoing undoing;
        const History history = options.to.empty()
                                    ? takeOne(*number, undoing)
                                    : takeAll(keyArgument(options.what), momentArgument(options.to), undoing);
        undoing.look(history.last());
        if (!history.hasMovedOn())
            return undoing;
    }
    throw Failure(ExitFailed, "what is to be taken back kept changing while it was looked at",
                  "nothing was changed; run this again when less is written there");
}

int undo(const UndoOptions& options, Output& output)
{
    const Undoing undoing = plan(options);
    const Changes changes = [&undoing](RegSink& sink) { undoing.tell(sink); };
    if (!prepare(options.caution, Rehearsal::Missing::Passes, changes, output))
        return ExitDone;
    if (!undoing.empty())
        carryOut(options.caution, [&undoing] {
            Batch batch;
            undoing.tellConditions(batch);
            undoing.tell(batch);
            try {
                batch.commit();
            } catch (BatchFailure& failure) {
                if (failure.asOne)
                    failure.addAdvice("nothing was changed; undo less at once: a part of the key, or not so far back");
                throw;
            }
        });
    output.summary({"undone", {{"changes", undoing.changes()}}, "", Style::Normal, true});
    return ExitDone;
}

} // namespace

Run declareUndo(Arguments& arguments)
{
    const auto pOptions = std::make_shared<UndoOptions>();
    arguments.text("WHAT", pOptions->what, "Number of the change, as log shows it; with --to the key",
                   Arguments::Required);
    arguments.text("--to", pOptions->to,
                   "Bring the key, with all below it, back to what it was after that change, or at that time");
    addDryRunAndBackup(arguments, pOptions->caution);
    return [=](Output& output) { return undo(*pOptions, output); };
}

} // namespace obregtool
