// find: where a text stands, in names and data.
#include "search.h"
#include "treereader.h"
#include "valuetext.h"
#include "verbs.h"

namespace obregtool {

namespace {

struct FindOptions {
    std::string key;
    std::string text;
    std::string type;
    uint64_t depth = UINT64_MAX;
    bool regex = false;
    bool names = false;
    bool data = false;
};

/// What is looked at, and where what is found goes.
class Finder {
public:
    Finder(const FindOptions& options, Output& output)
        : m_search(options.text, options.regex), m_names(options.names || !options.data),
          m_data(options.data || !options.names), m_output(output)
    {
        if (!options.type.empty())
            m_type = typeArgument(options.type);
    }

    uint64_t found() const { return m_found; }

    void look(TreeReader::Entry& key)
    {
        m_keyShown = false;
        if (key.depth != 0 && m_names && !m_type && m_search.matches(key.path.name())) {
            showKey(key.path);
            ++m_found;
        }
        forEachValue(key.key, key.path, key.content.values, [this, &key](obreg::NamedValue&& value) {
            m_progress.update(++m_looked);
            if (matches(value)) {
                showValue(key.path, std::move(value));
                ++m_found;
            }
        });
    }

private:
    bool matches(const obreg::NamedValue& value) const
    {
        if (m_type && value.value.type != *m_type)
            return false;
        return (m_names && m_search.matches(shownName(value.name))) || (m_data && m_search.matches(value.value));
    }

    void showKey(const KeyPath& path)
    {
        m_progress.clear();
        m_output.fact(keyFact(path));
        m_keyShown = true;
    }

    void showValue(const KeyPath& path, obreg::NamedValue&& value)
    {
        const bool terminal = m_output.form() == Form::Terminal;
        if (terminal && !m_keyShown)
            showKey(path); // once above all that was found there
        m_progress.clear();
        Fact fact = valueFact(path, std::move(value));
        fact.lead = "    ";
        fact.fields[0].hidden = true;
        m_output.fact(fact);
        if (terminal)
            m_output.flush(); // before the progress is drawn again
    }

    const Search m_search;
    const bool m_names;
    const bool m_data;
    std::optional<UINT32> m_type;
    Output& m_output;
    Progress m_progress{"looked at", 0};
    uint64_t m_looked = 0;
    uint64_t m_found = 0;
    bool m_keyShown = false;
};

int find(const FindOptions& options, Output& output)
{
    Finder finder(options, output);
    TreeReader reader(keyArgument(options.key), options.depth, Read::All);
    while (TreeReader::Entry* const pEntry = reader.next())
        finder.look(*pEntry);
    return finder.found() != 0 ? ExitDone : ExitNotFound;
}

} // namespace

Run declareFind(Arguments& arguments)
{
    const auto pOptions = std::make_shared<FindOptions>();
    arguments.text("KEY", pOptions->key, "Key to begin at; its values and all below it are looked at",
                   Arguments::Required);
    arguments.text("TEXT", pOptions->text,
                   "What to look for, whatever its case: in names, in texts, in the decimal digits of numbers, and in "
                   "other bytes as pairs of hexadecimal digits (00ff)",
                   Arguments::Required);
    arguments.flag("--regex", pOptions->regex,
                   "TEXT is an extended regular expression, for the first 16 KiB of each string");
    arguments.text("-t,--type", pOptions->type, "Values of this type only, by name or number");
    arguments.number("--depth", pOptions->depth, "Levels to look at; 0: the key's own values");
    arguments.flag("--names", pOptions->names, "Look at names; with neither this nor --data at both");
    arguments.flag("--data", pOptions->data, "Look at data");
    return [=](Output& output) { return find(*pOptions, output); };
}

} // namespace obregtool
