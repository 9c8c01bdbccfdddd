// compare: how two keys differ, as facts or as the .reg text that makes one into the other.
#include <algorithm>

#include "comparison.h"
#include "regtext/regwriter.h"
#include "text.h"
#include "treereader.h"
#include "valuetext.h"
#include "verbs.h"

namespace obregtool {

namespace {

struct CompareOptions {
    std::string from;
    std::string to;
    bool recursive = false;
    bool reg = false;
};

/// Writes facts. Left is FROM, right is TO.
class Differences : public Comparer {
public:
    explicit Differences(Output& output) : m_output(output) {}

    void missingRight(TreeReader::Entry& left) override { tell(Missing::Right, "key", keyFact(left.path).fields); }
    void missingLeft(TreeReader::Entry& right, const KeyPath& /*place*/) override
    {
        tell(Missing::Left, "key", keyFact(right.path).fields);
    }
    void value(const TreeReader::Entry& left, const TreeReader::Entry& right, const obreg::NamedValue* pLeft,
               const obreg::NamedValue* pRight) override
    {
        if (pRight == nullptr)
            return tell(Missing::Right, "value", valueFact(left.path, *pLeft).fields);
        if (pLeft == nullptr)
            return tell(Missing::Left, "value", valueFact(right.path, *pRight).fields);
        std::vector<Field> fields = valueFact(left.path, *pLeft).fields;
        fields.back().pName = "left";
        fields.back().style = Style::Bad;
        fields.push_back({"right", pRight->value, Style::Good});
        for (Field& field : fields)
            field.from = firstToShow(pLeft->value, pRight->value);
        tell(Missing::Nowhere, "value", std::move(fields));
    }

private:
    enum class Missing { Right, Left, Nowhere };

    void tell(Missing missing, const char* pKind, std::vector<Field>&& fields)
    {
        static constexpr struct {
            const char* pLead;
            Style style;
            const char* pSuffix;
        } shown[] = {{"- ", Style::Bad, "-missing-right"},
                     {"+ ", Style::Good, "-missing-left"},
                     {"~ ", Style::Changed, "-differs"}};
        const auto& how = shown[static_cast<int>(missing)];
        m_output.fact({std::string(pKind) + how.pSuffix, std::move(fields), how.pLead, how.style, true});
    }

    Output& m_output;
};

/// Writes .reg text that makes the left key into the right one.
class Patch : public Comparer {
public:
    explicit Patch(RegWriter& writer) : m_writer(writer) {}

    void missingRight(TreeReader::Entry& left) override { m_writer.removeKey(left.path.text()); }
    void missingLeft(TreeReader::Entry& right, const KeyPath& place) override
    {
        const KeyPath top = right.path;
        walk(top, true, [&](const KeyPath& path, const obreg::Key& key, KeyContent& content, size_t depth) {
            m_writer.key((depth == 0 ? place : place.child(path.path.substr(top.path.size() + 1))).text());
            forEachValue(key, path, content.values,
                         [this](const obreg::NamedValue& value) { m_writer.value(value.name, value.value); });
        });
    }
    void value(const TreeReader::Entry& left, const TreeReader::Entry& /*right*/, const obreg::NamedValue* pLeft,
               const obreg::NamedValue* pRight) override
    {
        if (left.path.path != m_key || !m_inKey)
            m_writer.key(left.path.text());
        m_key = left.path.path;
        m_inKey = true;
        if (pRight == nullptr)
            m_writer.removeValue(pLeft->name);
        else
            m_writer.value(pRight->name, pRight->value);
    }

private:
    RegWriter& m_writer;
    std::string m_key; // whose values are being written
    bool m_inKey = false;
};

int compare(const CompareOptions& options, Output& output)
{
    const KeyPath from = keyArgument(options.from);
    const KeyPath to = keyArgument(options.to);
    const uint64_t depth = options.recursive ? UINT64_MAX : 0;
    if (options.reg && output.form() == Form::Json)
        throw UsageError("--reg is text of its own; leave out --json");
    bool different = false;
    try {
        if (options.reg) {
            RegWriter writer(RegFormat::Utf8, [&output](std::string_view text) { output.bytes(text); });
            Patch patch(writer);
            different = compareTrees(from, to, depth, patch);
            writer.finish();
        } else {
            Differences differences(output);
            different = compareTrees(from, to, depth, differences);
        }
    } catch (Failure& failure) {
        if (failure.exit == ExitNotFound) // which is not the same as different
            failure.exit = ExitFailed;
        throw;
    }
    return different ? ExitDifferent : ExitDone;
}

} // namespace

Run declareCompare(Arguments& arguments)
{
    const auto pOptions = std::make_shared<CompareOptions>();
    arguments.text("FROM", pOptions->from, "Key to begin from: the left one", Arguments::Required);
    arguments.text("TO", pOptions->to, "Key to compare with it: the right one", Arguments::Required);
    arguments.flag("-s,--recursive", pOptions->recursive, "With all keys below");
    arguments.flag("--reg", pOptions->reg, "The .reg text that, imported, makes FROM into TO");
    return [=](Output& output) { return compare(*pOptions, output); };
}

} // namespace obregtool
