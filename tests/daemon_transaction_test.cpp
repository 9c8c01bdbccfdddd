// Transactions in process: what each is answered, that nothing stays of one that is refused, and that each acts once.
#include "daemon/plan.h"
#include "support/with_registry.h"

using namespace obregd;

namespace {

constexpr uid_t Ann = 40001;
constexpr uid_t Ben = 40002;
const HANDLE Transactions = reinterpret_cast<HANDLE>(uintptr_t{0x80000011});
const std::string Header = "REGEDIT4\n";

class TransactionTest : public WithRegistry {
protected:
    /// What the readers make of it: a job for the committer, or one that has its reply.
    JobPtr plan(const std::string& token, const std::string& text, uid_t uid, size_t most = DefaultMaxStatements)
    {
        const std::string data = Header + text + '\0';
        JobPtr pJob = job(
            uid, SetValueReqMsg(Transactions, token.c_str(), REG_SZ, data.data(), static_cast<UINT32>(data.size())));
        EXPECT_TRUE(isTransaction(*pJob->pOperation, pJob->request.text()));
        try {
            pJob->reply = pJob->pOperation->serve({m_reader, nullptr, pJob->peer, true, most}, pJob->request.text());
        } catch (const Planned& planned) {
            pJob->pPlan = planned.pPlan;
        }
        return pJob;
    }

    static REGSTATUS statusOf(const Job& job) { return response<SetValueRespMsg>(job.reply)->m_status; }

    REGSTATUS transact(const std::string& token, const std::string& text, uid_t uid = 0,
                       size_t most = DefaultMaxStatements)
    {
        JobList jobs;
        jobs.append(plan(token, text, uid, most));
        return statusOf(jobs.front().pPlan == nullptr ? jobs.front() : (jobs = commit(std::move(jobs))).front());
    }

    /// What its token tells.
    std::string told(const std::string& token, uid_t uid = 0)
    {
        const auto value = query(Transactions, token, uid);
        return value->m_status == 0 ? std::string(value->m_pValueData, value->m_valueDataLen - 1) : "nothing";
    }

    std::string stored(HANDLE key, const std::string& name)
    {
        const auto value = query(key, name);
        return value->m_status == 0 ? std::string(value->m_pValueData, value->m_valueDataLen) : "nothing";
    }
};

TEST_F(TransactionTest, IsDoneWholeOrTellsWhatIsWrongAndWhere)
{
    const HANDLE key = make("K"); // 16
    const HANDLE gone = create(key, "Gone")->m_keyHandle;
    ASSERT_EQ(removeKey(key, "Gone"), 0u);
    ASSERT_EQ(reinterpret_cast<uintptr_t>(gone), 17u);
    set(key, "v", "1");
    set(make("K\\Sub\\Deep"), "x", "y");
    const std::string longName(OBREG_MAX_KEY_NAME + 1, 'n');
    const struct {
        std::string text;
        std::string told; ///< its beginning
        uid_t uid = 0;
    } rows[] = {
        // conditions
        {"[?HKLM\\K]\n\"V\"=hex:31\n\"w\"=-\n[?-HKLM\\L]\n[?-#00000011\\Sub]\n[?#00000010\\sub\\]\n[?HKPD\\Store]\n",
         "done"},
        {"[?HKLM\\K]\n\"v\"=hex:32\n", "refused 3 1 0xC7F21A2C HKEY_LOCAL_MACHINE\\K, value \"v\": is another"},
        {"[?HKLM\\K]\n\"v\"=hex(1):31\n",
         "refused 3 1 0xC7F21A2C HKEY_LOCAL_MACHINE\\K, value \"v\": is of another type"},
        {"[?HKLM\\K]\n@=\"\"\n", "refused 3 1 0xC7F21A2C HKEY_LOCAL_MACHINE\\K, value \"default\": is missing"},
        {"[?HKLM\\K]\n \"v\"=-\n", "refused 3 2 0xC7F21A2C HKEY_LOCAL_MACHINE\\K, value \"v\": exists"},
        {"[?#00000010\\L]\n", "refused 2 1 0xC7F21A2C #00000010\\L: is missing"},
        {"[?-HKLM\\K\\Sub]\n", "refused 2 1 0xC7F21A2C HKEY_LOCAL_MACHINE\\K\\Sub: exists"},
        {"[HKLM\\K]\n\"v\"=\"2\"\n[?HKLM\\L]\n", "refused 4 1 0xC7F21A2C HKEY_LOCAL_MACHINE\\L: is missing"},
        {"[HKLM\\K]\n\"w\"=\"2\"\n[?HKLM\\K]\n\"w\"=-\n[HKLM\\K]\n\"w\"=-\n[-HKLM\\L\\M]\n", "done"},
        {"[?HKLM\\K\\Sub]\nunchanged-since=7 ; made by 5 to 7\n", "done"},
        {"[?HKLM\\K\\Sub]\n unchanged-since=6\n",
         "refused 3 2 0xC7F21A2C HKEY_LOCAL_MACHINE\\K\\Sub: has changed after change 6"},
        {"[?#00000010]\nunchanged-since=7\n", "refused 3 1 0xC7F21A2C #00000010: has changed after change 7"},
        {"[?HKLM\\K]\nunchanged-since=99\n",
         "refused 3 1 0xC7F21A2C HKEY_LOCAL_MACHINE\\K: may have changed after change 99"},
        {"[?HKLM]\nunchanged-since=18446744073709551615\n", "refused 3 1 0xC7F21A2C HKEY_LOCAL_MACHINE: may have"},
        {"[?HKPD]\nunchanged-since=0\n", "refused 3 1 0xC7F21A2F HKEY_PERFORMANCE_DATA: what is made on demand"},
        // text that cannot be read
        {"[?HKLM\\K]\nunchanged-since=-1\n", "refused 3 17 0xC7F21A2F expected the number of a change"},
        {"[HKLM\\K]\nunchanged-since=1\n", "refused 3 17 0xC7F21A2F expected a [?key] before this condition"},
        {"[HKLM\\K\n", "refused 2 8 0xC7F21A2F expected ] after the key"},
        {"[?-HKLM\\L]\n\"v\"=-\n", "refused 3 1 0xC7F21A2F expected a [key] before this value"},
        {"[HKLM\\K]\n\"v\"=\"1\n", "refused 4 1 0xC7F21A2F expected a quote that closes"},
        {"[#12\\K]\n", "refused 2 2 0xC7F21A2F expected a key, but a key by its handle begins with"},
        {"[-#00000010]\n", "refused 2 3 0xC7F21A2F expected a key below the root"},
        {"[HKLX\\K]\n", "refused 2 2 0xC7F21A2F expected a key, but a key begins with a root"},
        // what the single requests would be refused
        {"[#7fffffff\\K]\n", "refused 2 1 0xC7F20006"},
        {"[?-#7fffffff]\n", "refused 2 1 0xC7F20006"},
        {"[#00000011]\n\"v\"=\"1\"\n", "refused 2 1 0xC7F203FA"},
        {"[HKLM\\K]\n\"v\"=\"2\"\n[HKLM\\" + longName + "]\n", "refused 4 1 0xC7F2007B"},
        {"[HKLM\\K]\n\"" + std::string(OBREG_MAX_VALUE_NAME + 1, 'v') + "\"=-\n", "refused 3 1 0xC7F2007B"},
        {"[-HKLM\\K]\n[HKPD\\Store]\n", "refused 3 1 0xC7F20005"},
        {"[HKCU\\A]\n\"v\"=\"1\"\n[HKLM\\K]\n\"v\"=\"1\"\n", "refused 4 1 0xC7F20005", Ann},
        {"[-HKLM\\K]\n", "refused 2 1 0xC7F20005 HKEY_LOCAL_MACHINE\\K: this user may not do that", Ann},
        {"[#80000011]\n\"t\"=\"\"\n", "refused 3 1 0xC7F20005"},
        {"[?#80000010]\n\"80000002 1 0 key\"=-\n", "refused 3 1 0xC7F21A2F #80000010, value \"80000002 1 0 key\""},
        {"[?#80000012]\n\"80000002 now before 1 key\"=-\n", "refused 3 1 0xC7F21A2F"},
    };
    int number = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text.substr(0, 200));
        const std::string token = "t" + std::to_string(++number);
        const int64_t before = m_pWriter->journal().last();
        const REGSTATUS status = transact(token, row.text, row.uid);
        EXPECT_EQ(told(token, row.uid).substr(0, row.told.size()), row.told);
        EXPECT_EQ(status == 0, row.told == "done");
        EXPECT_EQ(told(token, Ben), "nothing");
        if (status != 0) {
            EXPECT_LE(m_pWriter->journal().last(), before + (row.uid == Ann ? 1 : 0)) << "but for Ann's own key";
        }
    }
    EXPECT_EQ(stored(key, "v"), "1");
    EXPECT_EQ(open(key, "Sub\\Deep")->m_status, 0u);
    for (const std::string& token : {std::string(), std::string("a b"), std::string("a/b"), std::string(65, 'a')})
        EXPECT_EQ(transact(token, ""), OBREG_STATUS_BAD_NAME) << token;
    EXPECT_EQ(query(Transactions, "a b")->m_status, OBREG_STATUS_BAD_NAME);
    expectSound();
}

// A tree is deleted, made anew and changed in the middle of a batch, and then refused: it was never there.
TEST_F(TransactionTest, OneThatIsRefusedLeavesNothingBesideOthers)
{
    const HANDLE tree = open(HKEY_CURRENT_USER, "", KEY_READ, Ann)->m_keyHandle;
    for (const char* pKey : {"A", "A\\B", "A\\B\\C", "D"})
        set(create(tree, pKey)->m_keyHandle, "v", std::string(50, 'x'));
    const Usage before = m_pWriter->usage(Ann);
    const int64_t change = m_pWriter->journal().last();
    const std::string work =
        "[-HKCU\\A]\n[HKCU\\D]\n\"v\"=-\n\"w\"=\"1\"\n[HKCU\\A\\E]\n\"v\"=\"longer than before\"\n";
    JobList batch;
    batch.append(job(Ann, SetValueReqMsg(tree, "first", REG_SZ, "1", 1)));
    batch.append(plan("refused", work + "[HKLM\\K]\n", Ann));
    batch.append(job(Ann, SetValueReqMsg(tree, "last", REG_SZ, "1", 1)));
    batch = commit(std::move(batch));
    EXPECT_EQ(statusOf(batch.front()), 0u);
    batch.pop();
    EXPECT_EQ(statusOf(batch.front()), OBREG_STATUS_ACCESS_DENIED);
    batch.pop();
    EXPECT_EQ(statusOf(batch.front()), 0u);
    EXPECT_EQ(m_pWriter->usage(Ann), (Usage{before.keys, before.bytes + 5 + 1 + 4 + 1, before.numbers}));
    EXPECT_EQ(m_pWriter->journal().last(), change + 2);
    EXPECT_EQ(m_pWriter->journal().takeTouched().back().number, change + 2);
    EXPECT_EQ(open(tree, "A\\B\\C")->m_status, 0u);
    EXPECT_EQ(keyAt(tree, 1)->m_subKeyName, "D");
    expectSound();

    EXPECT_EQ(transact("done", work, Ann), 0u);
    EXPECT_EQ(keyAt(tree, 1)->m_subKeyName, "A") << "made anew";
    EXPECT_EQ(info(tree)->m_subKeyCount, 2u);
    expectSound();

    // A reader of the journal is told of all of it or nothing, however much it is.
    std::string many = "[HKCU\\Many]\n";
    for (int i = 0; i < 3000; ++i)
        many += "\"a name that makes the answer long " + std::to_string(i) + "\"=\"1\"\n";
    const int64_t since = m_pWriter->journal().last();
    EXPECT_EQ(transact("many", many, Ann), 0u);
    set(tree, "another", "1");
    const Told all = m_reader.told({UsersId, true, since});
    EXPECT_EQ(all.upTo, since + 3001);
    EXPECT_EQ(m_reader.told({UsersId, true, all.upTo}).upTo, since + 3002);
}

TEST_F(TransactionTest, IsBoundedAndHeldToTheQuotaAsAWhole)
{
    const HANDLE tree = open(HKEY_CURRENT_USER, "", KEY_READ, Ann)->m_keyHandle;
    const uint64_t own = m_pWriter->usage(Ann).bytes;
    m_pWriter->setQuota({.bytes = own + 200, .keys = 4});
    const std::string x(99, 'x'); // with its NUL 100 bytes
    EXPECT_EQ(transact("1", "[HKCU]\n\"a\"=\"" + x + "\"\n", Ann), 0u);
    EXPECT_EQ(transact("2", "[HKCU]\n\"b\"=\"" + x + "\"\n\"a\"=-\n", Ann), 0u) << "makes its own room";
    EXPECT_EQ(transact("3", "[HKCU]\n\"c\"=\"\"\n\"a\"=\"" + x + "\"\n\"d\"=\"\"\n", Ann), OBREG_STATUS_QUOTA_EXCEEDED);
    EXPECT_EQ(told("3", Ann).substr(0, 11), "refused 4 1");
    EXPECT_EQ(transact("4", "[HKCU\\K\\L]\n[HKCU\\M\\N]\n[-HKCU\\K]\n", Ann), 0u);
    EXPECT_EQ(transact("5", "[HKCU\\K\\L]\n", Ann), OBREG_STATUS_QUOTA_EXCEEDED);
    EXPECT_EQ(transact("6", "[HKCU\\K\\L]\n[HKCU]\n\"r\"=\"" + x + "\"\n"), 0u) << "root's own tree";
    EXPECT_EQ(stored(tree, "a"), "nothing");

    EXPECT_EQ(transact("7", "[HKCU]\n\"b\"=-\n\"c\"=-\n", Ann, 2), OBREG_STATUS_TOO_LARGE);
    EXPECT_EQ(told("7", Ann).substr(0, 11), "refused 4 1");
    EXPECT_EQ(transact("8", ";" + std::string(2 * BytesPerStatement, 'x'), Ann, 2), OBREG_STATUS_TOO_LARGE);
    set(open(tree, "M\\N")->m_keyHandle, "v", "1");
    EXPECT_EQ(transact("9", "[-HKCU\\M]\n", Ann, 2), OBREG_STATUS_TOO_LARGE) << "two keys and a value";
    EXPECT_EQ(transact("10", "[-HKCU\\M]\n", Ann, 3), 0u);
    expectSound();

    m_pWriter->setQuota({});
    set(tree, "large", std::string(3 * GivenBackPerStatement, 'x'));
    const auto path = [](size_t names, size_t length) {
        std::string text;
        for (size_t i = 0; i < names; ++i)
            text += '\\' + std::string(length, 'a');
        return text;
    };
    const struct {
        std::string text;
        size_t most;
        REGSTATUS status;
    } rows[] = {
        {"[?HKCU" + path(2 * NamesPerStatement, 1) + "]\n", 2, OBREG_STATUS_CONDITION_FAILED},
        {"[?HKCU" + path(2 * NamesPerStatement + 1, 1) + "]\n", 2, OBREG_STATUS_TOO_LARGE},
        {"[HKCU\\new\\new\\new]\n", 2, OBREG_STATUS_TOO_LARGE},
        {"[HKCU\\new\\new]\n[HKCU]\n", 2, 0},
        {"[HKCU]\n\"large\"=-\n", 2, OBREG_STATUS_TOO_LARGE},
        {"[HKCU]\n\"large\"=\"\"\n", 2, OBREG_STATUS_TOO_LARGE},
        {"[HKCU]\n\"large\"=-\n", 4, 0},
        // a key's depth; the user's own is the first below the root
        {"[HKCU" + path(400, 1) + "]\n", 400, 0},
        {"[HKCU" + path(65, 1000) + "]\n", 200, 0},
        {"[HKCU" + path(66, 1000) + "]\n", 200, OBREG_STATUS_BAD_NAME},
    };
    int number = 10;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text.substr(0, 60));
        EXPECT_EQ(transact(std::to_string(++number), row.text, Ann, row.most), row.status);
    }
    const HANDLE deep = open(tree, path(400, 1).substr(1))->m_keyHandle;
    EXPECT_EQ(create(deep, path(368, 1).substr(1))->m_status, OBREG_STATUS_BAD_NAME) << "the 769th";
    EXPECT_EQ(create(deep, path(367, 1).substr(1))->m_status, 0u);
}

TEST_F(TransactionTest, ActsOnceForEachTokenOfAUsers)
{
    const HANDLE key = make("K");
    const std::string text = "[?-HKLM\\K\\Made]\n[HKLM\\K\\Made]\n";
    JobList twice; // it came again before it was done
    twice.append(plan("t", text, 0));
    twice.append(plan("t", text, 0));
    twice.append(plan("t", "[-HKLM\\K]\n", 0));
    twice = commit(std::move(twice));
    EXPECT_EQ(statusOf(twice.front()), 0u);
    twice.pop();
    EXPECT_EQ(statusOf(twice.front()), 0u);
    twice.pop();
    EXPECT_EQ(statusOf(twice.front()), OBREG_STATUS_TOKEN_USED);
    const std::string done = told("t");
    m_pWriter.reset(); // as over a restart
    m_pWriter.emplace(m_path);
    EXPECT_EQ(transact("t", text), 0u);
    EXPECT_EQ(transact("t", "[#no text"), OBREG_STATUS_TOKEN_USED);
    EXPECT_EQ(told("t"), done);
    EXPECT_EQ(transact("T", text), OBREG_STATUS_CONDITION_FAILED) << "another token";
    EXPECT_EQ(transact("T", "[HKLM\\K]\n"), 0u) << "one that was refused may be used again";
    EXPECT_EQ(transact("t", "[HKCU\\Own]\n", Ann), 0u) << "another's";
    EXPECT_EQ(info(key)->m_subKeyCount, 1u);

    // So many are kept, and none for too long.
    WithStore::commit([](WritableStore& store) {
        for (int64_t i = 0; i < TokenWriter::MostOfOneUser; ++i)
            store.addToken(Ben, std::to_string(i), 1);
        store.addToken(Ben, "one more", 1);
    });
    EXPECT_EQ(told("0", Ben), "nothing");
    EXPECT_NE(told("1", Ben), "nothing");
    EXPECT_EQ(told("t"), done) << "of another user";
    fromOutside("UPDATE token SET time = 0 WHERE uid = 0");
    EXPECT_EQ(told("t"), "nothing");
    EXPECT_EQ(transact("t", "[HKLM\\K]\n\"v\"=\"1\"\n"), 0u);
    EXPECT_EQ(SQLite::Database(m_path).execAndGet("SELECT count(*) FROM token WHERE uid = 0").getInt(), 1);
}

} // namespace
