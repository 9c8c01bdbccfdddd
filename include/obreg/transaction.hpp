// transaction.hpp - several changes as one: all are made or none, exactly once, and only while what they rest on holds.
// Header-only, C++17, on <obreg/registry.hpp>; for a daemon that has HKEY_DYN_DATA\Transactions, as obregd does.
//
//     using namespace obreg;
//     Transaction transfer;
//     transfer.require(from, "Balance", UINT32{100}).require(to, "Balance", UINT32{5});
//     transfer.set(from, "Balance", UINT32{70}).set(to, "Balance", UINT32{35});
//     transfer.commit();
//
//     while (!compareAndSet(key, "Counter", seen, seen + 1))
//         seen = key.get<UINT32>("Counter");
//
// A Transaction collects; nothing is sent before commit(). All conditions are judged before the first change, wherever
// they stand; then the changes are made in their order, with the caller's rights and limits, in one commit of the
// daemon. If anything is refused nothing is done, and outcome() tells which statement it was, and why.
//
// KEYS are given as an open Key and, perhaps, a path below it. Only the key's handle is noted, so what is committed
// later is about the same key even if another one has got its name; it may be closed by then.
//
// ONCE. Each transaction has a token, under which the daemon remembers that it was done. A commit whose outcome is not
// known (Status::requestFailed: the connection was lost) may be repeated and acts once, also over a restart of the
// daemon and of the program, when that has kept token and statements. How long tokens are kept: docs/daemon.md.
//
// ERRORS. As in registry.hpp. What cannot be said at all (a name with control characters, empty data) is reported by
// commit(). THREADS. A Transaction belongs to one thread at a time.
#ifndef OBREG_TRANSACTION_HPP
#define OBREG_TRANSACTION_HPP

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include <unistd.h>

#include <obreg/registry.hpp>

namespace obreg {

/// No value: stands in a condition in the place of data.
struct Absent {};
inline constexpr Absent absent;

class Transaction {
public:
    /// What became of a transaction.
    struct Outcome {
        enum State {
            Unknown, ///< not sent, on its way, or longer ago than the daemon remembers
            Done,
            Refused, ///< nothing was done
        };
        State state = Unknown;
        UINT64 number = 0;     ///< of the daemon's journal, when it was done: what a watch goes on from
        std::error_code error; ///< this and the following: why it was refused
        std::string text;      ///< in the daemon's words; may be empty
        UINT64 line = 0;       ///< of text()
        UINT64 column = 0;
        size_t statement = 0; ///< which one, from 1 in the order of the calls; 0 when it is not known
    };

    /// With a random token, made by the first commit.
    Transaction() = default;
    /// With the caller's own: 1 to 64 letters, digits, '-', '_' and '.'. Each user has tokens of his own.
    explicit Transaction(std::string token) : m_token(std::move(token)) {}

    // Changes. A key that is missing is made, with its parents, by all but remove().

    /// Stores a value: of the key, or of the key at a path below it.
    template <class Type>
    Transaction& set(const Key& key, const std::string& name, const Type& data)
    {
        return set(key, "", name, data);
    }
    template <class Type>
    Transaction& set(const Key& key, const std::string& path, const std::string& name, const Type& data)
    {
        return value("[", key, path, name, ValueOf<Encoded<Type>>::encode(data));
    }
    /// Deletes a value, which may be missing.
    Transaction& removeValue(const Key& key, const std::string& name) { return removeValue(key, "", name); }
    Transaction& removeValue(const Key& key, const std::string& path, const std::string& name)
    {
        return noValue("[", key, path, name);
    }
    /// Makes a key, which may be there.
    Transaction& create(const Key& key, const std::string& path) { return section("[", key, path); }
    /// Deletes the key at a path below this one with all below it; it may be missing.
    Transaction& remove(const Key& key, const std::string& path) { return section("[-", key, path); }

    // Conditions.

    /// The value is there with this type and data; or, for `absent`, it is not there although its key is.
    template <class Type>
    Transaction& require(const Key& key, const std::string& name, const Type& data)
    {
        return require(key, "", name, data);
    }
    template <class Type>
    Transaction& require(const Key& key, const std::string& path, const std::string& name, const Type& data)
    {
        if constexpr (std::is_same_v<Type, Absent>)
            return noValue("[?", key, path, name);
        else
            return value("[?", key, path, name, ValueOf<Encoded<Type>>::encode(data));
    }
    /// The key is there.
    Transaction& requireKey(const Key& key, const std::string& path) { return section("[?", key, path); }
    /// There is no such key.
    Transaction& requireNoKey(const Key& key, const std::string& path) { return section("[?-", key, path); }

    /// The key is there, and neither it nor anything below it has changed after the change of that number: the number()
    /// of a Watch, or that of an Outcome. To change a whole tree that others write too: take the number, read, commit
    /// with this condition, and begin anew when it does not hold. What the daemon no longer knows counts as changed,
    /// and so does what lies more than 10,000 changes back, of whatever key.
    Transaction& requireUnchanged(const Key& key, const std::string& path, UINT64 since)
    {
        if (begin(mistakeIn("[?", key, path))) {
            enterSection("[?", key, path);
            m_text += "unchanged-since=" + std::to_string(since);
            endStatement();
        }
        return *this;
    }

    /// Carries it out. What was refused may be committed again, and is judged anew; what was done is not done again.
    /// Status::conditionFailed: a condition does not hold. Status::notFound, Status::badHandle: isKnown() tells whether
    /// that is because the daemon has no transactions.
    void commit(std::error_code& error)
    {
        error = m_mistake;
        if (!error && m_token.empty())
            m_token = randomToken(error);
        if (!error && UINT64{m_text.size()} > std::numeric_limits<UINT32>::max())
            error = Status::tooLarge;
        const Key transactions = error ? Key() : openTransactions(error);
        if (!error)
            transactions.set(m_token, Value{REG_SZ, m_text}, error);
    }
    /// What it throws names the statement and has the daemon's text.
    void commit()
    {
        std::error_code error;
        commit(error);
        if (!error)
            return;
        std::error_code ignored; // the outcome only says more
        const Outcome why = outcome(ignored);
        std::string what = "transaction";
        if (why.statement != 0)
            what += ", statement " + std::to_string(why.statement);
        if (why.error == error && !why.text.empty())
            what += ": " + why.text;
        throw std::system_error(error, what);
    }

    /// Asks the daemon what became of it.
    Outcome outcome(std::error_code& error) const
    {
        error.clear();
        if (m_mistake)
            return {Outcome::Refused, 0, m_mistake, "", 0, 0, m_lines.size()};
        Outcome outcome = m_token.empty() ? Outcome() : outcomeOf(m_token, error);
        if (outcome.line == 0)
            return outcome;
        const auto at = std::lower_bound(m_lines.begin(), m_lines.end(), outcome.line);
        if (at != m_lines.end()) // each statement ends with its line
            outcome.statement = static_cast<size_t>(at - m_lines.begin()) + 1;
        return outcome;
    }
    Outcome outcome() const
    {
        return detail::throwing("transaction", [&](std::error_code& error) { return outcome(error); });
    }
    /// The same of a token that this user has used, perhaps in another process.
    static Outcome outcomeOf(const std::string& token, std::error_code& error)
    {
        const Key transactions = openTransactions(error);
        const std::string answer = error ? std::string() : transactions.get<std::string>(token, error);
        if (error == Status::notFound && transactions)
            error.clear();
        return parsed(answer);
    }
    static Outcome outcomeOf(const std::string& token)
    {
        return detail::throwing(token, [&](std::error_code& error) { return outcomeOf(token, error); });
    }

    /// Whether the daemon has transactions.
    static bool isKnown(std::error_code& error)
    {
        const Key transactions = openTransactions(error);
        if (error == Status::notFound || error == Status::badHandle)
            error.clear();
        return static_cast<bool>(transactions);
    }
    static bool isKnown()
    {
        return detail::throwing("transactions", [](std::error_code& error) { return isKnown(error); });
    }

    /// Empty before the first commit, unless it was given.
    const std::string& token() const { return m_token; }
    /// What is sent.
    const std::string& text() const { return m_text; }
    /// How many statements it has.
    size_t size() const { return m_lines.size(); }
    bool empty() const { return m_lines.empty(); }

private:
    template <class Type>
    using Encoded = std::conditional_t<std::is_convertible_v<const Type&, std::string_view>, std::string, Type>;

    static Key openTransactions(std::error_code& error)
    {
        return Key::open(Key::root(HKEY_DYN_DATA), "Transactions", KEY_QUERY_VALUE, error);
    }

    static std::string randomToken(std::error_code& error)
    {
        unsigned char random[16];
        if (getentropy(random, sizeof(random)) != 0) {
            error = {errno, std::generic_category()};
            return {};
        }
        std::string token;
        for (const unsigned char byte : random)
            appendHex(token, byte, 2);
        return token;
    }

    /// "done NUMBER" or "refused LINE COLUMN STATUS TEXT".
    static Outcome parsed(const std::string& answer)
    {
        Outcome outcome;
        const char* p = answer.c_str() + std::min(answer.find(' '), answer.size());
        const auto number = [&p](int base) {
            char* pEnd = nullptr;
            const UINT64 result = std::strtoull(p, &pEnd, base);
            p = pEnd;
            return result;
        };
        if (answer.compare(0, 5, "done ") == 0) {
            outcome.state = Outcome::Done;
            outcome.number = number(10);
        } else if (answer.compare(0, 8, "refused ") == 0) {
            outcome.state = Outcome::Refused;
            outcome.line = number(10);
            outcome.column = number(10);
            outcome.error = errorCode(static_cast<REGSTATUS>(number(16)));
            outcome.text = *p == ' ' ? p + 1 : p;
        }
        return outcome;
    }

    // The text. Each section and each value is one line, so the reader's line tells the statement.

    static void appendHex(std::string& text, UINT64 number, unsigned digits)
    {
        while (digits-- > 0)
            text += "0123456789abcdef"[number >> (4 * digits) & 15];
    }
    static void appendQuoted(std::string& text, std::string_view plain)
    {
        text += '"';
        for (const char c : plain) {
            if (c == '"' || c == '\\')
                text += '\\';
            text += c;
        }
        text += '"';
    }
    static bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20; }
    static bool isPlain(std::string_view text) { return std::none_of(text.begin(), text.end(), isControl); }
    static bool isPath(const std::string& path)
    {
        return isPlain(path) && path.compare(0, 1, "\\") != 0 && path.find("\\\\") == std::string::npos;
    }

    void appendData(const Value& value)
    {
        const std::string_view data = value.data;
        if (value.type == REG_SZ && data.back() == '\0' && isPlain(data.substr(0, data.size() - 1))) {
            appendQuoted(m_text, data.substr(0, data.size() - 1));
            return;
        }
        m_text += "hex(";
        appendHex(m_text, value.type, 8);
        m_text += "):";
        m_text.reserve(std::max(m_text.capacity(), m_text.size() + 3 * data.size()));
        for (const char byte : data) {
            appendHex(m_text, static_cast<unsigned char>(byte), 2);
            m_text += ',';
        }
        m_text.pop_back();
    }

    void endLine()
    {
        m_text += '\n';
        ++m_line;
    }

    /// Counts a statement; false for one that cannot be sent. The first of these is the last that counts.
    bool begin(const std::error_code& mistake)
    {
        if (m_mistake)
            return false;
        m_mistake = mistake;
        m_lines.push_back(0);
        return !m_mistake;
    }

    static std::error_code mistakeIn(const char* pBracket, const Key& key, const std::string& path)
    {
        if (!key || reinterpret_cast<uintptr_t>(key.handle()) >> 16 >> 16 != 0)
            return Status::invalidParameter;
        const bool itself = path.empty() && pBracket[1] == '-'; // a deletion is of what is below
        return itself || !isPath(path) ? Status::badName : std::error_code();
    }

    void beginSection(std::string&& line)
    {
        m_text += line;
        endLine();
        m_section = std::move(line);
    }
    /// The section that what follows belongs to, if it is another one.
    void enterSection(const char* pBracket, const Key& key, const std::string& path)
    {
        if (std::string line = sectionLine(pBracket, key, path); line != m_section)
            beginSection(std::move(line));
    }
    static std::string sectionLine(const char* pBracket, const Key& key, const std::string& path)
    {
        std::string line = std::string(pBracket) + '#';
        appendHex(line, reinterpret_cast<uintptr_t>(key.handle()), 8);
        return line + (path.empty() ? "" : "\\") + path + ']';
    }

    Transaction& section(const char* pBracket, const Key& key, const std::string& path)
    {
        if (begin(mistakeIn(pBracket, key, path))) {
            beginSection(sectionLine(pBracket, key, path));
            m_lines.back() = m_line;
        }
        return *this;
    }

    /// "name"= in its section; the data and the line's end are to follow. False when it cannot be sent.
    bool beginValue(const char* pBracket, const Key& key, const std::string& path, const std::string& name,
                    std::error_code mistake)
    {
        if (!isPlain(name))
            mistake = Status::badName;
        if (const std::error_code inKey = mistakeIn(pBracket, key, path))
            mistake = inKey;
        if (!begin(mistake))
            return false;
        enterSection(pBracket, key, path);
        if (name.empty() || name == "@" || name == "default")
            m_text += '@';
        else
            appendQuoted(m_text, name);
        m_text += '=';
        return true;
    }
    void endStatement()
    {
        endLine();
        m_lines.back() = m_line;
    }

    Transaction& value(const char* pBracket, const Key& key, const std::string& path, const std::string& name,
                       const Value& value)
    {
        const std::error_code mistake = value.data.empty() ? Status::invalidParameter : std::error_code();
        if (beginValue(pBracket, key, path, name, mistake)) {
            appendData(value);
            endStatement();
        }
        return *this;
    }
    Transaction& noValue(const char* pBracket, const Key& key, const std::string& path, const std::string& name)
    {
        if (beginValue(pBracket, key, path, name, {})) {
            m_text += '-';
            endStatement();
        }
        return *this;
    }

    std::string m_token;
    std::string m_text = "Windows Registry Editor Version 5.00\n";
    UINT64 m_line = 1;           // lines of the text
    std::vector<UINT64> m_lines; // of the statements, each its last
    std::string m_section;       // the line of the last one
    std::error_code m_mistake;   // of the last statement, which could not be sent
};

/// Stores `desired` when the value is `expected`, which may be `absent`. False when it is not, or its key is gone: then
/// nothing was done.
template <class Expected, class Desired>
bool compareAndSet(const Key& key, const std::string& name, const Expected& expected, const Desired& desired,
                   std::error_code& error)
{
    Transaction transaction;
    transaction.require(key, name, expected).set(key, name, desired).commit(error);
    if (error != Status::conditionFailed)
        return !error;
    error.clear();
    return false;
}
template <class Expected, class Desired>
bool compareAndSet(const Key& key, const std::string& name, const Expected& expected, const Desired& desired)
{
    return detail::throwing(name,
                            [&](std::error_code& error) { return compareAndSet(key, name, expected, desired, error); });
}

} // namespace obreg

#endif
