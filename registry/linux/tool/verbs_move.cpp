// rename and move: a key with all below it, or a value, to another place: in one transaction when it is not too much
// for that. Otherwise what is moved is copied, compared with the copy, and only then deleted.
#include "alarm.h"
#include "batch.h"
#include "caution.h"
#include "comparison.h"
#include "copier.h"
#include "history.h"
#include "parallel.h"
#include "text.h"
#include "verbs.h"

namespace obregtool {

namespace {

constexpr int MostTries = 5;

struct MoveOptions {
    std::string key;
    std::string to; ///< a key, or a new name
    std::string value;
    Caution caution;
};

/// The failure, and what stands now.
Failure standing(const Failure& failure, const std::string& what)
{
    Failure told = failure;
    told.addAdvice(what);
    return told;
}

[[noreturn]] void failChanged(const std::string& where)
{
    throw Failure(ExitFailed, where + ": was changed by somebody else while it was moved");
}

/// Keys that were read, and when they had last changed.
class SeenKeys {
public:
    void add(const TreeReader::Entry& entry) { m_seen.push_back({entry.path, entry.content.lastWriteTime}); }

    /// Fails when one of the keys has changed since.
    void checkUnchanged() const
    {
        forEachParallel(m_seen.size(), [this](size_t i) {
            std::error_code error;
            const obreg::KeyInfo info = openKey(m_seen[i].path).info(error);
            check(error, m_seen[i].path);
            if (info.lastWriteTime != m_seen[i].lastWriteTime)
                failChanged(subjectText(m_seen[i].path));
        });
    }

private:
    struct Seen {
        KeyPath path;
        UINT64 lastWriteTime;
    };
    std::vector<Seen> m_seen;
};

/// Compares the copy with the original, whose keys it notes.
class Verification : public Comparer {
public:
    void missingRight(TreeReader::Entry& left) override { failChanged(subjectText(left.path)); }
    void missingLeft(TreeReader::Entry& /*right*/, const KeyPath& place) override { failChanged(subjectText(place)); }
    void value(const TreeReader::Entry& left, const TreeReader::Entry& /*right*/, const obreg::NamedValue* pLeft,
               const obreg::NamedValue* pRight) override
    {
        failChanged(subjectText(left.path, &(pLeft != nullptr ? pLeft : pRight)->name));
    }
    void key(const TreeReader::Entry& left) override
    {
        seen.add(left);
        levels.resize(std::max(levels.size(), left.depth + 1));
        levels[left.depth].push_back(left.path);
    }

    SeenKeys seen;
    std::vector<std::vector<KeyPath>> levels;
};

[[noreturn]] void refuseExisting(const std::string& what)
{
    throw Failure(ExitFailed, what + ": is there already",
                  "nothing was changed; choose another name, or delete it first");
}

bool isThere(const KeyPath& path, const std::string* pValueName)
{
    std::error_code error;
    const obreg::Key key = openKey(path, KEY_READ, error);
    if (!error && pValueName != nullptr)
        key.get<obreg::Value>(*pValueName, error);
    if (error != obreg::Status::notFound)
        check(error, path, pValueName);
    return !error;
}

/// How many keys and values were moved.
struct Moved {
    uint64_t keys = 0;
    uint64_t values = 0;
};

Moved copyAndDelete(const KeyPath& from, const KeyPath& to)
{
    bool created = false;
    std::error_code error;
    makeKey(to, &created, error);
    check(error, to);
    if (!created)
        refuseExisting(subjectText(to));
    Verification verification;
    Copier copier;
    try {
        copier.copyTree(from, to, UINT64_MAX);
        compareTrees(from, to, UINT64_MAX, verification);
        verification.seen.checkUnchanged();
        endIfInterrupted();
    } catch (const Failure& failure) {
        throw standing(failure, subjectText(from) + " is as it was; " + subjectText(to) +
                                    " has a part of it: delete that before you try again");
    }
    try {
        removeKeys(from, verification.levels);
    } catch (const Failure& failure) {
        throw standing(failure, subjectText(to) + " is complete; of " + subjectText(from) +
                                    " a part is left: delete that when nothing new is in it");
    }
    return {copier.keys(), copier.values()};
}

enum class End { Moved, TooMuchForOne, ChangedMeanwhile };

/// Carries out a move; nothing was done when it gives another end.
End commitMove(Batch& batch)
{
    try {
        batch.commit();
        return End::Moved;
    } catch (const BatchFailure& failure) {
        if (failure.asOne)
            return End::TooMuchForOne;
        if (failure.status == OBREG_STATUS_CONDITION_FAILED)
            return End::ChangedMeanwhile;
        throw;
    }
}

/// Moves a key in one transaction, unless it changes while it is read.
End tryMove(const KeyPath& from, const KeyPath& to, Moved& moved)
{
    moved = {};
    const std::optional<uint64_t> since = History::lastNow();
    if (!since)
        return End::TooMuchForOne; // the daemon has no transactions either
    if (isThere(to, nullptr))
        refuseExisting(subjectText(to));
    Batch batch;
    batch.requireNoKey(to, {});
    batch.requireKey(from, {});
    batch.requireUnchanged(*since, {});
    TreeReader reader(from, UINT64_MAX, Read::All);
    while (TreeReader::Entry* const pEntry = reader.next()) {
        endIfInterrupted();
        std::vector<ValueEntry>& values = pEntry->content.values;
        ++moved.keys;
        moved.values += values.size();
        size_t bytes = batch.bytes();
        for (const ValueEntry& value : values)
            bytes += value.length;                                                 // at least
        if (2 * (moved.keys + moved.values) > MostAsOne || bytes > MostBytesAsOne) // made here, deleted there
            return End::TooMuchForOne;
        batch.key(obregtool::moved(pEntry->path, from, to), {});
        sortByPosition(values);
        forEachValue(pEntry->key, pEntry->path, values, [&batch](obreg::NamedValue&& value) {
            batch.value(std::move(value.name), std::move(value.value), {});
        });
    }
    batch.removeKey(from, {});
    return commitMove(batch);
}

/// Nothing when it is too much for one transaction, and then nothing was done.
std::optional<Moved> moveAsOne(const KeyPath& from, const KeyPath& to)
{
    letInterruptsEndWork();
    for (int i = 0; i < MostTries; ++i) {
        Moved moved;
        const End end = tryMove(from, to, moved);
        if (end != End::ChangedMeanwhile)
            return end == End::Moved ? std::optional(moved) : std::nullopt;
    }
    throw Failure(ExitFailed, subjectText(from) + ": kept changing while it was moved",
                  "run this again when less is written there");
}

int moveKey(const KeyPath& from, const KeyPath& to, const Caution& caution, Output& output)
{
    if (from.isRoot())
        throw UsageError(from.text() + " is a root and stays where it is; name a key below it");
    if (to.isWithin(from))
        throw UsageError("a key cannot be moved to itself, in whatever case, or below itself; choose another place");
    openKey(from, KEY_ALL_ACCESS); // the right to delete it
    if (isThere(to, nullptr))
        refuseExisting(subjectText(to));
    const Changes changes = [&](RegSink& sink) {
        tellCopy(sink, from, to, UINT64_MAX);
        sink.removeKey(from, {});
    };
    if (!prepare(caution, Rehearsal::Missing::Fails, changes, output))
        return ExitDone;
    std::optional<Moved> moved;
    carryOut(caution, [&] {
        try {
            moved = moveAsOne(from, to);
        } catch (const Failure& failure) {
            throw standing(failure, failure.status == OBREG_STATUS_REQUEST_FAILED
                                        ? "no answer came: it was moved whole or not at all"
                                        : "nothing was changed");
        }
    });
    const bool isOne = moved.has_value();
    if (!isOne)
        carryOut(caution, [&] { moved = copyAndDelete(from, to); });
    output.summary({"moved",
                    {{"from", from.text()},
                     {"to", to.text()},
                     {"keys", moved->keys},
                     {"values", moved->values},
                     {"as", isOne ? "one transaction" : "a copy, then a deletion"}},
                    "",
                    Style::Normal,
                    true});
    return ExitDone;
}

obreg::Value read(const KeyPath& path, const obreg::Key& key, const std::string& name)
{
    std::error_code error;
    auto value = key.get<obreg::Value>(name, error);
    check(error, path, &name);
    return value;
}

struct ValuePlace {
    KeyPath key;
    std::string name;
};

/// Moves a value in one transaction. False where the daemon has none.
bool moveAsOne(const ValuePlace& from, const obreg::Value& value, const ValuePlace& to)
{
    Batch batch;
    batch.requireKey(from.key, {});
    batch.requireValue(std::string(from.name), obreg::Value(value), {});
    if (isThere(to.key, nullptr)) {
        batch.requireKey(to.key, {});
        batch.requireNoValue(std::string(to.name), {});
    } else {
        batch.requireNoKey(to.key, {});
        batch.key(to.key, {});
    }
    batch.value(std::string(to.name), obreg::Value(value), {});
    batch.key(from.key, {});
    batch.removeValue(std::string(from.name), {});
    const End end = commitMove(batch);
    if (end == End::ChangedMeanwhile)
        failChanged(subjectText(from.key, &from.name));
    return end == End::Moved;
}

void copyAndDelete(const ValuePlace& from, const obreg::Key& fromKey, const obreg::Value& value, const ValuePlace& to)
{
    std::error_code error;
    const obreg::Key toKey = makeKey(to.key, nullptr, error);
    check(error, to.key);
    toKey.set(to.name, value, error);
    check(error, to.key, &to.name, value.data.size());
    try {
        if (read(to.key, toKey, to.name) != value || read(from.key, fromKey, from.name) != value)
            throw Failure(ExitFailed,
                          subjectText(from.key, &from.name) + ": was changed by somebody else while it was moved");
        fromKey.removeValue(from.name, error);
        check(error, from.key, &from.name);
    } catch (const Failure& failure) {
        throw standing(failure, "both values stand: " + subjectText(from.key, &from.name) + " and " +
                                    subjectText(to.key, &to.name));
    }
}

int moveValue(const ValuePlace& from, const ValuePlace& to, const Caution& caution, Output& output)
{
    if (from.key.identity() == to.key.identity() && compareValueNames(from.name, to.name) == 0)
        throw UsageError("a value cannot be moved to itself, in whatever case; choose another name");
    const obreg::Key fromKey = openKey(from.key, KEY_ALL_ACCESS);
    const obreg::Value value = read(from.key, fromKey, from.name);
    if (isThere(to.key, &to.name))
        refuseExisting(subjectText(to.key, &to.name));
    const Changes changes = [&](RegSink& sink) {
        sink.key(to.key, {});
        sink.value(std::string(to.name), obreg::Value(value), {});
        sink.key(from.key, {});
        sink.removeValue(std::string(from.name), {});
    };
    if (!prepare(caution, Rehearsal::Missing::Fails, changes, output))
        return ExitDone;
    carryOut(caution, [&] {
        if (!moveAsOne(from, value, to))
            copyAndDelete(from, fromKey, value, to);
    });
    output.summary({"moved",
                    {{"from", from.key.text()},
                     {"name", shownName(from.name)},
                     {"to", to.key.text()},
                     {"newName", shownName(to.name)}},
                    "",
                    Style::Normal,
                    true});
    return ExitDone;
}

/// A name that a key of the same parent is to have.
KeyPath beside(const KeyPath& key, const MoveOptions& options)
{
    const bool slashes = options.key.find('/') < options.key.find('\\'); // both separate in such a key
    if (options.to.empty() || options.to.find_first_of(slashes ? "\\/" : "\\") != std::string::npos)
        throw UsageError("\"" + escaped(options.to, Escape::Name) +
                         R"(" is no name of a key; to put it elsewhere use "obreg move")");
    return key.parent().child(options.to);
}

} // namespace

Run declareRename(Arguments& arguments)
{
    const auto pOptions = withKey<MoveOptions>(arguments);
    arguments.text("NEWNAME", pOptions->to, "Its new name, which nothing beside it may have", Arguments::Required);
    arguments.text("-v,--value", pOptions->value, "Rename this value of KEY, not the key; @ for the unnamed");
    addDryRunAndBackup(arguments, pOptions->caution);
    return [=, &arguments](Output& output) {
        const KeyPath key = keyArgument(pOptions->key);
        return arguments.given("--value")
                   ? moveValue({key, pOptions->value}, {key, pOptions->to}, pOptions->caution, output)
                   : moveKey(key, beside(key, *pOptions), pOptions->caution, output);
    };
}

Run declareMove(Arguments& arguments)
{
    const auto pOptions = withKey<MoveOptions>(arguments);
    arguments.text("TO", pOptions->to, "Key that it becomes, and that is not there yet", Arguments::Required);
    arguments.text("-v,--value", pOptions->value, "Move this value of KEY into the key TO; @ for the unnamed");
    addDryRunAndBackup(arguments, pOptions->caution);
    return [=, &arguments](Output& output) {
        const KeyPath key = keyArgument(pOptions->key);
        const KeyPath to = keyArgument(pOptions->to);
        return arguments.given("--value")
                   ? moveValue({key, pOptions->value}, {to, pOptions->value}, pOptions->caution, output)
                   : moveKey(key, to, pOptions->caution, output);
    };
}

} // namespace obregtool
