#include "batch.h"

#include "condition.h"

namespace obregtool {

namespace {

constexpr size_t LongText = size_t{256} * 1024; // which a daemon may not take

obreg::Key rootOf(const KeyPath& key) { return obreg::Key::root(key.root); }

/// The failure of the batch as a whole.
Failure failureOfAll(const KeyPath& first, const std::error_code& error, size_t statements, size_t bytes)
{
    if (error != obreg::Status::tooLarge)
        return failureOf(first, nullptr, error, bytes);
    Failure failure(ExitFailed, std::to_string(statements) + " statements (" + std::to_string(bytes) +
                                    " bytes) as one transaction: " + error.message());
    failure.status = OBREG_STATUS_TOO_LARGE;
    return failure;
}

} // namespace

Failure noTransactions(const std::string& advice)
{
    return {ExitFailed, "the daemon that runs here has no transactions", advice};
}

void Batch::add(OfKey statement, const KeyPath& key, const Place& place)
{
    if (m_keys.empty() || m_keys.back().root != key.root || m_keys.back().path != key.path)
        m_keys.push_back(key);
    m_statements.push_back({m_keys.size() - 1, std::nullopt, place});
    (m_transaction.*statement)(rootOf(key), key.path);
}

void Batch::note(const std::string& name, const Place& place)
{
    m_statements.push_back({m_keys.size() - 1, name, place});
}

void Batch::set(const std::string& name, const obreg::Value& value, const Place& place)
{
    note(name, place);
    m_transaction.set(rootOf(m_keys.back()), m_keys.back().path, name, value);
}

void Batch::removeValue(std::string&& name, const Place& place)
{
    note(name, place);
    m_transaction.removeValue(rootOf(m_keys.back()), m_keys.back().path, name);
}

void Batch::requireValue(std::string&& name, obreg::Value&& value, const Place& place)
{
    note(name, place);
    m_transaction.require(rootOf(m_keys.back()), m_keys.back().path, name, value);
}

void Batch::requireNoValue(std::string&& name, const Place& place)
{
    note(name, place);
    m_transaction.require(rootOf(m_keys.back()), m_keys.back().path, name, obreg::absent);
}

void Batch::requireUnchanged(uint64_t since, const Place& place)
{
    m_statements.push_back({m_keys.size() - 1, std::nullopt, place});
    m_transaction.requireUnchanged(rootOf(m_keys.back()), m_keys.back().path, since);
}

void Batch::commit()
{
    if (m_statements.empty())
        return;
    std::error_code error;
    m_transaction.commit(error);
    if (error == obreg::Status::requestFailed) { // it may have been done: sent again it is not done twice
        m_transaction.commit(error);
        std::error_code unanswered;
        if (error && m_transaction.outcome(unanswered).state == obreg::Transaction::Outcome::Done)
            return;
    }
    if (error)
        throw failureOfCommit(error);
}

BatchFailure Batch::failureOfCommit(const std::error_code& error) const
{
    std::error_code unanswered;
    const bool known = obreg::Transaction::isKnown(unanswered);
    if (!known && !unanswered)
        return {noTransactions(""), {}, true};
    const obreg::Transaction::Outcome outcome = m_transaction.outcome(unanswered);
    const bool tooLarge = error == obreg::Status::tooLarge; // which statement was one too many says little
    if (outcome.error == error && outcome.statement != 0 && !tooLarge) {
        const Statement& statement = m_statements[outcome.statement - 1];
        const std::string* const pName = statement.name ? &*statement.name : nullptr;
        const KeyPath& key = m_keys[statement.key];
        const size_t why = outcome.text.rfind(": "); // behind the daemon's name of it, by handle
        if (error == obreg::Status::conditionFailed && why != std::string::npos)
            return {conditionFailure(key, pName, outcome.text.substr(why + 2)), statement.place, false};
        return {failureOf(key, pName, error), statement.place, false};
    }
    // A request that the daemon does not take, for its length, ends the connection.
    const bool lost = error == obreg::Status::requestFailed && bytes() >= LongText;
    return {failureOfAll(m_keys.front(), error, size(), bytes()), {}, tooLarge || (lost && known)};
}

} // namespace obregtool
