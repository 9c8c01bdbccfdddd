// The daemon's store: places in enumerations against what SQLite counts, what is too long for a brief store, damage,
// upgrade, quotas, and what is cleared away in pieces.
#include <atomic>
#include <deque>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <sqlite3.h>
#include <thread>

#include "daemon/handlers.h"
#include "daemon/store/maintenance.h"
#include "obreg/roots.h"
#include "support/encoded.h"
#include "support/scale.h"
#include "support/temporary_folder.h"

using namespace obregd;

namespace {

constexpr uid_t Ann = 40001;

/// A reader that knows what SQLite itself finds in its state.
class CheckedStore : public Store {
public:
    explicit CheckedStore(const std::string& path, unsigned seed = 0) : Store(path), m_random(seed) {}

    /// Reads on in its state, or in a new one, or elsewhere: anywhere or near the end.
    void step(KeyId id)
    {
        if (m_random() % 8 == 0)
            m_state.reset();
        if (!m_state)
            m_state.emplace(*this);
        const Key found = key(id).value();
        const auto leap = m_random() % (m_random() % 2 == 0 ? found.values : 20);
        m_at = m_random() % 10 == 0 ? found.values - 1 - static_cast<UINT32>(leap) : m_at + 1;
        SQLite::Statement query(m_database, "SELECT name FROM regvalue WHERE key = ? ORDER BY id LIMIT 1 OFFSET ?");
        query.bind(1, id);
        query.bind(2, m_at);
        const std::string counted = query.executeStep() ? query.getColumn(0).getString() : "";
        const auto entry = valueAt(found, m_at);
        const std::string name = entry ? entry->pName : "";
        ASSERT_EQ(name, counted) << "at " << m_at << " of " << found.values;
    }

private:
    std::minstd_rand m_random;
    std::optional<Snapshot> m_state{};
    UINT32 m_at = 0;
};

class StoreTest : public testing::Test {
protected:
    StoreTest() { m_pWriter.emplace(m_path); }

    template <class Work>
    void commit(Work work)
    {
        m_pWriter->begin();
        work(*m_pWriter);
        m_pWriter->commit();
    }

    /// A key of the machine's with values v0, v1, ...; the first one is number 16.
    KeyId makeKey(int values, const std::string& data = "data", Owner owner = MachineOwner)
    {
        KeyId key = 0;
        commit([&](WritableStore& store) {
            key = store.addKey(MachineId, "key" + std::to_string(++m_keys), owner);
            for (int i = 0; i < values; ++i)
                set(key, "v" + std::to_string(i), data);
        });
        return key;
    }

    void set(KeyId key, const std::string& name, const std::string& data)
    {
        m_pWriter->setValue(key, name, 1, data.data(), static_cast<UINT32>(data.size()));
    }

    void fromOutside(const std::string& sql) { SQLite::Database(m_path, SQLite::OPEN_READWRITE).exec(sql); }
    void expectSound() { EXPECT_EQ(checkStore(m_path).problems, std::vector<std::string>()); }

    const TemporaryFolder m_folder;
    const std::string m_path = m_folder / "store";
    std::optional<WritableStore> m_pWriter;
    int m_keys = 0;
};

TEST_F(StoreTest, PositionsAreRightInStatesOfEveryAge)
{
    int next = 3000;
    const KeyId key = makeKey(next);
    std::minstd_rand random(11);
    const auto change = [&] {
        m_pWriter->begin();
        for (auto i = random() % 6; i != 0; --i) {
            const std::string data(random() % 4 == 0 ? random() % 20 : 4, 'x');
            const auto choice = random() % 16;
            if (choice < 5)
                set(key, "v" + std::to_string(next++), data);
            else if (choice < 9)
                set(key, "v" + std::to_string(static_cast<int>(random()) % next), data);
            else if (choice < 15)
                m_pWriter->removeValue(key, "v" + std::to_string(static_cast<int>(random()) % next));
            else { // the last ones are replaced, and their rows not used again
                const int end = next;
                for (int last = end - 25; last < end; ++last)
                    m_pWriter->removeValue(key, "v" + std::to_string(last));
                while (next < end + 25)
                    set(key, "v" + std::to_string(next++), data);
            }
        }
        const Key own = m_pWriter->key(key).value();
        m_pWriter->valueAt(own, static_cast<UINT32>(random() % own.values)); // leaves its trace
        random() % 4 == 0 ? m_pWriter->rollback() : m_pWriter->commit();
    };
    std::deque<CheckedStore> readers;
    for (unsigned seed = 1; seed <= 5; ++seed)
        readers.emplace_back(m_path, seed);
    for (int step = 0; step < scaled(6000) && !HasFatalFailure(); ++step) {
        if (random() % 6 == 0)
            change();
        readers[random() % readers.size()].step(key);
    }
    std::atomic<bool> over = false;
    std::vector<std::thread> threads;
    for (CheckedStore& reader : readers)
        threads.emplace_back([&] {
            while (!over && !HasFatalFailure())
                reader.step(key);
        });
    for (int i = 0; i < scaled(400); ++i)
        change();
    over = true;
    for (std::thread& thread : threads)
        thread.join();
    readers.clear();
    expectSound();
}

TEST_F(StoreTest, WhatIsTooLongForABriefStoreIsShortOnceAnotherHasBeenThere)
{
    const KeyId key = makeKey(6000, "1234");
    commit([&](WritableStore&) { set(key, "v0", std::string(100'000, 'x')); });
    Store brief(m_path);
    Store patient(m_path);
    brief.setBrief(true);
    {
        const Store::Snapshot a(brief);
        const Store::Snapshot b(patient);
        const Key found = brief.key(key).value();
        EXPECT_THROW(brief.value(key, "v0"), TooLong);
        EXPECT_THROW(brief.valueAt(found, 0), TooLong);
        EXPECT_EQ(patient.value(key, "v0")->length, 100'000u);
        EXPECT_THROW(brief.valueAt(found, 3000), TooLong);
        EXPECT_STREQ(patient.valueAt(found, 3500)->pName, "v3500");
        for (const UINT32 index : {1200u, 2600u, 3400u, 3600u, 4500u})
            EXPECT_EQ(brief.valueAt(found, index)->pName, "v" + std::to_string(index));
        EXPECT_EQ(brief.longest(found).valueData, 100'000u);
    }
    commit([&](WritableStore&) { set(key, "v0", "12345"); }); // the longest has gone
    const Key found = brief.key(key).value();
    EXPECT_THROW(brief.longest(found), TooLong);
    EXPECT_EQ(patient.longest(found).valueData, 5u);
}

TEST_F(StoreTest, AKeyOfManyValuesGoesAtOnceAndIsClearedInPieces)
{
    commit([&](WritableStore& store) { store.addKey(UsersId, "40001", Ann); });
    const Usage before = m_pWriter->usage(Ann);
    const KeyId key = makeKey(2500, "data", Ann);
    Store reader(m_path);
    EXPECT_TRUE(reader.value(key, "v2400"));
    commit([&](WritableStore& store) { store.removeKey(store.key(key).value()); });
    EXPECT_FALSE(reader.value(key, "v2400"));
    EXPECT_EQ(checkStore(m_path).values, 0);
    expectSound();
    commit([&](WritableStore& store) { EXPECT_TRUE(store.clearSome(1000)); });
    m_pWriter.emplace(m_path); // a restart
    EXPECT_FALSE(reader.value(key, "v2400"));
    ASSERT_TRUE(m_pWriter->hasToClear());
    int pieces = 0;
    for (; m_pWriter->hasToClear() && pieces < 10; ++pieces)
        commit([](WritableStore& store) { store.clearSome(1000); });
    EXPECT_EQ(pieces, 2);
    expectSound();
    EXPECT_EQ(m_pWriter->usage(Ann), (Usage{before.keys, before.bytes, before.numbers + 1}));
}

TEST_F(StoreTest, DamageIsAFailureThatNamesTheKey)
{
    const KeyId key = makeKey(3);
    commit([&](WritableStore& store) { store.addKey(key, "sub", MachineOwner); });
    m_pWriter.reset();
    const std::string sound = m_folder / "sound";
    std::filesystem::copy(m_path, sound);
    const std::string schema = "PRAGMA writable_schema = 1; UPDATE sqlite_schema SET ";
    const std::string loose = schema + "sql = replace(sql, 'STRICT', '') WHERE name IN ('regkey', 'regvalue')";
    const struct {
        std::string first, then;
        const char* pNamed;
    } damages[] = {
        {"CREATE TABLE t AS SELECT id FROM regkey",
         schema + "rootpage = (SELECT rootpage FROM sqlite_schema WHERE name = 't') WHERE name = 'regkey'", ""},
        {"", "UPDATE regkey SET value_count = 9 WHERE id = 16", "key 16"},
        {"", "UPDATE regkey SET value_count = -1 WHERE id = 16", "key 16"},
        {loose, "UPDATE regkey SET subkey_count = 'x' WHERE id = 16", "key 16"},
        {loose, "UPDATE regvalue SET data = 'text', type = -1", "key 16"},
    };
    const HANDLE handle = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(key));
    const std::string requests[] = {
        encoded(OpenKeyReqMsg(HKEY_LOCAL_MACHINE, "key1\\sub", 0, 0)),
        encoded(QueryValueReqMsg(handle, "v1")),
        encoded(EnumKeyReqMsg(handle, 0)),
        encoded(EnumValueReqMsg(handle, 5)),
    };
    for (const auto& damage : damages) {
        SCOPED_TRACE(damage.then);
        std::filesystem::copy(sound, m_path, std::filesystem::copy_options::overwrite_existing);
        fromOutside(damage.first);
        fromOutside(damage.then);
        Store store(m_path);
        int failures = 0;
        for (const std::string& request : requests)
            try {
                findOperation(request)->serve({store, nullptr, {0, 1}}, request);
            } catch (const SQLite::Exception& failure) {
                EXPECT_EQ(statusOf(failure), OBREG_STATUS_STORE_FAILED);
                EXPECT_NE(std::string(failure.what()).find(damage.pNamed), std::string::npos) << failure.what();
                ++failures;
            }
        EXPECT_GT(failures, 0);
    }
}

TEST_F(StoreTest, AnEarlierFormatIsCopiedAndUpgraded)
{
    commit([&](WritableStore& store) { store.addKey(UsersId, "40001", Ann); });
    const KeyId key = makeKey(50, "data", Ann);
    commit([&](WritableStore& store) { store.removeValue(key, "v1"); });
    const Usage usage = m_pWriter->usage(Ann);
    std::string toFormat1 = "DROP TABLE usage; DROP TABLE leftover;";
    for (const std::string column : {"subkey_name", "value_name", "value_data"})
        for (const char* pEnd : {"_max;", "_ties;"})
            toFormat1 += "ALTER TABLE regkey DROP COLUMN " + column + pEnd;
    const struct {
        const char *pCopy, *pFormat;
        std::string down;
    } rows[] = {{"store.format-1", "1", toFormat1}, {"store.format-1.2", "1", toFormat1}, {"store.format-2", "2", ""}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.pCopy);
        m_pWriter.reset();
        fromOutside(row.down + "DROP TABLE change; PRAGMA user_version = " + row.pFormat);
        EXPECT_EQ(checkStore(m_path).values, 49);
        m_pWriter.emplace(m_path);
        EXPECT_EQ(checkStore(m_folder / row.pCopy).summary(), checkStore(m_path).summary());
        expectSound();
        EXPECT_EQ(m_pWriter->usage(Ann), usage);
    }
}

/// A change as text: who, what, and what was there before.
std::string told(const Change& change)
{
    constexpr const char* Kinds[] = {"", "made", "deleted", "set", "unset"};
    std::string text = std::to_string(change.author.uid) + ' ' + Kinds[static_cast<int>(change.kind)] + ' ' +
                       std::to_string(change.key) + '/' + std::to_string(change.parent) + ' ' + change.name;
    if (change.former)
        text += " was " + std::to_string(change.former->type) + ' ' + std::to_string(change.former->length) + ' ' +
                change.former->data.value_or("?");
    return text;
}

TEST_F(StoreTest, TheJournalTellsEachChangeOnceWithWhatWasThere)
{
    const auto journal = [&](int64_t after) {
        SQLite::Database database(m_path);
        std::vector<std::string> lines;
        JournalReader(database).since(after, [&](const Change& change) {
            EXPECT_EQ(change.number, after + static_cast<int64_t>(lines.size()) + 1);
            lines.push_back(told(change));
            return true;
        });
        return lines;
    };
    m_pWriter->journal().setSize(64 << 20);
    KeyId key = 0;
    commit([&](WritableStore& store) {
        store.journal().setAuthor({Ann, 1});
        key = store.addKey(MachineId, "K", MachineOwner);
        store.setValue(key, "v", REG_SZ, "one", 3);
        store.setValue(key, "v", REG_BINARY, "", 0);
        store.setValue(key, "w", REG_SZ, "two", 3);
        store.removeValue(key, "V");
    });
    m_pWriter->begin();
    m_pWriter->setValue(key, "undone", REG_SZ, "", 0);
    m_pWriter->rollback();
    commit([&](WritableStore& store) { store.removeKey(*store.key(key)); });
    const std::string id = std::to_string(key);
    const std::vector<std::string> expected = {"40001 made " + id + "/2 K",
                                               "40001 set " + id + "/0 v",
                                               "40001 set " + id + "/0 v was 1 3 one",
                                               "40001 set " + id + "/0 w",
                                               "40001 unset " + id + "/0 v was 3 0 ",
                                               "40001 unset " + id + "/0 w was 1 3 two",
                                               "40001 deleted " + id + "/2 K"};
    EXPECT_EQ(journal(0), expected);

    m_pWriter->journal().setSize(0); // no data, and only so many
    const KeyId other = makeKey(1, "data");
    commit([&](WritableStore& store) {
        for (int i = 0; i < 30000; ++i)
            store.setValue(other, "v0", REG_SZ, "new", 3);
    });
    while (m_pWriter->hasToClear())
        commit([&](WritableStore& store) { store.clearSome(2000); });
    SQLite::Database database(m_path);
    JournalReader reader(database);
    EXPECT_EQ(reader.last(), 30000 + static_cast<int64_t>(expected.size()) + 2);
    EXPECT_NEAR(static_cast<double>(reader.last() - reader.first()), (1 << 20) / 50.0, 2000);
    EXPECT_EQ(journal(reader.last() - 1).at(0), "40001 set " + std::to_string(other) + "/0 v0 was 1 3 ?");
    const int64_t last = reader.last();
    m_pWriter.emplace(m_path);
    EXPECT_EQ(m_pWriter->journal().last(), last) << "numbers go on";
}

TEST_F(StoreTest, QuotasRefuseGrowthOfAUsersTree)
{
    HANDLE tree;
    m_pWriter->begin();
    const auto session = [&](uid_t uid) { return Session{*m_pWriter, &*m_pWriter, {uid, 1}}; };
    ASSERT_EQ(openKey(session(Ann), OpenKeyReqMsg(HKEY_CURRENT_USER, "", 0, 0), tree), 0u);
    m_pWriter->setQuota({.bytes = 5 + 5 + 100, .keys = 4});
    const auto make = [&](const char* pPath, uid_t uid) {
        HANDLE made;
        UINT32 disposition;
        return createKey(session(uid), CreateKeyReqMsg(tree, pPath, 0, 0), made, disposition);
    };
    const auto set = [&](const char* pName, UINT32 length, uid_t uid) {
        return setValue(session(uid), SetValueReqMsg(tree, pName, REG_BINARY, std::string(length, 'x').data(), length));
    };
    EXPECT_EQ(make("a\\b\\c\\d", Ann), OBREG_STATUS_QUOTA_EXCEEDED);
    EXPECT_EQ(make("a\\bcde", Ann), 0u);
    EXPECT_EQ(make("a\\b\\c", Ann), OBREG_STATUS_QUOTA_EXCEEDED);
    EXPECT_EQ(set("v", 100, Ann), OBREG_STATUS_QUOTA_EXCEEDED);
    EXPECT_EQ(set("v", 99, Ann), 0u);
    EXPECT_EQ(set("v", 99, Ann), 0u) << "keeps the size";
    EXPECT_EQ(set("w", 0, Ann), OBREG_STATUS_QUOTA_EXCEEDED);
    EXPECT_EQ(set("w", 10, 0), 0u) << "root is not refused";
    EXPECT_EQ(set("v", 98, Ann), 0u) << "shrinks, though root's value counts";
    EXPECT_EQ(set("v", 99, Ann), OBREG_STATUS_QUOTA_EXCEEDED);
    EXPECT_EQ(make("r\\o\\o\\t", 0), 0u);
    EXPECT_EQ(m_pWriter->usage(Ann), (Usage{7, 5 + 5 + 99 + 11 + 4, 7}));
    m_pWriter->commit();
    expectSound();

    // A third of the numbers for one user, the next has a third of the rest.
    EXPECT_TRUE(leavesNumbers({0, 0, 29}, 1, 61));
    EXPECT_FALSE(leavesNumbers({0, 0, 30}, 1, 60));
}

} // namespace
