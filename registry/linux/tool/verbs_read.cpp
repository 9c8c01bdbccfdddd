// query, get, ls, tree and info: looking at keys and values.
#include "readtree.h"
#include "terminal.h"
#include "text.h"
#include "treereader.h"
#include "valuetext.h"
#include "verbs.h"

namespace obregtool {

namespace {

constexpr size_t WidestName = 40;

struct ReadOptions {
    std::string key;
    std::string name;
    std::vector<std::string> names;
    bool recursive = false;
    bool values = false;
    bool raw = false;
    uint64_t depth = UINT64_MAX;
};

size_t nameWidth(const std::vector<ValueEntry>& values)
{
    size_t width = 0;
    for (const ValueEntry& value : values)
        width = std::max(width, columns(escaped(shownName(value.name), Escape::Name)));
    return std::min(width, WidestName);
}

size_t typeWidth(const std::vector<ValueEntry>& values)
{
    size_t width = 0;
    for (const ValueEntry& value : values)
        width = std::max(width, value.held ? typeName(value.held->type).size() : 0);
    return width;
}

/// A fact for each value of a key, the names aligned. On a terminal each begins with `lead`, and what stands above says
/// the key.
void valueFacts(Output& output, const KeyPath& path, const obreg::Key& key, std::vector<ValueEntry>& values,
                const std::string& lead, bool keyField = true)
{
    const size_t width = nameWidth(values);
    const size_t widthOfType = typeWidth(values);
    forEachValue(key, path, values, [&](obreg::NamedValue&& value) {
        Fact fact = valueFact(path, std::move(value));
        fact.lead = lead;
        fact.fields[0].hidden = true;
        fact.fields[1].width = width;
        fact.fields[2].width = widthOfType;
        if (!keyField)
            fact.fields.erase(fact.fields.begin());
        output.fact(fact);
    });
}

obreg::NamedValue readValue(const KeyPath& path, const std::string& name)
{
    std::error_code error;
    const obreg::Key key = openKey(path);
    obreg::NamedValue value{name, key.get<obreg::Value>(name, error)};
    check(error, path, &name);
    return value;
}

int query(const ReadOptions& options, Output& output)
{
    walk(keyArgument(options.key), options.recursive,
         [&](const KeyPath& path, const obreg::Key& key, KeyContent& content, size_t depth) {
             Fact fact = keyFact(path);
             fact.leadStyle = Style::Normal;
             fact.lead = depth == 0 || output.form() != Form::Terminal ? "" : "\n";
             output.fact(fact);
             valueFacts(output, path, key, content.values, "    ");
             for (const obreg::SubKey& subKey : content.subKeys)
                 if (!options.recursive)
                     output.fact(keyFact(path.child(subKey.name), "subkey"));
         });
    return ExitDone;
}

int queryValue(const ReadOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    output.fact(valueFact(path, readValue(path, options.name)));
    return ExitDone;
}

int get(const ReadOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    if (options.names.size() < 2) {
        obreg::NamedValue value = readValue(path, options.names.empty() ? "" : options.names.front());
        if (options.raw)
            output.bytes(value.value.data);
        else
            printValue(output, path, std::move(value));
        return ExitDone;
    }
    if (options.raw)
        throw UsageError("--raw prints one value: between several nothing would say where one ends");
    output.makeList();
    const obreg::Key key = openKey(path);
    int status = ExitDone;
    for (const std::string& name : options.names) {
        std::error_code error;
        obreg::NamedValue value{name, key.get<obreg::Value>(name, error)};
        if (error == obreg::Status::notFound) {
            output.flush();
            output.problem(failureOf(path, &name, error));
            status = ExitNotFound;
            continue;
        }
        check(error, path, &name);
        printValue(output, path, std::move(value));
    }
    return status;
}

int ls(const ReadOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const obreg::Key key = openKey(path);
    KeyContent content = readKey(key, path);
    for (const obreg::SubKey& subKey : content.subKeys) {
        Fact fact{"subkey", {{"name", subKey.name, Style::Key}}};
        if (output.form() == Form::Terminal)
            std::get<std::string>(fact.fields[0].data) += '\\';
        output.fact(fact);
    }
    valueFacts(output, path, key, content.values, "", false);
    return ExitDone;
}

Read partsOf(const ReadOptions& options) { return options.values ? Read::All : Read::SubKeys; }

/// What a tree is drawn with.
struct Branches {
    const char* pNotLast;
    const char* pLast;
    const char* pBelow; ///< what stands in front of all below one that is not the last
    const char* pValues;
};
constexpr Branches Lines = {"├── ", "└── ", "│   ", "│ "};
constexpr Branches AsciiLines = {"|-- ", "`-- ", "|   ", "| "};

int tree(const ReadOptions& options, Output& output)
{
    const Branches& branches = isUtf8Locale() ? Lines : AsciiLines;
    struct Level {
        std::string lead; ///< of what is below
        std::string last; ///< sub-key
    };
    std::vector<Level> levels;
    TreeReader reader(keyArgument(options.key), options.depth, partsOf(options));
    while (TreeReader::Entry* const pEntry = reader.next()) {
        const KeyPath& path = pEntry->path;
        KeyContent& content = pEntry->content;
        Fact fact = keyFact(path);
        std::string lead;
        levels.resize(pEntry->depth);
        if (!levels.empty()) {
            const bool last = path.name() == levels.back().last;
            fact.lead = levels.back().lead + (last ? branches.pLast : branches.pNotLast);
            lead = levels.back().lead + (last ? "    " : branches.pBelow);
            if (output.form() == Form::Terminal)
                fact.fields = {{"key", path.name(), Style::Key}};
        }
        output.fact(fact);
        const bool deeper = pEntry->depth < options.depth && !content.subKeys.empty();
        valueFacts(output, path, pEntry->key, content.values, lead + (deeper ? branches.pValues : "  "));
        levels.push_back({lead, deeper ? content.subKeys.back().name : ""});
    }
    return ExitDone;
}

/// The same as the fact, in words.
std::string infoInWords(const obreg::KeyInfo& info)
{
    const auto bytes = [](uint64_t count) { return counted(count, "byte"); };
    std::string text = "  " + counted(info.subKeys, "sub-key");
    if (info.subKeys != 0)
        text += ", the longest name " + bytes(info.maxSubKeyLength);
    text += "\n  " + counted(info.values, "value");
    if (info.values != 0)
        text +=
            ", the longest name " + bytes(info.maxValueNameLength) + ", the longest data " + bytes(info.maxValueLength);
    return text + "\n  last written " + localTimeText(info.lastWriteTime) + '\n';
}

int info(const ReadOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    std::error_code error;
    const obreg::KeyInfo info = openKey(path).info(error);
    check(error, path);
    if (output.form() == Form::Terminal) {
        output.makeList(); // no "key: " in front
        output.fact(keyFact(path));
        output.bytes(infoInWords(info));
        return ExitDone;
    }
    const auto number = [](const char* pName, uint64_t count) { return Field{pName, count}; };
    output.fact({"info",
                 {{"key", path.text(), Style::Key},
                  number("subKeys", info.subKeys),
                  number("values", info.values),
                  number("maxSubKeyLength", info.maxSubKeyLength),
                  number("maxValueNameLength", info.maxValueNameLength),
                  number("maxValueLength", info.maxValueLength),
                  {"lastWriteTime", timeText(info.lastWriteTime)},
                  number("lastWriteTimeUnits", info.lastWriteTime)}});
    return ExitDone;
}

using Action = int (*)(const ReadOptions&, Output&);

Run running(Action action, const std::shared_ptr<ReadOptions>& pOptions)
{
    return [=](Output& output) { return action(*pOptions, output); };
}

} // namespace

Run declareQuery(Arguments& arguments)
{
    const auto pOptions = withKey<ReadOptions>(arguments);
    arguments.text("-v,--value", pOptions->name, "Show this value only; @ for the unnamed");
    arguments.flag("-s,--recursive", pOptions->recursive, "Show all keys below as well", "--value");
    return [=, &arguments](Output& output) {
        return arguments.given("--value") ? queryValue(*pOptions, output) : query(*pOptions, output);
    };
}

Run declareGet(Arguments& arguments)
{
    const auto pOptions = withKey<ReadOptions>(arguments);
    arguments.texts("NAME", pOptions->names,
                    "Value's name; without it the unnamed value. Several are printed in turn; JSON: an array");
    arguments.flag("--raw", pOptions->raw, "The stored bytes of one value, and nothing else");
    return running(get, pOptions);
}

Run declareLs(Arguments& arguments) { return running(ls, withKey<ReadOptions>(arguments)); }

Run declareTree(Arguments& arguments)
{
    const auto pOptions = withKey<ReadOptions>(arguments);
    arguments.number("--depth", pOptions->depth, "Levels to show; 0: the key alone");
    arguments.flag("--values", pOptions->values, "Show the values as well");
    return running(tree, pOptions);
}

Run declareInfo(Arguments& arguments) { return running(info, withKey<ReadOptions>(arguments)); }

} // namespace obregtool
