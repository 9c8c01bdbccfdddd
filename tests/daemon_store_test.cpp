// The daemon's store: places in enumerations against what SQLite counts, facts kept beside the entries against those
// worked out anew, what is too long for a brief store, damage, upgrade, quotas, and the log's tidying.
#include <atomic>
#include <deque>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <sqlite3.h>
#include <thread>
#include <unistd.h>

#include "daemon/handlers.h"
#include "daemon/store/clock.h"
#include "daemon/store/maintenance.h"
#include "daemon/store/tidier.h"
#include "obreg/roots.h"
#include "support/scale.h"

using namespace obregd;

namespace {

constexpr uid_t Ann = 40001;

HANDLE handle(KeyId id) { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(id)); }

/// A reader that knows what SQLite itself finds in its state.
class CheckedStore : public Store {
public:
    using Store::Store;

    /// Empty when there is no such value.
    std::string counted(KeyId key, UINT32 index)
    {
        SQLite::Statement query(m_database, "SELECT name FROM regvalue WHERE key = ? ORDER BY id LIMIT 1 OFFSET ?");
        query.bind(1, key);
        query.bind(2, index);
        return query.executeStep() ? query.getColumn(0).getString() : "";
    }

    void expectRight(KeyId id, UINT32 index)
    {
        const Key found = key(id).value();
        const auto entry = valueAt(found, index);
        const std::string name = entry ? entry->pName : "";
        ASSERT_EQ(name, counted(id, index)) << "at " << index << " of " << found.values;
    }
};

class StoreTest : public testing::Test {
protected:
    StoreTest() { m_pWriter.emplace(m_path); }
    ~StoreTest() override
    {
        m_pWriter.reset();
        std::filesystem::remove_all(m_folder);
    }

    template <class Work>
    void commit(Work work)
    {
        m_pWriter->begin();
        work(*m_pWriter);
        m_pWriter->commit();
    }

    KeyId makeKey(int values, const std::string& data = "data", Owner owner = MachineOwner)
    {
        KeyId key = 0;
        commit([&](WritableStore& store) {
            key = store.addKey(MachineId, "key" + std::to_string(++m_keys), owner);
            for (int i = 0; i < values; ++i)
                store.setValue(key, "v" + std::to_string(i), 1, data.data(), static_cast<UINT32>(data.size()));
        });
        return key;
    }

    void fromOutside(const std::string& sql) { SQLite::Database(m_path, SQLite::OPEN_READWRITE).exec(sql); }
    void expectSound() { EXPECT_EQ(checkStore(m_path).problems, std::vector<std::string>()); }
    Session writing(uid_t uid = 0) { return {*m_pWriter, &*m_pWriter, {uid, 1}}; }

    std::string m_folder = testing::TempDir() + "/obregd-store-XXXXXX";
    const bool m_made = mkdtemp(m_folder.data()) != nullptr;
    const std::string m_path = m_folder + "/store";
    std::optional<WritableStore> m_pWriter;
    int m_keys = 0;
};

/// Changes values at random; their names are v0, v1, ...
class Changes {
public:
    Changes(KeyId key, int values) : m_key(key), m_next(values) {}

    template <class Random>
    void some(WritableStore& store, Random& random)
    {
        for (auto i = random() % 6; i != 0; --i) {
            const std::string data(random() % 4 == 0 ? random() % 20 : 4, 'x');
            const bool adds = random() % 4 == 0;
            const std::string name = "v" + std::to_string(adds ? m_next++ : static_cast<int>(random()) % m_next);
            if (adds || random() % 2 == 0)
                store.setValue(m_key, name, 1, data.data(), static_cast<UINT32>(data.size()));
            else
                store.removeValue(m_key, name);
        }
    }

private:
    const KeyId m_key;
    int m_next;
};

TEST_F(StoreTest, PositionsAreRightInStatesOfEveryAge)
{
    constexpr int values = 3000;
    const KeyId key = makeKey(values);
    struct Reader {
        explicit Reader(const std::string& path) : store(path) {}
        CheckedStore store;
        std::optional<Store::Snapshot> state{};
        UINT32 at = 0;
    };
    std::deque<Reader> readers;
    for (int i = 0; i < 5; ++i)
        readers.emplace_back(m_path);
    std::minstd_rand random(11);
    Changes changes(key, values);
    for (int step = 0; step < scaled(6000) && !HasFatalFailure(); ++step) {
        if (random() % 6 == 0) {
            m_pWriter->begin();
            changes.some(*m_pWriter, random);
            const Key own = m_pWriter->key(key).value();
            m_pWriter->valueAt(own, static_cast<UINT32>(random() % own.values)); // leaves its trace
            random() % 4 == 0 ? m_pWriter->rollback() : m_pWriter->commit();
        }
        Reader& reader = readers[random() % readers.size()];
        if (random() % 8 == 0)
            reader.state.reset();
        if (!reader.state)
            reader.state.emplace(reader.store);
        reader.at = random() % 10 == 0 ? static_cast<UINT32>(random() % values) : reader.at + 1;
        reader.store.expectRight(key, reader.at);
    }
    readers.clear();
    expectSound();
}

TEST_F(StoreTest, PositionsAreRightWhenTheLastEntriesAreReplaced)
{
    const KeyId key = makeKey(3000);
    CheckedStore reader(m_path);
    const auto look = [&](UINT32 index) {
        const Store::Snapshot state(reader);
        reader.expectRight(key, index);
    };
    look(2980);
    commit([&](WritableStore& store) {
        for (int i = 2975; i < 3000; ++i)
            store.removeValue(key, "v" + std::to_string(i));
    });
    commit([&](WritableStore& store) {
        for (int i = 0; i < 25; ++i)
            store.setValue(key, "new" + std::to_string(i), 1, "", 0);
    });
    look(2978);
}

TEST_F(StoreTest, ReadersOnThreadsFindWhatIsThere)
{
    constexpr int values = 3000;
    const KeyId key = makeKey(values);
    std::atomic<bool> over = false;
    std::vector<std::thread> readers;
    for (unsigned i = 0; i < 3; ++i)
        readers.emplace_back([&, i] {
            CheckedStore store(m_path);
            std::minstd_rand random(i + 1);
            for (UINT32 at = i * 900; !over && !HasFatalFailure(); at = (at + 1) % values) {
                const Store::Snapshot state(store);
                for (auto reads = random() % 4; reads != 0; --reads)
                    store.expectRight(key, at++);
            }
        });
    std::minstd_rand random(5);
    Changes changes(key, values);
    for (int i = 0; i < scaled(400); ++i) {
        m_pWriter->begin();
        changes.some(*m_pWriter, random);
        i % 20 == 0 ? m_pWriter->rollback() : m_pWriter->commit();
    }
    over = true;
    for (std::thread& reader : readers)
        reader.join();
    expectSound();
}

TEST_F(StoreTest, WhatIsTooLongForABriefStoreIsShortOnceAnotherHasBeenThere)
{
    const KeyId key = makeKey(6000, "1234");
    commit([&](WritableStore& store) { store.setValue(key, "v0", 1, std::string(100'000, 'x').data(), 100'000); });
    Store brief(m_path);
    Store patient(m_path);
    brief.setBrief(true);
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

TEST_F(StoreTest, AGreatestLengthThatWentIsWorkedOutOnce)
{
    const KeyId key = makeKey(3000, "1234");
    commit([&](WritableStore& store) {
        store.setValue(key, "v7", 1, "12345678", 8);
        store.setValue(key, "v7", 1, "1", 1);
    });
    expectSound();
    Store brief(m_path);
    brief.setBrief(true);
    EXPECT_THROW(brief.longest(brief.key(key).value()), TooLong);
    EXPECT_EQ(Store(m_path).longest(brief.key(key).value()).valueData, 4u);
    commit([&](WritableStore& store) { store.setValue(key, "v7", 1, "12345678", 8); });
    EXPECT_EQ(brief.longest(brief.key(key).value()).valueData, 8u) << "known again";
}

TEST_F(StoreTest, AKeyOfManyValuesGoesAtOnceAndIsClearedInPieces)
{
    commit([&](WritableStore& store) { store.addKey(UsersId, "40001", Ann); });
    const Usage before = m_pWriter->usage(Ann);
    const KeyId key = makeKey(2500, "data", Ann);
    Store reader(m_path);
    reader.keepState(true);
    const auto valueSeen = [&] {
        reader.refresh();
        const Store::Snapshot state(reader);
        return reader.value(key, "v2400").has_value();
    };
    EXPECT_TRUE(valueSeen());
    commit([&](WritableStore& store) { store.removeKey(store.key(key).value()); });
    EXPECT_FALSE(valueSeen());
    EXPECT_EQ(checkStore(m_path).values, 0);
    expectSound();
    commit([&](WritableStore& store) { EXPECT_TRUE(store.clearSome(1000)); });
    m_pWriter.emplace(m_path); // a restart
    EXPECT_FALSE(valueSeen());
    ASSERT_TRUE(m_pWriter->hasToClear());
    int pieces = 0;
    for (; m_pWriter->hasToClear() && pieces < 10; ++pieces)
        commit([](WritableStore& store) { store.clearSome(1000); });
    EXPECT_EQ(pieces, 2);
    expectSound();
    EXPECT_EQ(m_pWriter->usage(Ann).keys, before.keys);
    EXPECT_EQ(m_pWriter->usage(Ann).bytes, before.bytes);
    EXPECT_EQ(m_pWriter->usage(Ann).numbers, before.numbers + 1);
    reader.refresh();
    EXPECT_EQ(reader.usages(), (std::map<Owner, Usage>{{Ann, m_pWriter->usage(Ann)}}));
}

TEST_F(StoreTest, DamageIsAFailureThatNamesTheKey)
{
    const KeyId key = makeKey(3);
    commit([&](WritableStore& store) { store.addKey(key, "sub", MachineOwner); });
    m_pWriter.reset();
    const std::string sound = m_folder + "/sound";
    std::filesystem::copy(m_path, sound);
    const auto schema = [](const std::string& change) {
        return "PRAGMA writable_schema = 1; UPDATE sqlite_schema SET " + change;
    };
    const std::string noRow = "CREATE TABLE t AS SELECT id FROM regkey; " +
                              schema("rootpage = (SELECT rootpage FROM sqlite_schema WHERE name = 't') "
                                     "WHERE name = 'regkey'");
    const std::string loose = schema("sql = replace(sql, 'STRICT', '') WHERE name IN ('regkey', 'regvalue')") + ";";
    const std::vector<std::string> damages[] = {
        {noRow},
        {"UPDATE regkey SET value_count = 9 WHERE id = 16"},
        {"UPDATE regkey SET value_count = -1 WHERE id = 16"},
        {loose, "UPDATE regkey SET subkey_count = 'x' WHERE id = 16"},
        {loose, "UPDATE regvalue SET data = 'text', type = -1"},
    };
    for (const auto& damage : damages) {
        SCOPED_TRACE(damage.back());
        std::filesystem::copy(sound, m_path, std::filesystem::copy_options::overwrite_existing);
        for (const std::string& step : damage)
            fromOutside(step);
        Store store(m_path);
        const Session session{store, nullptr, {0, 1}};
        int failures = 0;
        const auto attempt = [&](auto call) {
            try {
                call();
            } catch (const SQLite::Exception& failure) {
                EXPECT_EQ(statusOf(failure), OBREG_STATUS_STORE_FAILED);
                EXPECT_EQ(failure.getErrorCode(), SQLITE_CORRUPT);
                EXPECT_NE(std::string(failure.what()).find(noRow == damage.back() ? "" : "key 16"), std::string::npos)
                    << failure.what();
                ++failures;
            }
        };
        HANDLE opened;
        const char* pText;
        UINT32 type, length;
        UINT64 written;
        attempt([&] { openKey(session, OpenKeyReqMsg(HKEY_LOCAL_MACHINE, "key1\\sub", 0, 0), opened); });
        attempt([&] { openKey(session, OpenKeyReqMsg(HKEY_LOCAL_MACHINE, "key1", 0, 0), opened); });
        attempt([&] { queryValue(session, QueryValueReqMsg(handle(key), "v1"), type, pText, length); });
        attempt([&] { enumKey(session, EnumKeyReqMsg(handle(key), 0), pText, written); });
        attempt([&] { enumValue(session, EnumValueReqMsg(handle(key), 5), pText, type, pText, length); });
        EXPECT_GT(failures, 0);
    }
}

TEST_F(StoreTest, ChangesFromOutsideAreSeen)
{
    const KeyId key = makeKey(3000);
    CheckedStore reader(m_path);
    reader.keepState(true);
    const auto look = [&](UINT32 index) {
        const Store::Snapshot state(reader);
        reader.expectRight(key, index);
    };
    for (UINT32 index = 1000; index < 1100; ++index)
        look(index);
    fromOutside("DELETE FROM regvalue WHERE name = 'v5'; UPDATE regkey SET value_count = value_count - 1 WHERE id = " +
                std::to_string(key)); // and the last write time stays as it is
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    look(1100);
    commit([&](WritableStore& store) { store.setValue(key, "v2999", 1, "", 0); }); // its own next row was not taken
    reader.refresh();
    look(1101);
    EXPECT_EQ(reader.key(key)->values, 2999u);
}

TEST_F(StoreTest, FormatOneIsCopiedAndUpgraded)
{
    commit([&](WritableStore& store) { store.addKey(UsersId, "40001", Ann); });
    const KeyId key = makeKey(50, "data", Ann);
    commit([&](WritableStore& store) { store.removeValue(key, "v1"); });
    Usage usage = m_pWriter->usage(Ann);
    m_pWriter.reset();
    for (const char* pCopy : {"/store.format-1", "/store.format-1.2"}) {
        std::string sql = "DROP TABLE usage; DROP TABLE leftover; PRAGMA user_version = 1;";
        for (const char* pColumn : {"subkey_name", "value_name", "value_data"})
            sql += std::string("ALTER TABLE regkey DROP COLUMN ") + pColumn + "_max; ALTER TABLE regkey DROP COLUMN " +
                   pColumn + "_ties;";
        fromOutside(sql);
        EXPECT_EQ(checkStore(m_path).values, 49);
        m_pWriter.emplace(m_path);
        EXPECT_EQ(checkStore(m_folder + pCopy).summary(), checkStore(m_path).summary());
        expectSound();
        EXPECT_EQ(m_pWriter->usage(Ann), usage);
        EXPECT_EQ(m_pWriter->longest(m_pWriter->key(key).value()).valueName, 3u);
        m_pWriter.reset();
    }
}

TEST_F(StoreTest, CheckFindsWrongFacts)
{
    const KeyId key = makeKey(3);
    const struct {
        const char* pDamage;
        const char* pRepair;
        const char* pProblem;
    } cases[] = {
        {"UPDATE regkey SET value_data_max = 5 WHERE id = 16", "UPDATE regkey SET value_data_max = 4 WHERE id = 16",
         "key 16 says that its longest value has 5 bytes (3 times), but that has 4 (3 times)"},
        {"UPDATE regkey SET value_name_ties = 0 WHERE id = 16", "UPDATE regkey SET value_name_ties = 3 WHERE id = 16",
         "key 16 says that its longest value's name has 2 bytes (0 times), but that has 2 (3 times)"},
        {"UPDATE usage SET bytes = bytes + 1", "UPDATE usage SET bytes = bytes - 1",
         "owner -1 is said to take 1 keys of 1 made and 23 bytes, but takes 1 keys and 22 bytes"},
        {"INSERT INTO leftover VALUES (16, 0)", "DELETE FROM leftover", "key 16 is to be cleared away, but is there"},
    };
    ASSERT_EQ(key, 16);
    for (const auto& wrong : cases) {
        expectSound();
        fromOutside(wrong.pDamage);
        const auto problems = checkStore(m_path).problems;
        EXPECT_FALSE(problems.empty());
        EXPECT_EQ(problems.empty() ? "" : problems[0], wrong.pProblem);
        fromOutside(wrong.pRepair);
    }
}

TEST_F(StoreTest, QuotasRefuseGrowthOfAUsersTree)
{
    HANDLE tree;
    HANDLE made;
    UINT32 disposition;
    m_pWriter->begin();
    ASSERT_EQ(openKey(writing(Ann), OpenKeyReqMsg(HKEY_CURRENT_USER, "", 0, 0), tree), 0u);
    m_pWriter->setQuota({.bytes = 5 + 5 + 100, .keys = 4});
    const auto make = [&](const char* pPath, uid_t uid) {
        return createKey(writing(uid), CreateKeyReqMsg(tree, pPath, 0, 0), made, disposition);
    };
    const auto set = [&](const char* pName, UINT32 length, uid_t uid) {
        return setValue(writing(uid), SetValueReqMsg(tree, pName, REG_BINARY, std::string(length, 'x').data(), length));
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
    EXPECT_EQ(deleteValue(writing(Ann), DeleteValueReqMsg(tree, "w")), 0u);
    EXPECT_EQ(deleteValue(writing(Ann + 1), DeleteValueReqMsg(tree, "w")), OBREG_STATUS_NOT_FOUND);
    EXPECT_EQ(deleteValue(writing(Ann + 1), DeleteValueReqMsg(tree, "v")), OBREG_STATUS_ACCESS_DENIED);
    m_pWriter->commit();
    expectSound();

    // A third of the numbers for one user, the next has a third of the rest.
    EXPECT_TRUE(leavesNumbers({0, 0, 29}, 1, 61));
    EXPECT_FALSE(leavesNumbers({0, 0, 30}, 1, 60));
    EXPECT_TRUE(leavesNumbers({0, 0, 0}, 20, 60));
    EXPECT_FALSE(leavesNumbers({0, 0, 0}, 1, -1));
}

TEST_F(StoreTest, AKeyIsNoOlderThanItsParent)
{
    fromOutside("UPDATE regkey SET written = written * 2");
    const Key key = m_pWriter->key(makeKey(0)).value();
    EXPECT_GE(key.written, m_pWriter->key(key.parent)->written);
    EXPECT_GT(key.written, timeNow());
}

TEST_F(StoreTest, TheLogIsMovedWithoutWaitingForReaders)
{
    const KeyId key = makeKey(0);
    m_pWriter->setMaxLogPages(50);
    Store serving(m_path);
    serving.keepState(true);
    std::atomic<bool> keeps = true;
    std::atomic<int> asked = 0;
    Tidier tidier(m_path, *m_pWriter, [&](bool tidying) {
        keeps = !tidying;
        asked += tidying ? 1 : 0;
    });
    int most = 0;
    std::chrono::steady_clock::duration longest{};
    const auto write = [&](int count) {
        most = 0;
        for (int i = 0; i < count; ++i) {
            const auto begin = std::chrono::steady_clock::now();
            commit([&](WritableStore& store) { store.setValue(key, "v" + std::to_string(i), 1, "x", 1); });
            tidier.transactionOver();
            longest = std::max(longest, std::chrono::steady_clock::now() - begin);
            most = std::max(most, m_pWriter->logPages());
            serving.keepState(keeps);
            const Store::Snapshot state(serving);
            serving.key(key);
        }
    };
    write(1000);
    EXPECT_LT(most, 1000) << "of some 3000";
    EXPECT_GT(asked, 2);
    std::optional<Store> operating(m_path);
    operating->keepState(true);
    std::optional<Store::Snapshot> old(*operating);
    operating->key(key);
    write(300);
    EXPECT_GE(most, 300) << "nothing can be done while an old state is read";
    EXPECT_LT(longest, std::chrono::seconds(2)) << "but nobody waits for that";
    old.reset();
    operating.reset();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (m_pWriter->logIsLong() && std::chrono::steady_clock::now() < deadline)
        write(5);
    EXPECT_FALSE(m_pWriter->logIsLong());
}

} // namespace
