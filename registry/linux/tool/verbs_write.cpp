// add, set, delete and rm: changing single keys and values.
#include <cerrno>
#include <cstdio>
#include <optional>

#include "alarm.h"
#include "caution.h"
#include "condition.h"
#include "files.h"
#include "readtree.h"
#include "text.h"
#include "valuetext.h"
#include "verbs.h"

namespace obregtool {

namespace {

constexpr UINT32 ManyValues = 10; // a key with more is deleted on request only

struct WriteOptions {
    std::string key;
    std::string name;
    std::string type;
    std::vector<std::string> data;
    std::string dataFile;
    std::string separator;
    bool yes = false;
    bool allValues = false;
    bool forceType = false;
    ValueCondition condition;
    Caution caution;

    void tellCondition(const KeyPath& path, RegSink& sink) const
    {
        if (condition.given())
            condition.tell(path, name, sink);
    }
};

std::vector<std::string> split(const std::string& text, const std::string& separator)
{
    std::vector<std::string> parts;
    for (size_t begin = 0;;) {
        const size_t end = text.find(separator, begin);
        parts.push_back(text.substr(begin, end - begin));
        if (end == std::string::npos)
            return parts;
        begin = end + separator.size();
    }
}

/// Standard input as if it stood on the command line: without its last newline.
std::string readText()
{
    std::string text = readWhole("-");
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

/// The type of the value that a key has by this name; nothing when it has none.
std::optional<UINT32> storedType(const KeyPath& path, const std::string& name)
{
    std::error_code error;
    const obreg::Key key = openKey(path, KEY_READ, error);
    const obreg::Value value = error ? obreg::Value() : key.get<obreg::Value>(name, error);
    if (error == obreg::Status::notFound || error == obreg::Status::badName) // a bad name is refused when it is written
        return std::nullopt;
    check(error, path, &name);
    return value.type;
}

bool isNumber(UINT32 type) { return type == REG_DWORD || type == REG_DWORD_BIG_ENDIAN || type == REG_QWORD; }

obreg::Value valueOfFile(const WriteOptions& options, UINT32 type)
{
    if (!options.separator.empty())
        throw UsageError("--separator takes a text of the command line apart, not a file");
    obreg::Value value{type, readWhole(options.dataFile)};
    if (value.data.empty())
        throw UsageError(options.dataFile + ": holds nothing, and an empty value cannot be stored");
    const bool fits = !isNumber(type) || meaningOf(value).kind == Meaning::Number;
    if (options.type.empty() && !fits)
        throw UsageError(options.dataFile + ": holds " + std::to_string(value.data.size()) + " bytes, which are no " +
                         typeName(type));
    return value;
}

obreg::Value valueOfWords(const WriteOptions& options, UINT32 type)
{
    std::vector<std::string> data = options.data;
    for (std::string& text : data)
        if (text == "-")
            text = readText();
    if (options.separator.empty())
        return valueOfArguments(type, data);
    if (data.size() != 1 || type != REG_MULTI_SZ)
        throw UsageError("--separator takes one text apart for a REG_MULTI_SZ");
    return valueOfArguments(type, split(data.front(), options.separator));
}

/// What is to be stored. Without --type the type of what is there stays.
obreg::Value valueOf(const WriteOptions& options, const KeyPath& path)
{
    const bool fromFile = !options.dataFile.empty();
    if (fromFile && !options.data.empty())
        throw UsageError("data comes from the command line or from a file, not from both");
    const bool several = options.data.size() > 1 || !options.separator.empty();
    const UINT32 usual = fromFile ? REG_BINARY : several ? REG_MULTI_SZ : REG_SZ;
    const UINT32 wanted = options.type.empty() ? usual : typeArgument(options.type);
    const UINT32 stored = options.forceType ? wanted : storedType(path, options.name).value_or(wanted);
    const std::string other = "; --type " + typeName(wanted) + " --force-type stores it as that";
    if (!options.type.empty() && stored != wanted)
        throw Failure(ExitFailed,
                      subjectText(path, &options.name) + ": is a " + typeName(stored) + " and would become a " +
                          typeName(wanted),
                      "without --type it stays a " + typeName(stored) + other);
    try {
        return fromFile ? valueOfFile(options, stored) : valueOfWords(options, stored);
    } catch (const UsageError& error) {
        throw stored == wanted ? error : UsageError(error.what() + (" (it stays a " + typeName(stored) + other + ')'));
    }
}

void setValue(const KeyPath& path, const std::string& name, const obreg::Value& value)
{
    std::error_code error;
    const obreg::Key key = makeKey(path, nullptr, error);
    check(error, path);
    key.set(name, value, error);
    check(error, path, &name, value.data.size());
}

int store(const WriteOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const obreg::Value value = valueOf(options, path);
    const Changes changes = [&](RegSink& sink) {
        options.tellCondition(path, sink);
        sink.key(path, {});
        sink.value(std::string(options.name), obreg::Value(value), {});
    };
    if (!prepare(options.caution, Rehearsal::Missing::Fails, changes, output))
        return ExitDone;
    if (options.condition.given())
        makeAsOne(changes);
    else
        setValue(path, options.name, value);
    Fact fact = valueFact(path, {options.name, value}, "set");
    fact.showKind = true;
    output.summary(fact);
    return ExitDone;
}

int createKey(const WriteOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const Changes changes = [&](RegSink& sink) { sink.key(path, {}); };
    if (!prepare(options.caution, Rehearsal::Missing::Fails, changes, output))
        return ExitDone;
    bool created = false;
    std::error_code error;
    makeKey(path, &created, error);
    check(error, path);
    Fact fact = keyFact(path, created ? "created" : "exists");
    fact.showKind = true;
    output.summary(fact);
    return ExitDone;
}

int removeValue(const WriteOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const Changes changes = [&](RegSink& sink) {
        options.tellCondition(path, sink);
        sink.key(path, {});
        sink.removeValue(std::string(options.name), {});
    };
    const obreg::Key key = options.condition.given() ? obreg::Key() : openKey(path);
    if (!prepare(options.caution, Rehearsal::Missing::Fails, changes, output))
        return ExitDone;
    if (options.condition.given()) {
        makeAsOne(changes);
    } else {
        std::error_code error;
        key.removeValue(options.name, error);
        check(error, path, &options.name);
    }
    output.summary({"deleted", {{"key", path.text()}, {"name", shownName(options.name)}}, "", Style::Normal, true});
    return ExitDone;
}

void requireOneValue(const WriteOptions& options)
{
    if (options.condition.given())
        throw UsageError("--if-equals is about one value; name it");
}

/// Throws Failure, which says how many were deleted.
void removeValues(const KeyPath& path, const obreg::Key& key, const std::vector<ValueEntry>& values)
{
    letInterruptsEndWork(); // again, for a backup looks after signals itself
    uint64_t done = 0;
    try {
        for (const ValueEntry& value : values) {
            endIfInterrupted();
            std::error_code error;
            key.removeValue(value.name, error);
            if (error != obreg::Status::notFound)
                check(error, path, &value.name);
            ++done;
        }
    } catch (Failure& failure) {
        failure.addAdvice("of the values of " + subjectText(path) + ' ' + std::to_string(done) + " of " +
                          std::to_string(values.size()) + ", in order of name, were deleted");
        failure.details = {{"deleted", done}};
        throw;
    }
}

int removeAllValues(const WriteOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    requireOneValue(options);
    if (!options.caution.dryRun)
        letInterruptsEndWork(); // already while it reads
    const obreg::Key key = openKey(path);
    const KeyContent content = readKey(key, path, Read::Values);
    const Changes changes = [&](RegSink& sink) {
        sink.key(path, {});
        for (const ValueEntry& value : content.values)
            sink.removeValue(std::string(value.name), {});
    };
    if (!prepare(options.caution, Rehearsal::Missing::Passes, changes, output))
        return ExitDone;
    carryOut(options.caution, [&] { removeValues(path, key, content.values); });
    output.summary({"deleted", {{"key", path.text()}, {"values", content.values.size()}}, "", Style::Normal, true});
    return ExitDone;
}

/// Asks before a key goes that holds much.
void confirmRemoval(const KeyPath& path)
{
    std::error_code error;
    const obreg::KeyInfo info = openKey(path).info(error);
    check(error, path);
    if (info.subKeys == 0 && info.values <= ManyValues)
        return;
    const std::string below =
        counted(info.subKeys, "sub-key") + ", all that is below " + (info.subKeys == 1 ? "it, and " : "them, and ");
    if (!confirmed("Delete " + subjectText(path) + " with its " + (info.subKeys == 0 ? "" : below) +
                   counted(info.values, "value") + '?'))
        throw Failure(ExitFailed, "nothing was deleted");
}

int removeKey(const WriteOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    requireOneValue(options);
    if (path.isRoot())
        throw UsageError(path.text() + " is a root and cannot be deleted; name a key below it");
    if (!options.yes && !options.caution.dryRun)
        confirmRemoval(path);
    const Changes changes = [&](RegSink& sink) { sink.removeKey(path, {}); };
    if (!prepare(options.caution, Rehearsal::Missing::Fails, changes, output))
        return ExitDone;
    size_t keys = 0;
    carryOut(options.caution, [&] { keys = removeTree(path); });
    output.summary({"deleted", {{"key", path.text()}, {"keys", keys}}, "", Style::Normal, true});
    return ExitDone;
}

void addDataOptions(Arguments& arguments, WriteOptions& options)
{
    arguments.text("-t,--type", options.type,
                   "Type by name or number [that of the stored value; of a new one REG_SZ, REG_MULTI_SZ for several "
                   "texts, REG_BINARY for a file]");
    arguments.flag("--force-type", options.forceType, "Store the value also when another type is stored by its name");
    arguments.text("--data-file", options.dataFile, "Store this file's bytes as they are; - for standard input");
    arguments.text("--separator", options.separator, "Take one text apart at this into the strings of a REG_MULTI_SZ");
    addDryRun(arguments, options.caution);
}

void addRemovalOptions(Arguments& arguments, WriteOptions& options)
{
    addIfEquals(arguments, options.condition);
    arguments.flag("-y,--yes", options.yes, "Do not ask before deleting a key that has sub-keys or many values");
    addDryRunAndBackup(arguments, options.caution);
}

} // namespace

Run declareAdd(Arguments& arguments)
{
    const auto pOptions = withKey<WriteOptions>(arguments);
    arguments.valueName("-v,--value", pOptions->name, "Value's name; @ for the unnamed");
    arguments.texts(
        "-d,--data", pOptions->data,
        "Text, number, or bytes as hexadecimal digits; several for REG_MULTI_SZ; - for the text on standard input");
    addDataOptions(arguments, *pOptions);
    return [=, &arguments](Output& output) {
        const bool value = arguments.given("--value") || arguments.given("--data") || arguments.given("--data-file") ||
                           arguments.given("--type") || arguments.given("--separator");
        return value ? store(*pOptions, output) : createKey(*pOptions, output);
    };
}

Run declareSet(Arguments& arguments)
{
    const auto pOptions = withKey<WriteOptions>(arguments);
    arguments.valueName("NAME", pOptions->name, "Value's name; @ for the unnamed", Arguments::Required);
    arguments.texts(
        "DATA", pOptions->data,
        "Text, number, or bytes as hexadecimal digits; several for REG_MULTI_SZ; - for the text on standard input");
    addIfEquals(arguments, pOptions->condition);
    addIfAbsent(arguments, pOptions->condition);
    addDataOptions(arguments, *pOptions);
    return [=](Output& output) {
        if (pOptions->data.empty() && pOptions->dataFile.empty() && pOptions->type.empty())
            throw UsageError("give DATA to store, or a --data-file");
        return store(*pOptions, output);
    };
}

Run declareDelete(Arguments& arguments)
{
    const auto pOptions = withKey<WriteOptions>(arguments);
    arguments.valueName("-v,--value", pOptions->name, "Delete this value only; @ for the unnamed");
    arguments.flag("--all-values", pOptions->allValues, "Delete the key's values and keep the key", "--value");
    addRemovalOptions(arguments, *pOptions);
    return [=, &arguments](Output& output) {
        return arguments.given("--value") ? removeValue(*pOptions, output)
               : pOptions->allValues      ? removeAllValues(*pOptions, output)
                                          : removeKey(*pOptions, output);
    };
}

Run declareRm(Arguments& arguments)
{
    const auto pOptions = withKey<WriteOptions>(arguments);
    arguments.valueName("NAME", pOptions->name, "Delete this value only; @ for the unnamed");
    addRemovalOptions(arguments, *pOptions);
    return [=, &arguments](Output& output) {
        return arguments.given("NAME") ? removeValue(*pOptions, output) : removeKey(*pOptions, output);
    };
}

} // namespace obregtool
