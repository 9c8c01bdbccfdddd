// Changes that the daemon makes as one: a sink that collects statements into a transaction. Large changes are made in
// pieces, each a batch, which is much faster than one request for each value.
//
// Owned and called by one thread.
#ifndef OBREG_TOOL_BATCH_H
#define OBREG_TOOL_BATCH_H

#include <optional>
#include <string>
#include <vector>

#include <obreg/transaction.hpp>

#include "errors.h"
#include "regtext/regreader.h"

namespace obregtool {

/// A batch of which nothing was done; or, when no answer came, perhaps all.
struct BatchFailure : Failure {
    BatchFailure(const Failure& failure, const Place& statement, bool onlyAsOne)
        : Failure(failure), place(statement), asOne(onlyAsOne)
    {}
    Place place; ///< what was given with the statement that was refused; line 0: it was none of them
    bool asOne;  ///< it is refused only because it is one transaction: smaller ones, or single writes, may do
};

class Batch : public RegSink {
public:
    void key(const KeyPath& key, const Place& place) override { add(&Transaction::create, key, place); }
    void removeKey(const KeyPath& key, const Place& place) override { add(&Transaction::remove, key, place); }
    void value(std::string&& name, obreg::Value&& value, const Place& place) override { set(name, value, place); }
    void removeValue(std::string&& name, const Place& place) override;
    void requireKey(const KeyPath& key, const Place& place) override { add(&Transaction::requireKey, key, place); }
    void requireNoKey(const KeyPath& key, const Place& place) override { add(&Transaction::requireNoKey, key, place); }
    void requireValue(std::string&& name, obreg::Value&& value, const Place& place) override;
    void requireNoValue(std::string&& name, const Place& place) override;
    void requireUnchanged(uint64_t since, const Place& place) override;

    /// As value(), for one that the caller keeps.
    void set(const std::string& name, const obreg::Value& value, const Place& place = {});

    size_t size() const { return m_statements.size(); }
    size_t bytes() const { return m_transaction.text().size(); }

    /// Throws BatchFailure. Nothing is asked for an empty batch.
    void commit();

private:
    using Transaction = obreg::Transaction;
    using OfKey = Transaction& (Transaction::*)(const obreg::Key& key, const std::string& path);
    struct Statement {
        size_t key; // of m_keys
        std::optional<std::string> name;
        Place place;
    };

    void add(OfKey statement, const KeyPath& key, const Place& place);
    void note(const std::string& name, const Place& place);
    BatchFailure failureOfCommit(const std::error_code& error) const;

    obreg::Transaction m_transaction;
    std::vector<KeyPath> m_keys;
    std::vector<Statement> m_statements;
};

/// What is said where the daemon has no transactions.
Failure noTransactions(const std::string& advice);

} // namespace obregtool

#endif
