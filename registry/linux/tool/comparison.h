// Two trees side by side: what one has and the other has not, and which values differ. One thread.
#ifndef OBREG_TOOL_COMPARISON_H
#define OBREG_TOOL_COMPARISON_H

#include "treereader.h"

namespace obregtool {

/// Is told of each difference, in the order of the tree. The entries stay for the call only.
class Comparer {
public:
    virtual ~Comparer() = default;

    /// Only the left tree has this key; what is below it is not told.
    virtual void missingRight(TreeReader::Entry& left) = 0;
    /// Only the right tree has this key; `place` is where it would be in the left one.
    virtual void missingLeft(TreeReader::Entry& right, const KeyPath& place) = 0;
    /// Both trees have the key, and its value differs, or one of them has it not (null).
    virtual void value(const TreeReader::Entry& left, const TreeReader::Entry& right, const obreg::NamedValue* pLeft,
                       const obreg::NamedValue* pRight) = 0;
    /// Both trees have the key. Called before its values are told.
    virtual void key(const TreeReader::Entry& /*left*/) {}
};

/// Compares two keys and up to `depth` levels below them. Returns whether there was a difference; throws Failure.
bool compareTrees(const KeyPath& left, const KeyPath& right, uint64_t depth, Comparer& comparer);

} // namespace obregtool

#endif
