// The daemon's store: places in enumerations against what SQLite counts, what is too long for a brief store, damage,
// backups, upgrade, compaction, and what is cleared away in pieces.
#include <atomic>
#include <deque>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <sqlite3.h>
#include <thread>

#include "daemon/files.h"
#include "daemon/handlers.h"
#include "daemon/store/compaction.h"
#include "obreg/roots.h"
#include "support/encoded.h"
#include "support/scale.h"
#include "support/with_store.h"

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

using StoreTest = WithStore;

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

// What a check, and whoever reads, find of damage.
TEST_F(StoreTest, EachKindOfDamageIsFound)
{
    const KeyId key = makeKey(3);
    commit([&](WritableStore& store) { store.addKey(key, "sub", MachineOwner); });
    m_pWriter.reset();
    const std::string sound = m_folder / "sound";
    const std::string backup = m_folder / "backup";
    std::filesystem::copy(m_path, sound);
    const std::string schema = "PRAGMA writable_schema = 1; UPDATE sqlite_schema SET ";
    const std::string loose = schema + "sql = replace(sql, 'STRICT', '') WHERE name IN ('regkey', 'regvalue')";
    const struct {
        std::string first, then;
        const char* pProblem;           ///< that a check finds; null: none
        const char* pFailure = nullptr; ///< that a reader meets; null: not asked
    } damages[] = {
        {"", "UPDATE regkey SET value_count = 9 WHERE id = 16", "key 16 says that it has 9 values, but has 3",
         "key 16"},
        {"", "UPDATE regkey SET value_count = -1 WHERE id = 16", "key 16", "key 16"},
        {loose, "UPDATE regkey SET subkey_count = 'x' WHERE id = 16", "", "key 16"},
        {loose, "UPDATE regvalue SET data = 'text', type = -1", nullptr, "key 16"},
        {"CREATE TABLE t AS SELECT id FROM regkey",
         schema + "rootpage = (SELECT rootpage FROM sqlite_schema WHERE name = 't') WHERE name = 'regkey'", "", ""},
        {"", schema + "rootpage = 2 WHERE name = 'regvalue_name'", ""},
        {"", "UPDATE regkey SET subkey_count = 9 WHERE id = 2", "key 2 says that it has 9 sub-keys, but has 1"},
        {"", "UPDATE regkey SET value_data_max = 5 WHERE id = 16",
         "key 16 says that its longest value has 5 bytes (3 times), but that has 4 (3 times)"},
        {"", "UPDATE usage SET bytes = bytes + 1", "owner -1 is said to take 2 keys of 2 made and 26 bytes, but takes"},
        {"", "INSERT INTO leftover VALUES (16, 0)", "key 16 is to be cleared away, but is there"},
        {"", "UPDATE regkey SET parent = 16 WHERE id = 16", "key 16 hangs on no root"},
        {"", "UPDATE regvalue SET key = 77 WHERE key = 16", "belongs to key 77, which is not there"},
        {"", "UPDATE sqlite_sequence SET seq = 16", "key number 17 could be given out twice"},
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
        expectSound();
        fromOutside(damage.first);
        fromOutside(damage.then);
        std::string problems;
        try {
            for (const std::string& problem : checkStore(m_path).problems)
                problems += problem + '\n';
        } catch (const std::runtime_error& failure) {
            problems = failure.what(); // too broken to be asked
        }
        EXPECT_EQ(problems.empty(), damage.pProblem == nullptr) << problems;
        if (damage.pProblem != nullptr) {
            EXPECT_NE(problems.find(damage.pProblem), std::string::npos) << problems;
            EXPECT_THROW(backUpStore(m_path, backup), std::runtime_error);
            EXPECT_FALSE(std::filesystem::exists(backup));
        }
        if (damage.pFailure == nullptr)
            continue;
        Store store(m_path);
        int failures = 0;
        for (const std::string& request : requests)
            try {
                findOperation(request)->serve({store, nullptr, {0, 1}}, request);
            } catch (const SQLite::Exception& failure) {
                EXPECT_EQ(statusOf(failure), OBREG_STATUS_STORE_FAILED);
                EXPECT_NE(std::string(failure.what()).find(damage.pFailure), std::string::npos) << failure.what();
                ++failures;
            }
        EXPECT_GT(failures, 0);
    }
    EXPECT_THROW(checkStore(m_folder / "nothing"), std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(m_folder / "nothing")) << "a check makes no store";
}

TEST_F(StoreTest, ABackupIsOneStateOfAStoreThatIsBeingWritten)
{
    makeKey(10);
    std::atomic<bool> over = false;
    std::thread writer([&] {
        while (!over)
            makeKey(10);
    });
    for (int i = 0; i < 10; ++i) {
        const std::string backup = m_folder / "backup" + std::to_string(i);
        const StoreReport report = backUpStore(m_path, backup);
        EXPECT_EQ(report.values, 10 * (report.keys - 3)) << "a transaction was cut in two";
        const StoreReport again = checkStore(backup);
        EXPECT_EQ(again.problems, std::vector<std::string>());
        EXPECT_EQ(again.summary(), report.summary());
        EXPECT_EQ(std::filesystem::status(backup).permissions(), std::filesystem::perms(0600));
    }
    over = true;
    writer.join();
    EXPECT_THROW(backUpStore(m_path, m_folder / "backup0"), std::runtime_error) << "there is one already";
    for (const auto& entry : std::filesystem::directory_iterator(m_folder / ""))
        EXPECT_EQ(entry.path().extension(), "") << "left over";
}

TEST_F(StoreTest, CompactingGivesTheDiskBackWhatDeletionsLeft)
{
    for (const char* pMadeFor : {"NONE", "INCREMENTAL"}) {
        m_pWriter.reset();
        fromOutside(std::string("PRAGMA auto_vacuum = ") + pMadeFor + "; VACUUM"); // as an older daemon made it, or not
        m_pWriter.emplace(m_path);
        const KeyId large = makeKey(900, std::string(15000, 'x'));
        const KeyId kept = makeKey(20, std::string(15000, 'y'));
        commit([&](WritableStore& store) { store.removeKey(store.key(large).value()); });
        m_pWriter->restartLog();
        if (*pMadeFor == 'N') {
            const StoreLock daemons(m_path);
            EXPECT_THROW(compactStore(m_path), std::runtime_error) << "it is rewritten as a whole";
        }
        if (*pMadeFor == 'N')
            m_pWriter.reset();
        const Compaction done = compactStore(m_path);
        EXPECT_TRUE(done.isInFile);
        EXPECT_GT(done.before, 13'000'000);
        EXPECT_LT(done.after, 1'000'000);
        EXPECT_EQ(done.after, std::filesystem::file_size(m_path));
        if (!m_pWriter)
            m_pWriter.emplace(m_path);
        makeKey(10);
        expectSound();
        EXPECT_TRUE(m_pWriter->hasValue(kept, "v19"));
        commit([&](WritableStore& store) { store.removeKey(store.key(kept).value()); });
        EXPECT_LT(compactStore(m_path).after, done.after) << "beside a writer, whatever it was made for";
    }
    fromOutside("PRAGMA application_id = 0");
    EXPECT_THROW(compactStore(m_path), std::runtime_error) << "it is not ours";
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
        fromOutside(
            row.down +
            "DROP TABLE change; DROP TABLE token; DROP INDEX regvalue_secret; PRAGMA user_version = " + row.pFormat);
        EXPECT_EQ(checkStore(m_path).values, 49);
        m_pWriter.emplace(m_path);
        EXPECT_EQ(checkStore(m_folder / row.pCopy).summary(), checkStore(m_path).summary());
        expectSound();
        EXPECT_EQ(m_pWriter->usage(Ann), usage);
    }
}

TEST_F(StoreTest, WhatWasSecretIsNowhereInTheFile)
{
    using Act = std::function<void(KeyId top, KeyId sub)>;
    const auto mark = [&](KeyId key) { set(key, OBREG_SECRET_VALUE, "x"); };
    const auto replace = [&](KeyId key) { set(key, "v", "new"); };
    const auto remove = [&](KeyId key) { m_pWriter->removeKey(*m_pWriter->key(key)); };
    const auto undone = [&](KeyId key) { // a part of a transaction
        const WritableStore::Savepoint part(*m_pWriter);
        mark(key);
    };
    const auto data = [](const char* pName, bool isLong) { // one that takes pages of its own
        const std::string text = (isLong ? "long, " : "short, ") + std::string(pName) + '|';
        return isLong ? text + std::string(20000, '.') + text : text;
    };
    constexpr const char* pReused = "in place of an undone key";
    const auto reuse = [&](KeyId top, KeyId sub) {
        mark(top);
        {
            const WritableStore::Savepoint part(*m_pWriter);
            set(m_pWriter->addKey(MachineId, "Undone", MachineOwner), "v", "known not to be secret");
        }
        const KeyId key = m_pWriter->addKey(top, "Another", MachineOwner);
        set(key, "v", data(pReused, false));
        replace(key);
        replace(sub);
    };
    const auto clear = [&] {
        while (m_pWriter->hasToClear())
            m_pWriter->clearSome(1000);
    };
    const struct {
        const char* pName; ///< and the key's
        bool kept;
        Act before, act;
    } rows[] = {
        {"of a pattern, replaced", false, {}, [&](KeyId, KeyId sub) { replace(sub); }},
        {"of a pattern, deleted", false, {}, [&](KeyId, KeyId sub) { m_pWriter->removeValue(sub, "v"); }},
        {"of a pattern, with its key", false, {}, [&](KeyId, KeyId sub) { remove(sub); }},
        {"below a mark", false, [&](KeyId top, KeyId) { mark(top); }, [&](KeyId, KeyId sub) { replace(sub); }},
        {"gone with its mark", false, [&](KeyId, KeyId sub) { mark(sub); }, [&](KeyId, KeyId sub) { remove(sub); }},
        {"marked later", false, [&](KeyId, KeyId sub) { replace(sub); }, [&](KeyId top, KeyId) { mark(top); }},
        {"gone, and marked later", false, [&](KeyId, KeyId sub) { remove(sub); }, [&](KeyId top, KeyId) { mark(top); }},
        {"not secret", true, {}, [&](KeyId, KeyId sub) { replace(sub); }},
        {"unmarked a moment ago", false, [&](KeyId top, KeyId) { mark(top); },
         [&](KeyId top, KeyId sub) {
             m_pWriter->removeValue(top, OBREG_SECRET_VALUE);
             replace(sub);
         }},
        {"marked beside what was undone", false,
         [&](KeyId, KeyId sub) {
             replace(sub);
             clear();
         },
         [&](KeyId top, KeyId sub) {
             mark(top);
             undone(sub);
         }},
        {pReused, false, {}, reuse},
        {"marked in what was undone", true, [&](KeyId, KeyId sub) { undone(sub); },
         [&](KeyId, KeyId sub) { replace(sub); }},
    };
    m_pWriter->journal().setSize(64 << 20);
    m_pWriter->setSecret({secretPattern("HKLM/of a *").value()});
    for (const bool isLong : {false, true})
        for (const auto& row : rows) {
            KeyId top = 0;
            KeyId sub = 0;
            commit([&](WritableStore& store) {
                top = store.addKey(MachineId, row.pName + std::string(isLong ? " " : ""), MachineOwner);
                sub = store.addKey(top, "Sub", MachineOwner);
                set(sub, "v", data(row.pName, isLong));
            });
            for (const Act& act : {row.before, row.act})
                if (act)
                    commit([&](WritableStore&) { act(top, sub); });
        }
    while (m_pWriter->hasToClear())
        commit([](WritableStore& store) { store.clearSome(7); });
    m_pWriter.reset(); // which moves the log into the file
    std::ifstream file(m_path, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    for (const bool isLong : {false, true})
        for (const auto& row : rows) {
            const std::string text = data(row.pName, isLong);
            const std::string end = text.substr(text.size() - std::min<size_t>(text.size(), 30));
            EXPECT_EQ(bytes.find(text.substr(0, 30)) != std::string::npos || bytes.find(end) != std::string::npos,
                      row.kept)
                << text.substr(0, 30);
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
        const auto all = [](auto...) { return true; };
        JournalReader(database).read({after, INT64_MAX}, all, [&](const Change& change) {
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

} // namespace
