// What the daemon's operations do, in process: requests and responses as text, without a socket.
#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <unistd.h>

#include "daemon/govern/names.h"
#include "daemon/store/clock.h"
#include "obreg/roots.h"
#include "support/with_registry.h"

using namespace obregd;

namespace {

class RegistryTest : public WithRegistry {};

std::string levels(size_t count)
{
    std::string path = "k";
    for (size_t i = 1; i < count; ++i)
        path += "\\k";
    return path;
}

TEST_F(RegistryTest, PathsNameKeys)
{
    const struct {
        std::string path;
        REGSTATUS status;
        UINT32 disposition;
    } cases[] = {
        {"Soft\\Maker\\Thing", 0, REG_CREATED_NEW_KEY},
        {"SOFT\\maker\\tHING", 0, REG_OPENED_EXISTING_KEY},
        {"Soft\\Maker\\", 0, REG_OPENED_EXISTING_KEY},
        {"", 0, REG_OPENED_EXISTING_KEY},
        {"Soft\\\xC4\xE4 b.c", 0, REG_CREATED_NEW_KEY},
        {"Soft\\\xE4\xE4 b.c", 0, REG_CREATED_NEW_KEY}, // only ASCII has cases
        {std::string(MaxKeyNameLength, 'n'), 0, REG_CREATED_NEW_KEY},
        {levels(MaxPathLevels), 0, REG_CREATED_NEW_KEY},
        {"\\Soft", OBREG_STATUS_BAD_NAME, 0},
        {"\\", OBREG_STATUS_BAD_NAME, 0},
        {"Soft\\\\Maker", OBREG_STATUS_BAD_NAME, 0},
        {"Soft\\a\tb", OBREG_STATUS_BAD_NAME, 0},
        {std::string(MaxKeyNameLength + 1, 'n'), OBREG_STATUS_BAD_NAME, 0},
        {levels(MaxPathLevels + 1), OBREG_STATUS_BAD_NAME, 0},
    };
    for (const auto& c : cases) {
        const auto made = create(HKEY_LOCAL_MACHINE, c.path);
        EXPECT_EQ(made->m_status, c.status) << c.path;
        EXPECT_EQ(made->m_disposition, c.disposition) << c.path;
        const auto opened = open(HKEY_LOCAL_MACHINE, c.path);
        EXPECT_EQ(opened->m_status, c.status) << c.path;
        EXPECT_EQ(opened->m_keyHandle, made->m_keyHandle) << c.path;
        EXPECT_EQ(made->m_keyHandle != nullptr, c.status == 0) << c.path;
    }
    EXPECT_EQ(open(HKEY_LOCAL_MACHINE, "Soft\\None\\Thing")->m_status, OBREG_STATUS_NOT_FOUND);
    EXPECT_EQ(open(HKEY_LOCAL_MACHINE, "")->m_keyHandle, HKEY_LOCAL_MACHINE);
    EXPECT_EQ(keyAt(open(HKEY_LOCAL_MACHINE, "soft")->m_keyHandle, 0)->m_subKeyName, "Maker");
}

TEST_F(RegistryTest, NamesOfValuesHaveLimitsAndNoCase)
{
    const HANDLE key = make("K");
    const std::string longName(MaxValueNameLength, 'v');
    EXPECT_EQ(set(key, longName, "x"), 0u);
    EXPECT_EQ(set(key, longName + "v", "x"), OBREG_STATUS_BAD_NAME);
    EXPECT_EQ(set(key, "a\nb", "x"), OBREG_STATUS_BAD_NAME);
    EXPECT_EQ(set(key, "empty", "", REG_MULTI_SZ), 0u);
    EXPECT_EQ(query(key, "EMPTY")->m_valueType, REG_MULTI_SZ);
    EXPECT_EQ(set(key, "EMPTY", "replaced", REG_SZ), 0u);
    EXPECT_EQ(std::string(query(key, "empty")->m_pValueData, 8), "replaced");
    EXPECT_EQ(valueAt(key, 1)->m_valueName, "empty") << "keeps its first spelling and place";
    EXPECT_EQ(removeValue(key, "Empty"), 0u);
    EXPECT_EQ(removeValue(key, "empty"), OBREG_STATUS_NOT_FOUND);
}

TEST_F(RegistryTest, HandlesAreNeverReused)
{
    const HANDLE parent = make("P");
    const HANDLE child = make("P\\C");
    EXPECT_EQ(removeKey(parent, ""), OBREG_STATUS_BAD_NAME);
    set(child, "v", "gone with its key");
    EXPECT_EQ(removeKey(parent, "c"), 0u);
    const HANDLE again = make("P\\C");
    EXPECT_NE(again, child);
    EXPECT_EQ(query(again, "v")->m_status, OBREG_STATUS_NOT_FOUND);
    EXPECT_EQ(removeKey(HKEY_LOCAL_MACHINE, "P\\C"), 0u);
    m_pWriter.emplace(m_path); // a restart
    EXPECT_NE(make("P\\C"), again);

    const struct {
        HANDLE key;
        REGSTATUS status, closeStatus;
    } cases[] = {
        {parent, 0, 0},
        {child, OBREG_STATUS_KEY_DELETED, 0},
        {again, OBREG_STATUS_KEY_DELETED, 0},
        {nullptr, OBREG_STATUS_BAD_HANDLE, OBREG_STATUS_BAD_HANDLE},
        {reinterpret_cast<HANDLE>(LastKeyId), OBREG_STATUS_BAD_HANDLE, OBREG_STATUS_BAD_HANDLE},
        {HKEY_CURRENT_USER, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        const auto unlessRefused = [&](REGSTATUS otherwise) { return c.status == 0 ? otherwise : c.status; };
        EXPECT_EQ(close(c.key), c.closeStatus);
        EXPECT_EQ(open(c.key, "")->m_status, c.status);
        EXPECT_EQ(create(c.key, "")->m_status, c.status);
        EXPECT_EQ(info(c.key)->m_status, c.status);
        EXPECT_EQ(set(c.key, "v", "x"), c.status);
        EXPECT_EQ(removeValue(c.key, "v"), c.status);
        EXPECT_EQ(query(c.key, "v")->m_status, unlessRefused(OBREG_STATUS_NOT_FOUND));
        EXPECT_EQ(removeKey(c.key, "none"), unlessRefused(OBREG_STATUS_NOT_FOUND));
        EXPECT_EQ(keyAt(c.key, 1000)->m_status, unlessRefused(OBREG_STATUS_NO_MORE_ENTRIES));
        EXPECT_EQ(valueAt(c.key, 0xFFFFFFFF)->m_status, unlessRefused(OBREG_STATUS_NO_MORE_ENTRIES));
    }
}

TEST_F(RegistryTest, EachTreeIsWrittenByItsOwner)
{
    constexpr uid_t ann = 40001;
    constexpr uid_t bob = 40002;
    const HANDLE annsTree = open(HKEY_CURRENT_USER, "", KEY_READ, ann)->m_keyHandle;
    EXPECT_EQ(open(HKEY_USERS, "40001")->m_keyHandle, annsTree);
    make("Shared");
    create(HKEY_USERS, "nobody");
    create(HKEY_CURRENT_USER, "Mine\\Deep", KEY_ALL_ACCESS, ann);

    const struct {
        HANDLE root;
        const char* path;
        std::set<uid_t> writers;
    } cases[] = {
        {HKEY_LOCAL_MACHINE, "Shared", {0, geteuid()}},
        {HKEY_CLASSES_ROOT, "", {0, geteuid()}},
        {HKEY_USERS, "", {0, geteuid()}},
        {HKEY_USERS, "nobody", {0, geteuid()}},
        {HKEY_USERS, "40001", {0, geteuid(), ann}},
        {annsTree, "mine\\deep", {0, geteuid(), ann}},
    };
    for (const auto& c : cases)
        for (const uid_t uid : {uid_t{0}, geteuid(), ann, bob}) {
            SCOPED_TRACE(std::string(c.path) + " as " + std::to_string(uid));
            const REGSTATUS allowed = c.writers.contains(uid) ? 0 : OBREG_STATUS_ACCESS_DENIED;
            for (const UINT32 access : {KEY_SET_VALUE, KEY_CREATE_SUB_KEY, KEY_ALL_ACCESS, 0x40000000u}) {
                EXPECT_EQ(open(c.root, c.path, access, uid)->m_status, allowed) << access;
                EXPECT_EQ(create(c.root, c.path, access, uid)->m_status, allowed) << access;
            }
            for (const UINT32 access : {0u, KEY_READ, 0x02000000u})
                EXPECT_EQ(open(c.root, c.path, access, uid)->m_status, 0u) << access;
            const HANDLE key = open(c.root, c.path, KEY_READ, uid)->m_keyHandle;
            EXPECT_EQ(set(key, "v", "x", REG_SZ, uid), allowed);
            EXPECT_EQ(removeValue(key, "v", uid), allowed == 0 ? 0 : OBREG_STATUS_NOT_FOUND);
            EXPECT_EQ(create(key, "New\\er", KEY_READ, uid)->m_status, allowed);
            EXPECT_EQ(removeKey(key, "New\\er", uid), allowed == 0 ? 0 : OBREG_STATUS_NOT_FOUND);
            create(key, "New\\er");
            EXPECT_EQ(removeKey(key, "New", uid), allowed == 0 ? OBREG_STATUS_KEY_HAS_SUBKEYS : allowed);
            removeKey(key, "New\\er");
            EXPECT_EQ(removeKey(key, "New", uid), allowed);
        }
}

TEST_F(RegistryTest, QuotasRefuseGrowthOfAUsersTree)
{
    constexpr uid_t ann = 40001;
    constexpr int aKey = -1;
    const HANDLE tree = open(HKEY_CURRENT_USER, "", KEY_READ, ann)->m_keyHandle;
    m_pWriter->setQuota({.bytes = 5 + 5 + 100, .keys = 4});
    const struct {
        const char* pName;
        int length; ///< of a value
        uid_t uid;
        REGSTATUS status;
    } steps[] = {
        {"a\\b\\c\\d", aKey, ann, OBREG_STATUS_QUOTA_EXCEEDED},
        {"a\\bcde", aKey, ann, 0},
        {"a\\b\\c", aKey, ann, OBREG_STATUS_QUOTA_EXCEEDED},
        {"v", 100, ann, OBREG_STATUS_QUOTA_EXCEEDED},
        {"v", 99, ann, 0},
        {"v", 99, ann, 0}, // keeps the size
        {"w", 0, ann, OBREG_STATUS_QUOTA_EXCEEDED},
        {"w", 10, 0, 0},   // root is not refused
        {"v", 98, ann, 0}, // shrinks, though root's value counts
        {"v", 99, ann, OBREG_STATUS_QUOTA_EXCEEDED},
        {"r\\o\\o\\t", aKey, 0, 0},
    };
    for (const auto& [pName, length, uid, status] : steps) {
        const bool isKey = length == aKey;
        const REGSTATUS found = isKey ? create(tree, pName, KEY_READ, uid)->m_status
                                      : set(tree, pName, std::string(static_cast<size_t>(length), 'x'), REG_SZ, uid);
        EXPECT_EQ(found, status) << pName << ' ' << length << ' ' << uid;
    }
    EXPECT_EQ(m_pWriter->usage(ann), (Usage{7, 5 + 5 + 99 + 11 + 4, 7}));
    expectSound();

    // A third of the numbers for one user, the next has a third of the rest.
    EXPECT_TRUE(leavesNumbers({0, 0, 29}, 1, 61));
    EXPECT_FALSE(leavesNumbers({0, 0, 30}, 1, 60));
}

TEST_F(RegistryTest, TimesMoveWithTheKeysOwnContent)
{
    const HANDLE top = make("Top");
    const HANDLE key = make("Top\\Key");
    EXPECT_NEAR(static_cast<double>(info(key)->m_lastWriteTime), static_cast<double>(timeNow()), 6e8); // a minute
    const struct {
        const char* pWhat;
        std::function<void()> action;
        bool topMoves, keyMoves;
    } cases[] = {
        {"set", [&] { set(key, "v", "1"); }, false, true},
        {"query", [&] { query(key, "v"); }, false, false},
        {"open", [&] { open(key, "", KEY_ALL_ACCESS); }, false, false},
        {"delete nothing", [&] { removeValue(key, "none"); }, false, false},
        {"delete value", [&] { removeValue(key, "v"); }, false, true},
        {"add sub-key", [&] { make("Top\\Other"); }, true, false},
        {"delete sub-key", [&] { removeKey(top, "Other"); }, true, false},
    };
    const auto expectMoves = [&](const auto& test) {
        const UINT64 topTime = info(top)->m_lastWriteTime;
        const UINT64 keyTime = info(key)->m_lastWriteTime;
        test.action();
        EXPECT_EQ(info(top)->m_lastWriteTime > topTime, test.topMoves) << test.pWhat;
        EXPECT_EQ(info(key)->m_lastWriteTime > keyTime, test.keyMoves) << test.pWhat;
        EXPECT_EQ(keyAt(top, 0)->m_lastWriteTime, info(key)->m_lastWriteTime) << test.pWhat;
    };
    for (const auto& test : cases)
        expectMoves(test);
    // A clock that was once wrong does not bring later changes to a halt.
    fromOutside("UPDATE regkey SET written = written * 2");
    expectMoves(cases[0]);
    EXPECT_GE(info(make("Top\\New"))->m_lastWriteTime, info(top)->m_lastWriteTime) << "no older than its parent";
}

TEST_F(RegistryTest, EnumerationAndInfoFollowChanges)
{
    const HANDLE key = make("K");
    std::vector<std::string> keys, values; // in the order in which they were made
    std::mt19937 random(7);
    const auto lengthOf = [](const std::string& name) { return name.size(); };
    const auto lengthOfData = [](const std::string& name) { return static_cast<size_t>(name.back() - '0'); };
    const auto greatest = [](const std::vector<std::string>& names, auto length) {
        size_t most = 0;
        for (const std::string& name : names)
            most = std::max(most, length(name));
        return most;
    };
    size_t at = 0;
    for (int step = 0; step < 3000; ++step) {
        const bool isKey = random() % 2 == 0;
        std::vector<std::string>& names = isKey ? keys : values;
        const auto choice = random() % 12;
        if (choice < 2) {
            names.push_back("\xC3\xA4" + std::string(random() % 9, 'n') + std::to_string(step));
            const std::string data(lengthOfData(names.back()), 'd');
            EXPECT_EQ(isKey ? create(key, names.back())->m_status : set(key, names.back(), data), 0u);
        } else if (choice == 2 && !names.empty()) {
            const auto victim = names.begin() + static_cast<ptrdiff_t>(random() % names.size());
            EXPECT_EQ(isKey ? removeKey(key, *victim) : removeValue(key, *victim), 0u);
            names.erase(victim);
        } else { // mostly steps, up and down, now and then a leap
            at = random() % 8 == 0 ? random() % 200 : at + (random() % 3 == 0 ? size_t(-1) : 1);
            at = std::min(at, std::max(keys.size(), values.size()));
            ASSERT_EQ(keyAt(key, at)->m_subKeyName, at < keys.size() ? keys[at] : "") << "step " << step;
            ASSERT_EQ(valueAt(key, at)->m_valueName, at < values.size() ? values[at] : "") << "step " << step;
            const auto now = info(key);
            ASSERT_EQ(now->m_subKeyCount, keys.size());
            ASSERT_EQ(now->m_valueCount, values.size());
            ASSERT_EQ(now->m_maxSubKeyLength, greatest(keys, lengthOf));
            ASSERT_EQ(now->m_maxValueNameLength, greatest(values, lengthOf));
            ASSERT_EQ(now->m_maxValueLength, greatest(values, lengthOfData));
        }
    }
}

TEST_F(RegistryTest, OneBadWriteSpoilsNoOther)
{
    const HANDLE key = make("K");
    fromOutside("UPDATE sqlite_sequence SET seq = " + std::to_string(LastKeyId - 2));
    JobList batch;
    batch.append(job(0, CreateKeyReqMsg(key, "a", 0, 0)));
    batch.append(job(0, CreateKeyReqMsg(key, "b\\c\\d", 0, 0))); // takes the last number and fails on the next
    batch.append(job(0, SetValueReqMsg(key, "v", REG_SZ, "x", 1)));
    batch.append(job(40001, SetValueReqMsg(key, "denied", REG_SZ, "x", 1)));
    batch = commit(std::move(batch));
    EXPECT_EQ(response<CreateKeyRespMsg>(batch.pop()->reply)->m_status, 0u);
    const JobPtr pFailed = batch.pop();
    EXPECT_EQ(response<CreateKeyRespMsg>(pFailed->reply)->m_status, OBREG_STATUS_STORE_FULL);
    EXPECT_EQ(response<CreateKeyRespMsg>(pFailed->reply)->m_keyHandle, nullptr);
    EXPECT_EQ(response<SetValueRespMsg>(batch.pop()->reply)->m_status, 0u);
    EXPECT_EQ(response<SetValueRespMsg>(batch.pop()->reply)->m_status, OBREG_STATUS_ACCESS_DENIED);
    EXPECT_EQ(info(key)->m_subKeyCount, 1u);
    EXPECT_EQ(info(key)->m_valueCount, 1u);
    EXPECT_EQ(open(key, "b")->m_status, OBREG_STATUS_NOT_FOUND);
}

TEST_F(RegistryTest, ForeignFilesAreRefused)
{
    const std::string path = m_folder / "other";
    SQLite::Database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec("CREATE TABLE t (x)");
    EXPECT_THROW(WritableStore{path}, std::runtime_error);
    fromOutside("PRAGMA user_version = 99");
    EXPECT_THROW(WritableStore{m_path}, std::runtime_error);
}

} // namespace
