// How two states of a key differ, as facts: compare and watch say it alike.
#ifndef OBREG_TOOL_CHANGES_H
#define OBREG_TOOL_CHANGES_H

#include "output.h"
#include "valuetext.h"

namespace obregtool {

enum class Change { Removed, Added, Changed };

inline Fact changeFact(Change change, const char* pKind, std::vector<Field>&& fields)
{
    static constexpr struct {
        const char* pLead;
        Style style;
        const char* pPrefix;
    } shown[] = {{"- ", Style::Bad, "removed-"}, {"+ ", Style::Good, "added-"}, {"~ ", Style::Changed, "changed-"}};
    const auto& how = shown[static_cast<int>(change)];
    return {std::string(how.pPrefix) + pKind, std::move(fields), how.pLead, how.style};
}

inline Fact keyChange(Change change, const KeyPath& key) { return changeFact(change, "key", keyFact(key).fields); }

inline Fact valueChange(Change change, const KeyPath& key, obreg::NamedValue value)
{
    return changeFact(change, "value", valueFact(key, std::move(value)).fields);
}

inline Fact valueChange(const KeyPath& key, const obreg::NamedValue& before, obreg::NamedValue after)
{
    const size_t from = firstToShow(before.value, after.value);
    std::vector<Field> fields = valueFact(key, std::move(after)).fields;
    fields.insert(fields.end() - 1, {"old", before.value, Style::Bad});
    fields.back().pName = "new";
    fields.back().style = Style::Good;
    for (Field& field : fields)
        field.from = from;
    return changeFact(Change::Changed, "value", std::move(fields));
}

} // namespace obregtool

#endif
