#include "comparison.h"

#include <algorithm>

namespace obregtool {

namespace {

/// What is behind the path of a key that it is below.
std::string below(const KeyPath& path, const KeyPath& top)
{
    return path.path.size() == top.path.size() ? "" : path.path.substr(top.isRoot() ? 0 : top.path.size() + 1);
}

/// Paths in the order of the tree: names by name, the shorter path first.
int compareInTree(std::string a, std::string b)
{
    std::replace(a.begin(), a.end(), '\\', '\1'); // less than any byte of a name
    std::replace(b.begin(), b.end(), '\\', '\1');
    return compareFolded(a, b);
}

bool compareValues(TreeReader::Entry& left, TreeReader::Entry& right, Comparer& comparer)
{
    bool different = false;
    sideBySide(left.content.values, right.content.values, [&](ValueEntry* pLeft, ValueEntry* pRight) {
        const auto a = pLeft ? takeValue(left.key, left.path, std::move(*pLeft)) : std::nullopt;
        const auto b = pRight ? takeValue(right.key, right.path, std::move(*pRight)) : std::nullopt;
        if ((!a && !b) || (a && b && a->value == b->value))
            return;
        comparer.value(left, right, a ? &*a : nullptr, b ? &*b : nullptr);
        different = true;
    });
    return different;
}

} // namespace

bool compareTrees(const KeyPath& left, const KeyPath& right, uint64_t depth, Comparer& comparer)
{
    bool different = false;
    TreeReader leftReader(left, depth, Read::All);
    TreeReader rightReader(right, depth, Read::All);
    TreeReader::Entry* pLeft = leftReader.next();
    TreeReader::Entry* pRight = rightReader.next();
    while (pLeft != nullptr || pRight != nullptr) {
        const int order = pLeft == nullptr    ? 1
                          : pRight == nullptr ? -1
                                              : compareInTree(below(pLeft->path, left), below(pRight->path, right));
        if (order < 0) {
            comparer.missingRight(*pLeft);
            leftReader.skipBelow();
        } else if (order > 0) {
            comparer.missingLeft(*pRight, left.child(below(pRight->path, right)));
            rightReader.skipBelow();
        } else {
            comparer.key(*pLeft);
            different |= compareValues(*pLeft, *pRight, comparer);
        }
        different |= order != 0;
        pLeft = order <= 0 ? leftReader.next() : pLeft;
        pRight = order >= 0 ? rightReader.next() : pRight;
    }
    return different;
}

} // namespace obregtool
