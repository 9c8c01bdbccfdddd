#include "copier.h"

#include <algorithm>

#include "alarm.h"
#include "batch.h"
#include "output.h"
#include "parallel.h"

namespace obregtool {

namespace {

constexpr size_t MostWaiting = 4096;   // statements
constexpr size_t MostOfPiece = 256;    // costs
constexpr size_t BytesOfOneCost = 256; // of a value: each makes it cost one more
constexpr size_t PieceThreads = 8;
constexpr size_t MostThreads = 5 * RequestThreads; // with those that read; writes in flight together share one commit

size_t bytesOf(const obreg::NamedValue& value) { return value.name.size() + value.value.data.size(); }
size_t costOf(const obreg::NamedValue& value) { return 1 + bytesOf(value) / BytesOfOneCost; }

} // namespace

void Copier::copyTree(const KeyPath& from, const KeyPath& to, uint64_t depth)
{
    letInterruptsEndWork();
    Progress progress("copied", 0);
    try {
        TreeReader reader(from, depth, Read::All);
        while (TreeReader::Entry* const pEntry = reader.next()) {
            copy(*pEntry, moved(pEntry->path, from, to));
            progress.update(values());
        }
        finish();
    } catch (Failure& failure) {
        m_failed = true;
        if (m_writing.valid())
            m_writing.wait(); // it counts
        failure.details = {{"keys", keys()}, {"values", values()}};
        throw;
    }
}

std::string Copier::how() const
{
    const uint64_t count = m_transactions;
    return m_apart || count == 0 ? "single writes"
           : count == 1          ? "one transaction"
                                 : std::to_string(count) + " transactions";
}

/// Takes the values of a key that was read, to be written to `target`.
void Copier::copy(TreeReader::Entry& from, const KeyPath& target)
{
    std::vector<ValueEntry>& entries = from.content.values;
    sortByPosition(entries);
    m_waiting.push_back({target, {}});
    m_waiting.back().values.reserve(entries.size());
    forEachValue(from.key, from.path, entries, [&](obreg::NamedValue&& value) {
        endIfInterrupted();
        m_bytes += bytesOf(value);
        m_waiting.back().values.push_back(std::move(value));
        if (m_bytes >= MostBytesAsOne) {
            write();
            m_waiting.push_back({target, {}});
        }
    });
    m_statements += 1 + entries.size();
    entries.clear();
    if (m_statements > (m_asOne ? MostAsOne : MostWaiting))
        write();
}

/// Writes what is left: all, when nothing was written yet.
void Copier::finish()
{
    Piece all;
    for (const Key& key : m_waiting)
        all.push_back({&key, 0, key.values.size()});
    if (!m_asOne || !writeAsOne(all))
        write();
    wait();
}

void Copier::write()
{
    m_asOne = false;
    m_bytes = 0;
    m_statements = 0;
    wait();
    m_writing = std::async([this, keys = std::exchange(m_waiting, {})] { writeKeys(keys); });
}

void Copier::wait()
{
    if (m_writing.valid())
        m_writing.get();
}

void Copier::writeKeys(const std::vector<Key>& keys)
{
    const std::vector<Chain> chains = chainsOf(keys);
    const auto one = [&](size_t i) {
        try {
            for (const Piece& piece : chains[i])
                writePiece(piece);
        } catch (...) {
            m_failed = true;
            throw;
        }
    };
    forEachParallel(chains.size(), one, 1, m_apart ? MostThreads : PieceThreads);
}

/// A key that is longer than a piece goes on in the next one of the chain. Where there are no transactions, each key is
/// a chain.
std::vector<Copier::Chain> Copier::chainsOf(const std::vector<Key>& keys) const
{
    std::vector<Chain> chains;
    size_t cost = MostOfPiece; // of the last piece
    for (const Key& key : keys) {
        if (cost >= MostOfPiece || m_apart) {
            chains.push_back({{}});
            cost = 0;
        }
        chains.back().back().push_back({&key, 0, 0});
        ++cost;
        for (size_t i = 0; i < key.values.size(); ++i) {
            const size_t more = costOf(key.values[i]);
            if (cost + more > MostOfPiece && cost > 1) {
                chains.back().push_back({{&key, i, i}});
                cost = 1;
            }
            chains.back().back().back().end = i + 1;
            cost += more;
        }
    }
    return chains;
}

void Copier::writePiece(const Piece& piece)
{
    if (m_failed)
        return;
    endIfInterrupted();
    const bool isOneValue = piece.size() == 1 && piece.front().end - piece.front().begin <= 1;
    if (isOneValue || m_apart || !writeAsOne(piece))
        std::for_each(piece.begin(), piece.end(), [this](const Slice& slice) { writeSlice(slice); });
}

/// False when it has to be written otherwise, and nothing was written.
bool Copier::writeAsOne(const Piece& piece)
{
    Batch batch;
    uint64_t keys = 0;
    uint64_t values = 0;
    for (const auto& [pKey, begin, end] : piece) {
        batch.key(pKey->target, {});
        for (size_t i = begin; i < end; ++i)
            batch.set(pKey->values[i].name, pKey->values[i].value);
        keys += begin == 0 ? 1 : 0;
        values += end - begin;
    }
    try {
        batch.commit();
    } catch (const BatchFailure& failure) {
        if (!failure.asOne)
            throw;
        m_apart = m_apart || failure.status != OBREG_STATUS_TOO_LARGE;
        return false;
    }
    ++m_transactions;
    m_keys += keys;
    m_values += values;
    return true;
}

void Copier::writeSlice(const Slice& slice)
{
    endIfInterrupted();
    const auto& [key, values] = *slice.pKey;
    std::error_code error;
    const obreg::Key target = makeKey(key, nullptr, error);
    check(error, key);
    m_keys += slice.begin == 0 ? 1 : 0;
    for (size_t i = slice.begin; i < slice.end; ++i) {
        if (m_failed)
            return;
        endIfInterrupted();
        target.set(values[i].name, values[i].value, error);
        check(error, key, &values[i].name, values[i].value.data.size());
        ++m_values;
    }
}

void tellCopy(RegSink& sink, const KeyPath& from, const KeyPath& to, uint64_t depth)
{
    TreeReader reader(from, depth, Read::All);
    while (TreeReader::Entry* const pEntry = reader.next()) {
        sink.key(moved(pEntry->path, from, to), {});
        forEachValue(pEntry->key, pEntry->path, pEntry->content.values, [&sink](obreg::NamedValue&& value) {
            sink.value(std::move(value.name), std::move(value.value), {});
        });
    }
}

KeyPath moved(const KeyPath& key, const KeyPath& top, const KeyPath& target)
{
    return key.path.size() == top.path.size() ? target
                                              : target.child(key.path.substr(top.isRoot() ? 0 : top.path.size() + 1));
}

void sortByPosition(std::vector<ValueEntry>& values)
{
    std::sort(values.begin(), values.end(),
              [](const ValueEntry& a, const ValueEntry& b) { return a.position < b.position; });
}

} // namespace obregtool
