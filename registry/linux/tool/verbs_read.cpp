// query, get, ls, tree and info: looking at keys and values.
#include "readtree.h"
#include "text.h"
#include "valuetext.h"
#include "verbs.h"

namespace obregtool {

namespace {

constexpr size_t WidestName = 40;

struct ReadOptions {
    std::string key;
    std::string name;
    bool recursive = false;
    bool values = false;
    bool raw = false;
    uint64_t depth = UINT64_MAX;
};

size_t nameWidth(const std::vector<ValueEntry>& values)
{
    size_t width = 0;
    for (const ValueEntry& value : values)
        width = std::max(width, characters(escaped(shownName(value.name), Escape::Name)));
    return std::min(width, WidestName);
}

/// A fact for each value of a key, the names aligned. On a terminal each begins with `lead`, and what stands above says
/// the key.
void valueFacts(Output& output, const KeyPath& path, const obreg::Key& key, std::vector<ValueEntry>& values,
                const std::string& lead, bool keyField = true)
{
    const size_t width = nameWidth(values);
    forEachValue(key, path, values, [&](obreg::NamedValue&& value) {
        Fact fact = valueFact(path, std::move(value));
        fact.lead = lead;
        fact.fields[0].hidden = true;
        fact.fields[1].width = width;
        if (!keyField)
            fact.fields.erase(fact.fields.begin());
        output.fact(fact);
    });
}

obreg::NamedValue readValue(const KeyPath& path, const std::string& name)
{
    std::error_code error;
    const obreg::Key key = path.open();
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
             return true;
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
    obreg::NamedValue value = readValue(path, options.name);
    if (options.raw) {
        output.bytes(value.value.data);
        return ExitDone;
    }
    if (output.form() == Form::Json) {
        output.fact(valueFact(path, std::move(value)));
        return ExitDone;
    }
    const bool terminal = output.form() == Form::Terminal;
    const bool bare = writeBare(
        value.value, [&](std::string_view piece) { output.bytes(terminal ? escaped(piece, Escape::Screen) : piece); });
    output.bytes("\n");
    if (!bare)
        output.warning("the data cannot be written as the text or number that its type " + typeName(value.value.type) +
                       " promises: these are its bytes; --raw gives them as they are");
    return ExitDone;
}

int ls(const ReadOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const obreg::Key key = path.open();
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

void treeBelow(const ReadOptions& options, Output& output, const KeyPath& path, const obreg::Key& key,
               KeyContent&& content, const std::string& lead, uint64_t depth)
{
    const bool deeper = depth < options.depth && !content.subKeys.empty();
    valueFacts(output, path, key, content.values, lead + (deeper ? "│ " : "  "));
    content.values = {};
    for (const obreg::SubKey& subKey : content.subKeys) {
        if (!deeper)
            break;
        std::optional<OpenedKey> child = readSubKey(key, path, subKey.name, partsOf(options));
        if (!child)
            continue;
        const KeyPath below = path.child(subKey.name);
        const bool last = &subKey == &content.subKeys.back();
        Fact fact = keyFact(below);
        if (output.form() == Form::Terminal)
            fact.fields = {{"key", subKey.name, Style::Key}};
        fact.lead = lead + (last ? "└── " : "├── ");
        output.fact(fact);
        treeBelow(options, output, below, child->key, std::move(child->content), lead + (last ? "    " : "│   "),
                  depth + 1);
    }
}

int tree(const ReadOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const obreg::Key key = path.open();
    output.fact(keyFact(path));
    treeBelow(options, output, path, key, readKey(key, path, partsOf(options)), "", 0);
    return ExitDone;
}

int info(const ReadOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    std::error_code error;
    const obreg::KeyInfo info = path.open().info(error);
    check(error, path);
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

/// What all of them begin with: a KEY, and the options kept until it runs.
std::shared_ptr<ReadOptions> withKey(Arguments& arguments)
{
    auto pOptions = std::make_shared<ReadOptions>();
    arguments.text("KEY", pOptions->key, "Key, such as HKLM/Software/Acme or 'HKLM\\Software\\Acme'",
                   Arguments::Required);
    return pOptions;
}

Run running(Action action, const std::shared_ptr<ReadOptions>& pOptions)
{
    return [=](Output& output) { return action(*pOptions, output); };
}

} // namespace

Run declareQuery(Arguments& arguments)
{
    const auto pOptions = withKey(arguments);
    arguments.text("-v,--value", pOptions->name, "Show this value only; @ for the unnamed");
    arguments.flag("-s,--recursive", pOptions->recursive, "Show all keys below as well", "--value");
    return [=, &arguments](Output& output) {
        return arguments.given("--value") ? queryValue(*pOptions, output) : query(*pOptions, output);
    };
}

Run declareGet(Arguments& arguments)
{
    const auto pOptions = withKey(arguments);
    arguments.text("NAME", pOptions->name, "Value's name; without it the unnamed value");
    arguments.flag("--raw", pOptions->raw, "The stored bytes, and nothing else");
    return running(get, pOptions);
}

Run declareLs(Arguments& arguments) { return running(ls, withKey(arguments)); }

Run declareTree(Arguments& arguments)
{
    const auto pOptions = withKey(arguments);
    arguments.number("--depth", pOptions->depth, "Levels to show");
    arguments.flag("--values", pOptions->values, "Show the values as well");
    return running(tree, pOptions);
}

Run declareInfo(Arguments& arguments) { return running(info, withKey(arguments)); }

} // namespace obregtool
