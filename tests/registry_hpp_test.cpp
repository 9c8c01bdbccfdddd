// The C++ face: what it stores and reads through the real daemon, singly and in transactions; and, against a scripted
// one, what it does when a value grows between two calls, when a range breaks off, and when a key closes.
#include <atomic>
#include <csignal>
#include <functional>
#include <map>

#include <gtest/gtest.h>

#include "obreg/transaction.hpp"
#include "support/running_daemon.h"
#include "support/scripted_daemon.h"

using namespace obreg;
using namespace std::string_literals;

namespace {

class WithDaemon : public testing::Test {
protected:
    /// Stores, and reads back both as it came and as it lies there.
    template <class Type>
    void expectStored(const Type& data, const Value& stored)
    {
        m_key.set("v", data);
        EXPECT_EQ(m_key.get<Value>("v"), stored);
        EXPECT_EQ(m_key.get<Type>("v"), data);
    }

    FreshDaemon m_daemon;
    Key m_key = Key::create(localMachine(), "Software\\Acme");
};

TEST_F(WithDaemon, StoresEveryTypeAsItsKindOfValue)
{
    expectStored("text"s, {REG_SZ, "text\0"s});
    expectStored(""s, {REG_SZ, "\0"s});
    expectStored("in\0side"s, {REG_SZ, "in\0side\0"s});
    expectStored(std::string(5000, 'x'), {REG_SZ, std::string(5000, 'x') + '\0'}); // more than the first room
    expectStored(StringList{"a", "bc"}, {REG_MULTI_SZ, "a\0bc\0\0"s});
    expectStored(StringList{}, {REG_MULTI_SZ, "\0"s});
    expectStored(UINT32{0x01020304}, {REG_DWORD, "\4\3\2\1"});
    expectStored(UINT64{0xF102030405060708}, {REG_QWORD, "\x08\7\6\5\4\3\2\xF1"});
    expectStored(Bytes{std::byte{0}, std::byte{255}}, {REG_BINARY, "\0\xFF"s});
    expectStored(Value{77, "\0"s}, {77, "\0"s});
    m_key.set("v", "a literal");
    EXPECT_EQ(m_key.get<std::string>("v"), "a literal");
    m_key.removeValue("v");
    for (const char* const pUnnamed : {"", "@", "default"}) {
        m_key.set("", 1u);
        m_key.removeValue(pUnnamed);
        EXPECT_EQ(m_key.info().values, 0u) << pUnnamed;
    }
}

TEST(Values, AreReadAsOthersStoreThem)
{
    const struct {
        Value stored;
        StringList read; // one: as text
    } cases[] = {
        {{REG_SZ, "a"}, {"a"}},       {{REG_EXPAND_SZ, "$A\0"s}, {"$A"}},    {{REG_LINK, "\\x"}, {"\\x"}},
        {{REG_MULTI_SZ, "a"}, {"a"}}, {{REG_MULTI_SZ, "a\0b"s}, {"a", "b"}}, {{REG_MULTI_SZ, "a\0\0b"s}, {"a"}},
    };
    for (const auto& [stored, read] : cases)
        EXPECT_EQ(
            ValueOf<StringList>::decode(stored).value_or(StringList{ValueOf<std::string>::decode(stored).value_or("")}),
            read);
    const Value bigEndian{REG_DWORD_BIG_ENDIAN, "\1\2\3\4"};
    EXPECT_EQ(ValueOf<UINT32>::decode(bigEndian), 0x01020304u);
    EXPECT_EQ(ValueOf<UINT64>::decode(bigEndian), 0x01020304u);
}

TEST_F(WithDaemon, RangesGiveEveryEntry)
{
    const std::map<std::string, Value> stored = {{std::string(255, 'n'), {REG_SZ, std::string(3000, 'd')}},
                                                 {"b", {REG_DWORD, "\1\0\0\0"s}}};
    for (const auto& [name, value] : stored)
        m_key.set(name, value);
    Key::create(m_key, "sub\\below");
    std::map<std::string, Value> values;
    for (const auto& [name, value] : m_key.values())
        values[name] = value;
    EXPECT_EQ(values, stored);
    std::error_code error = Status::notFound;
    for (const SubKey& subKey : m_key.subKeys(error)) {
        EXPECT_EQ(subKey.name, "sub");
        EXPECT_EQ(subKey.lastWriteTime, Key::open(m_key, "sub").info().lastWriteTime);
    }
    EXPECT_FALSE(error);
    EXPECT_EQ(m_key.info().maxValueNameLength, 255u);
}

TEST_F(WithDaemon, ReportsFailuresByNameEitherWay)
{
    try {
        Key::open(localMachine(), "Missing\\Key");
        FAIL();
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), Status::notFound);
        EXPECT_EQ(error.what(), "Missing\\Key: there is no such key or value (NOT_FOUND, C7F20002)"s);
    }
    std::error_code error = Status::notFound;
    Key made;
    for (const bool isNew : {true, false}) {
        bool created = !isNew;
        made = Key::create(m_key, "new", KEY_ALL_ACCESS, &created, error);
        EXPECT_TRUE(made && created == isNew && !error);
    }
    m_key.set("short", Value{REG_DWORD, "\1\2\3"});
    m_key.remove("new", error);
    EXPECT_FALSE(error);
    EXPECT_THROW(made.subKeys().begin(), std::system_error);
    const std::string cut("na\0me", 5); // the functions below would take it for "na"
    const std::pair<std::function<void()>, Status> cases[] = {
        {[&] { EXPECT_EQ(made.info(error).subKeys, 0u); }, Status::keyDeleted},
        {[&] { EXPECT_EQ(std::distance(made.values(error).begin(), made.values(error).end()), 0); },
         Status::keyDeleted},
        {[&] { EXPECT_FALSE(Key::open(m_key, "new", KEY_READ, error)); }, Status::notFound},
        {[&] { m_key.set("v", Bytes{}, error); }, Status::invalidParameter},
        {[&] { EXPECT_EQ(m_key.get<UINT32>("short", error), 0u); }, Status::invalidParameter},
        {[&] { m_key.set(cut, 1u, error); }, Status::badName},
        {[&] { m_key.remove(cut, error); }, Status::badName},
        {[&] { EXPECT_FALSE(Key::create(m_key, cut, KEY_ALL_ACCESS, nullptr, error)); }, Status::badName},
    };
    for (const auto& [fail, status] : cases) {
        fail();
        EXPECT_EQ(error, status);
    }
    EXPECT_NE(errorCode(0xC7F2FFFF).message().find("C7F2FFFF"), std::string::npos); // one that nobody knows
}

TEST_F(WithDaemon, ATransactionStoresExactlyWhatItWasGiven)
{
    std::string everyByte;
    for (int i = 0; i < 256; ++i)
        everyByte += static_cast<char>(i);
    const std::string plain = everyByte.substr(' ');
    std::map<std::string, Value> stored;
    for (const UINT32 type : {REG_NONE, REG_SZ, REG_DWORD, REG_MULTI_SZ, 0xFFFFFFFFu})
        for (const std::string& data : {everyByte, plain, plain + '\0', "\0"s, "\n\0"s, "1234"s})
            stored[std::to_string(stored.size())] = {type, data};
    for (const char* const pName : {"default", "\"", "\\", "]", " ", ";", "=-", "hex:00", "\x80\xFF"})
        stored[pName] = {REG_SZ, pName + "\0"s};
    stored[plain] = stored["0"];
    const std::string path = plain.substr(1, plain.find('\\') - 1) + "\\[-a]\\ ]"; // one backslash would be two names
    Transaction all;
    for (const auto& [name, value] : stored)
        all.set(m_key, path, name, value);
    all.commit();
    const Key key = Key::open(m_key, path);
    std::map<std::string, Value> found;
    Transaction same;
    for (const auto& [name, value] : key.values()) {
        found[name] = value;
        same.require(key, name, value).require(m_key, path, name, value);
    }
    EXPECT_EQ(found, stored);
    same.requireKey(m_key, path).remove(m_key, path).commit();
    EXPECT_THROW(key.info(), std::system_error);
}

TEST_F(WithDaemon, ATransactionTellsWhichStatementIsRefusedAndDoesNothing)
{
    const auto good = [this](Transaction&& transaction) { return transaction.set(m_key, "a\\b", "v", "new"); };
    m_key.set("n", 1u);
    const struct {
        Transaction transaction;
        Status status;
        size_t statement;
    } cases[] = {
        {good(Transaction()).require(m_key, "n", 2u), Status::conditionFailed, 2},
        {good(Transaction()).require(m_key, "n", "1"), Status::conditionFailed, 2},
        {good(Transaction()).require(m_key, "n", absent).require(m_key, "n", 2u), Status::conditionFailed, 2},
        {good(Transaction()).requireKey(m_key, "").requireNoKey(localMachine(), "Software"), Status::conditionFailed,
         3},
        {good(Transaction()).create(m_key, "c").requireKey(m_key, "c"), Status::conditionFailed, 3},
        {good(Transaction()).set(performanceData(), "x", 1u).removeValue(m_key, "n"), Status::accessDenied, 2},
        {good(Transaction()).remove(performanceData(), "Requests"), Status::accessDenied, 2},
        {good(Transaction()).create(m_key, std::string(OBREG_MAX_KEY_NAME + 1, 'n')), Status::badName, 2},
        {good(Transaction()).set(m_key, "two\nlines", 1u).create(m_key, "c"), Status::badName, 2},
        {good(Transaction()).create(m_key, "a\\\\b"), Status::badName, 2},
        {good(Transaction()).remove(m_key, ""), Status::badName, 2},
        {good(Transaction()).set(m_key, "empty", Bytes{}), Status::invalidParameter, 2},
        {good(Transaction()).create(Key(), "c"), Status::invalidParameter, 2},
        {good(Transaction("no token")), Status::badName, 0},
    };
    for (const auto& [built, status, statement] : cases) {
        Transaction transaction = built;
        SCOPED_TRACE(transaction.text());
        std::error_code error;
        transaction.commit(error);
        EXPECT_EQ(error, status);
        const Transaction::Outcome outcome = transaction.outcome(error);
        EXPECT_EQ(outcome.statement, statement);
        EXPECT_TRUE(statement == 0 || (outcome.state == Transaction::Outcome::Refused && outcome.error == status));
        EXPECT_EQ(m_key.info().subKeys, 0u);
        EXPECT_EQ(m_key.info().values, 1u);
    }
}

TEST_F(WithDaemon, ATransactionActsOnce)
{
    Transaction once("my-token_1.0");
    EXPECT_EQ(Transaction::outcomeOf(once.token()).state, Transaction::Outcome::Unknown);
    once.set(m_key, "n", 1u);
    once.commit();
    const UINT64 number = once.outcome().number;
    EXPECT_GT(number, 0u);
    m_key.removeValue("n");
    m_daemon.stop(SIGKILL);
    m_daemon.start();
    once.commit(); // whoever does not know whether it was done
    EXPECT_EQ(m_key.info().values, 0u);
    EXPECT_EQ(Transaction::outcomeOf(once.token()).number, number);
    std::error_code error;
    once.set(m_key, "n", 2u).commit(error);
    EXPECT_EQ(error, Status::tokenUsed);

    EXPECT_TRUE(compareAndSet(m_key, "n", absent, 1u));
    EXPECT_FALSE(compareAndSet(m_key, "n", absent, 2u));
    EXPECT_FALSE(compareAndSet(m_key, "n", "1", 2u));
    EXPECT_TRUE(compareAndSet(m_key, "n", 1u, "two"));
    EXPECT_EQ(m_key.get<std::string>("n"), "two");
    Key::open(localMachine(), "Software").remove("Acme");
    EXPECT_FALSE(compareAndSet(m_key, "n", absent, 3u)); // of a key that is gone
}

TEST(RegistryHpp, TellsADaemonWithoutTransactions)
{
    const ScriptedDaemon daemon(ScriptedDaemon::answering(
        [](const std::string&) { return encoded(OpenKeyRespMsg(OBREG_STATUS_BAD_HANDLE, nullptr)); }));
    EXPECT_FALSE(Transaction::isKnown());
    std::error_code error;
    EXPECT_FALSE(compareAndSet(localMachine(), "n", absent, 1u, error));
    EXPECT_EQ(error, Status::badHandle);
}

TEST(RegistryHpp, AsksAgainUntilAValueStopsGrowing)
{
    std::map<std::string, std::vector<std::string>> replies; // by the request's type; the last one first
    replies["06"] = {encoded(EnumValueRespMsg(OBREG_STATUS_NO_MORE_ENTRIES, "", 0, nullptr, 0))};
    for (const UINT32 length : {4000u, 5000u, 1000u, 300u}) { // shrinking fits
        const std::string data(length, 'x');
        replies["08"].push_back(encoded(QueryValueRespMsg(0, REG_BINARY, data.data(), length)));
        replies["06"].push_back(encoded(EnumValueRespMsg(0, data.c_str(), REG_BINARY, data.data(), length)));
    }
    const ScriptedDaemon daemon(ScriptedDaemon::answering([&replies](const std::string& request) {
        std::vector<std::string>& left = replies.at(request.substr(4, 2));
        const std::string reply = left.back();
        left.pop_back();
        return reply;
    }));
    const std::string last(4000, 'x');
    EXPECT_EQ(localMachine().get<Value>("v").data, last);
    std::map<std::string, std::string> found;
    for (const auto& [name, value] : localMachine().values())
        found[name] = value.data;
    EXPECT_EQ(found, (std::map<std::string, std::string>{{last, last}}));
}

TEST(RegistryHpp, AKeyClosesItselfOnce)
{
    std::atomic<int> closed{0};
    const ScriptedDaemon daemon(ScriptedDaemon::answering([&closed](const std::string& request) {
        const bool closes = request.compare(4, 2, "01") == 0;
        closed += closes;
        const bool missing = request.find("missing") != std::string::npos;
        return closes ? encoded(CloseKeyRespMsg(0))
                      : encoded(OpenKeyRespMsg(missing ? OBREG_STATUS_NOT_FOUND : 0, reinterpret_cast<HANDLE>(0x2A)));
    }));
    {
        Key key = Key::open(localMachine(), "a");
        Key moved = std::move(key);
        key = std::move(moved);
        EXPECT_FALSE(moved); // NOLINT: empty by contract
        std::error_code error;
        EXPECT_FALSE(Key::open(localMachine(), "missing", KEY_READ, error)); // a handle that came with an error
        const Key root = localMachine();
        EXPECT_EQ(closed, 0);
        key.close();
        EXPECT_EQ(closed, 1);
    }
    EXPECT_EQ(closed, 1);
    {
        Key key = Key::open(localMachine(), "a");
        key = Key::open(localMachine(), "b"); // what it had closes
    }
    EXPECT_EQ(closed, 3);
}

} // namespace
