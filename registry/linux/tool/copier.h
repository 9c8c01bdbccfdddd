// Copies keys with their values: in one transaction when it is not too much for that, else in many of some hundred
// values, several at once; each key's values one after the other, so that their order is kept.
//
// Owned and called by one thread. Keys are written when enough has come together, while the next are read.
#ifndef OBREG_TOOL_COPIER_H
#define OBREG_TOOL_COPIER_H

#include <atomic>
#include <future>
#include <string>
#include <vector>

#include "errors.h"
#include "regtext/regreader.h"
#include "treereader.h"

namespace obregtool {

/// More than that is not tried as one transaction: statements, and bytes of names and data.
inline constexpr size_t MostAsOne = 10000;
inline constexpr size_t MostBytesAsOne = 16u << 20;

class Copier {
public:
    /// Copies a key, and what is up to `depth` levels below it. Ctrl-C ends it early. Throws Failure.
    void copyTree(const KeyPath& from, const KeyPath& to, uint64_t depth);

    uint64_t keys() const { return m_keys; }     ///< that were made, or were there
    uint64_t values() const { return m_values; } ///< that were written
    /// "one transaction", and the like.
    std::string how() const;

private:
    struct Key {
        KeyPath target;
        std::vector<obreg::NamedValue> values;
    };
    /// Values of one key, from `begin` to before `end`.
    struct Slice {
        const Key* pKey;
        size_t begin;
        size_t end;
    };
    using Piece = std::vector<Slice>; ///< written in one transaction
    using Chain = std::vector<Piece>; ///< written one after the other

    void copy(TreeReader::Entry& from, const KeyPath& target);
    void finish();
    void write();
    void wait();
    void writeKeys(const std::vector<Key>& keys);
    std::vector<Chain> chainsOf(const std::vector<Key>& keys) const;
    void writePiece(const Piece& piece);
    bool writeAsOne(const Piece& piece);
    void writeSlice(const Slice& slice);

    std::vector<Key> m_waiting;
    size_t m_bytes = 0;          // of those
    size_t m_statements = 0;     // that copy all of those
    bool m_asOne = true;         // nothing was written yet
    std::future<void> m_writing; // what was waiting, while others are read
    std::atomic<bool> m_failed{false};
    std::atomic<bool> m_apart{false}; // each value is written by itself
    std::atomic<uint64_t> m_keys{0};
    std::atomic<uint64_t> m_values{0};
    std::atomic<uint64_t> m_transactions{0};
};

/// Tells what copyTree changes.
void tellCopy(RegSink& sink, const KeyPath& from, const KeyPath& to, uint64_t depth);

/// Where a key that is below `top`, or is it, comes to stand below `target`.
KeyPath moved(const KeyPath& key, const KeyPath& top, const KeyPath& target);

/// Brings values that were read into the order in which they were made.
void sortByPosition(std::vector<ValueEntry>& values);

} // namespace obregtool

#endif
