// add, set, delete and rm: changing single keys and values.
#include <cerrno>
#include <cstdio>

#include "files.h"
#include "readtree.h"
#include "text.h"
#include "valuetext.h"
#include "verbs.h"

namespace obregtool {

namespace {

struct WriteOptions {
    std::string key;
    std::string name;
    std::string type;
    std::vector<std::string> data;
    std::string dataFile;
    std::string separator;
    bool yes = false;
    bool allValues = false;
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

obreg::Value valueOf(const WriteOptions& options)
{
    const bool fromFile = !options.dataFile.empty();
    if (fromFile && !options.data.empty())
        throw UsageError("data comes from the command line or from a file, not from both");
    const bool several = options.data.size() > 1 || !options.separator.empty();
    const UINT32 usual = fromFile ? REG_BINARY : several ? REG_MULTI_SZ : REG_SZ;
    const UINT32 type = options.type.empty() ? usual : typeArgument(options.type);
    if (fromFile && !options.separator.empty())
        throw UsageError("--separator takes a text of the command line apart, not a file");
    if (fromFile) {
        obreg::Value value{type, readWhole(options.dataFile)};
        if (value.data.empty())
            throw UsageError(options.dataFile + ": holds nothing, and an empty value cannot be stored");
        return value;
    }
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

int store(const WriteOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const obreg::Value value = valueOf(options);
    std::error_code error;
    const obreg::Key key = path.create(nullptr, error);
    check(error, path);
    key.set(options.name, value, error);
    check(error, path, &options.name);
    Fact fact = valueFact(path, {options.name, value}, "set");
    fact.showKind = true;
    output.summary(fact);
    return ExitDone;
}

int createKey(const WriteOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    bool created = false;
    std::error_code error;
    path.create(&created, error);
    check(error, path);
    Fact fact = keyFact(path, created ? "created" : "exists");
    fact.showKind = true;
    output.summary(fact);
    return ExitDone;
}

int removeValue(const WriteOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    std::error_code error;
    const obreg::Key key = path.open();
    key.removeValue(options.name, error);
    check(error, path, &options.name);
    output.summary({"deleted", {{"key", path.text()}, {"name", shownName(options.name)}}, "", Style::Normal, true});
    return ExitDone;
}

int removeAllValues(const WriteOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const obreg::Key key = path.open();
    const KeyContent content = readKey(key, path, Read::Values);
    for (const ValueEntry& value : content.values) {
        std::error_code error;
        key.removeValue(value.name, error);
        if (error != obreg::Status::notFound)
            check(error, path, &value.name);
    }
    output.summary({"deleted", {{"key", path.text()}, {"values", content.values.size()}}, "", Style::Normal, true});
    return ExitDone;
}

int removeKey(const WriteOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    if (path.isRoot())
        throw UsageError(path.text() + " is a root and cannot be deleted; name a key below it");
    std::error_code error;
    const obreg::KeyInfo info = path.open().info(error);
    check(error, path);
    if (info.subKeys != 0 && !options.yes) {
        const std::string count = std::to_string(info.subKeys);
        if (!confirmed("Delete " + escaped(path.text(), Escape::Name) + " with its " + count +
                       (info.subKeys == 1 ? " sub-key" : " sub-keys") + " and all that is below?"))
            throw Failure(ExitFailed, "nothing was deleted");
    }
    output.summary({"deleted", {{"key", path.text()}, {"keys", removeTree(path)}}, "", Style::Normal, true});
    return ExitDone;
}

std::shared_ptr<WriteOptions> withKey(Arguments& arguments)
{
    auto pOptions = std::make_shared<WriteOptions>();
    arguments.text("KEY", pOptions->key, "Key, such as HKLM/Software/Acme or 'HKLM\\Software\\Acme'",
                   Arguments::Required);
    return pOptions;
}

void addDataOptions(Arguments& arguments, WriteOptions& options)
{
    arguments.text("-t,--type", options.type,
                   "Type by name or number [REG_SZ; REG_MULTI_SZ for several texts, REG_BINARY for a file]");
    arguments.text("--data-file", options.dataFile, "Store this file's bytes as they are; - for standard input");
    arguments.text("--separator", options.separator, "Take one text apart at this into the strings of a REG_MULTI_SZ");
}

void addYes(Arguments& arguments, WriteOptions& options)
{
    arguments.flag("-y,--yes", options.yes, "Do not ask before deleting a key that has sub-keys");
}

} // namespace

Run declareAdd(Arguments& arguments)
{
    const auto pOptions = withKey(arguments);
    arguments.text("-v,--value", pOptions->name, "Value's name; @ for the unnamed");
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
    const auto pOptions = withKey(arguments);
    arguments.text("NAME", pOptions->name, "Value's name; @ for the unnamed", Arguments::Required);
    arguments.texts(
        "DATA", pOptions->data,
        "Text, number, or bytes as hexadecimal digits; several for REG_MULTI_SZ; - for the text on standard input");
    addDataOptions(arguments, *pOptions);
    return [=](Output& output) {
        if (pOptions->data.empty() && pOptions->dataFile.empty() && pOptions->type.empty())
            throw UsageError("give DATA to store, or a --data-file");
        return store(*pOptions, output);
    };
}

Run declareDelete(Arguments& arguments)
{
    const auto pOptions = withKey(arguments);
    arguments.text("-v,--value", pOptions->name, "Delete this value only; @ for the unnamed");
    arguments.flag("--all-values", pOptions->allValues, "Delete the key's values and keep the key", "--value");
    addYes(arguments, *pOptions);
    return [=, &arguments](Output& output) {
        return arguments.given("--value") ? removeValue(*pOptions, output)
               : pOptions->allValues      ? removeAllValues(*pOptions, output)
                                          : removeKey(*pOptions, output);
    };
}

Run declareRm(Arguments& arguments)
{
    const auto pOptions = withKey(arguments);
    arguments.text("NAME", pOptions->name, "Delete this value only; @ for the unnamed");
    addYes(arguments, *pOptions);
    return [=, &arguments](Output& output) {
        return arguments.given("NAME") ? removeValue(*pOptions, output) : removeKey(*pOptions, output);
    };
}

} // namespace obregtool
