// Running prepared statements: bind, step, and always reset.
//
// No state; a statement belongs to its connection's thread.
#ifndef OBREG_DAEMON_STORE_STATEMENTS_H
#define OBREG_DAEMON_STORE_STATEMENTS_H

#include <SQLiteCpp/SQLiteCpp.h>
#include <string>

namespace obregd {

/// Resets a statement on leaving a scope, so that it is ready again and holds no lock.
class Use {
public:
    explicit Use(SQLite::Statement& statement) : m_statement(statement) { m_statement.tryReset(); }
    ~Use() { m_statement.tryReset(); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

private:
    SQLite::Statement& m_statement;
};

/// Sets the parameters from the first on. Text and data are not copied: they outlive the statement's use.
inline void bindOne(SQLite::Statement& statement, int index, const std::string& text)
{
    statement.bindNoCopy(index, text);
}
template <class Number>
void bindOne(SQLite::Statement& statement, int index, Number number)
{
    statement.bind(index, static_cast<int64_t>(number));
}
template <class... Values>
void bindAll(SQLite::Statement& statement, const Values&... values)
{
    int index = 0;
    (bindOne(statement, ++index, values), ...);
}

/// Sets the parameters, runs the statement to its end and returns the number of rows changed.
template <class... Values>
int run(SQLite::Statement& statement, const Values&... values)
{
    const Use use(statement);
    bindAll(statement, values...);
    return statement.exec();
}

} // namespace obregd

#endif
