// Trees shared among machines, in process: each machine a store, a committer and an engine in memory that all reach.
#include <future>
#include <map>

#include <gtest/gtest.h>

#include "daemon/engine/sharing.h"
#include "daemon/serve/committer.h"
#include "obreg/roots.h"
#include "support/encoded.h"
#include "support/eventually.h"
#include "support/memory_engine.h"
#include "support/scale.h"
#include "support/temporary_folder.h"

using namespace obregd;

namespace {

/// A machine of its own.
class Machine {
public:
    explicit Machine(MemoryCluster& cluster, std::chrono::milliseconds patience = std::chrono::seconds(20))
        : m_writer(m_folder / "store"), m_reader(m_folder / "store"),
          m_sharing(m_writer, std::make_unique<MemoryEngine>(cluster), {{"acme", top(m_writer)}}, patience),
          m_committer(
              std::in_place, m_writer, nullptr, &m_sharing, m_queue,
              Committer::Callbacks{[this](JobList&& jobs, std::vector<Touched>&&) { answered(std::move(jobs)); },
                                   [](bool) {}, [] {}})
    {}

    template <class Response, class Request>
    std::unique_ptr<Response> call(const Request& request)
    {
        const std::string text = encoded(request);
        JobPtr pJob(new Job{nullptr, 0, {0, 1}, findOperation(text), Payload(text.size(), text)});
        std::future<Reply> reply;
        {
            const std::lock_guard lock(m_mutex);
            pJob->reqId = ++m_lastId;
            reply = m_answers[m_lastId].get_future();
        }
        m_queue.push(m_lane, std::move(pJob));
        const Reply answer = reply.get();
        return std::unique_ptr<Response>(Response::deserialize(answer.pText.get(), answer.length));
    }

    REGSTATUS set(const std::string& path, const std::string& name, const std::string& data)
    {
        const auto made = create(path);
        return made->m_status != 0 ? made->m_status : set(made->m_keyHandle, name, data);
    }
    REGSTATUS set(HANDLE key, const std::string& name, const std::string& data)
    {
        return call<SetValueRespMsg>(
                   SetValueReqMsg(key, name.c_str(), REG_BINARY, data.data(), static_cast<UINT32>(data.size())))
            ->m_status;
    }
    std::unique_ptr<CreateKeyRespMsg> create(const std::string& path)
    {
        return call<CreateKeyRespMsg>(CreateKeyReqMsg(HKEY_LOCAL_MACHINE, ("Shared\\" + path).c_str(), 0, KEY_WRITE));
    }
    REGSTATUS removeKey(const std::string& path)
    {
        return call<DeleteKeyRespMsg>(DeleteKeyReqMsg(HKEY_LOCAL_MACHINE, ("Shared\\" + path).c_str()))->m_status;
    }
    REGSTATUS removeValue(const std::string& path, const std::string& name)
    {
        const auto made = create(path);
        return made->m_status != 0
                   ? made->m_status
                   : call<DeleteValueRespMsg>(DeleteValueReqMsg(made->m_keyHandle, name.c_str()))->m_status;
    }

    /// All that is shared, in the order of enumeration.
    std::string dump()
    {
        m_reader.refresh();
        const Store::Snapshot snapshot(m_reader);
        std::string text;
        dump(*m_reader.child(MachineId, "Shared"), "", text);
        return text;
    }

private:
    static KeyId top(WritableStore& store)
    {
        store.begin();
        const KeyId key = store.addKey(MachineId, "Shared", MachineOwner);
        store.commit();
        return key;
    }

    void dump(KeyId id, const std::string& path, std::string& text)
    {
        const Key key = *m_reader.key(id);
        text += '[' + path + "]\n";
        for (UINT32 i = 0; i < key.values; ++i) {
            const auto value = m_reader.valueAt(key, i);
            text += std::string(value->pName) + '=' + std::string(value->value.pData, value->value.length) + '\n';
        }
        std::vector<std::string> names;
        for (UINT32 i = 0; i < key.subKeys; ++i)
            names.emplace_back(m_reader.subKeyAt(key, i)->pName);
        for (const std::string& name : names)
            dump(*m_reader.child(id, name), path + '\\' + name, text);
    }

    void answered(JobList&& jobs)
    {
        while (!jobs.empty()) {
            JobPtr pJob = jobs.pop();
            const std::lock_guard lock(m_mutex);
            m_answers[pJob->reqId].set_value(std::move(pJob->reply));
            m_answers.erase(pJob->reqId);
        }
    }

    const TemporaryFolder m_folder;
    WritableStore m_writer;
    Store m_reader;
    JobQueue m_queue;
    JobQueue::User m_user;
    JobLane m_lane{m_user};
    Sharing m_sharing;
    std::mutex m_mutex;
    uint32_t m_lastId = 0;
    std::map<uint32_t, std::promise<Reply>> m_answers;
    std::optional<Committer> m_committer; // last: its thread uses all the others
};

} // namespace

TEST(SharedTest, WhatOneWritesAllHaveInTheSameOrder)
{
    MemoryCluster cluster;
    Machine a(cluster);
    Machine b(cluster);
    const auto made = a.create("Acme\\Printers");
    EXPECT_EQ(made->m_status, 0u);
    EXPECT_EQ(made->m_disposition, REG_CREATED_NEW_KEY);
    EXPECT_EQ(a.create("acme\\printers")->m_disposition, REG_OPENED_EXISTING_KEY);
    EXPECT_EQ(a.set(made->m_keyHandle, "Title", "one"), 0u);
    EXPECT_EQ(b.set("Acme\\Users", "Ann", "1"), 0u);
    EXPECT_EQ(a.set(made->m_keyHandle, "Size", "2"), 0u);
    EXPECT_EQ(b.set("ACME\\PRINTERS", "TITLE", "two"), 0u);
    EXPECT_EQ(b.removeKey("Acme"), OBREG_STATUS_KEY_HAS_SUBKEYS);
    const std::string all = "[]\n[\\Acme]\n[\\Acme\\Printers]\nTitle=two\nSize=2\n[\\Acme\\Users]\nAnn=1\n";
    EXPECT_TRUE(eventually([&] { return a.dump() == all; })) << a.dump();
    EXPECT_EQ(b.dump(), all);
    EXPECT_EQ(b.removeValue("Acme\\Printers", "Title"), 0u);
    EXPECT_EQ(b.removeValue("Acme\\Printers", "Title"), OBREG_STATUS_NOT_FOUND);
    EXPECT_EQ(b.set("Acme\\Printers", "Title", "three"), 0u);
    EXPECT_EQ(b.removeKey("Acme\\Users"), 0u);
    EXPECT_TRUE(eventually([&] { return a.dump() == "[]\n[\\Acme]\n[\\Acme\\Printers]\nSize=2\nTitle=three\n"; }))
        << a.dump();
    Machine c(cluster); // reads all
    EXPECT_TRUE(eventually([&] { return c.dump() == a.dump(); })) << c.dump();
    EXPECT_EQ(a.set("Acme", "v", std::string(2u << 20, 'x')), OBREG_STATUS_TOO_LARGE);
}

TEST(SharedTest, AnEngineThatIsAwayStopsWritesAndNotReads)
{
    MemoryCluster cluster;
    Machine a(cluster, std::chrono::milliseconds(200));
    EXPECT_EQ(a.set("K", "v", "1"), 0u);
    cluster.away = true;
    EXPECT_EQ(a.set("K", "v", "2"), OBREG_STATUS_ENGINE_AWAY);
    EXPECT_EQ(a.dump(), "[]\n[\\K]\nv=1\n");
    cluster.away = false;
    EXPECT_TRUE(eventually([&] { return a.set("K", "w", "3") == 0; }));
}

TEST(SharedTest, NothingIsLostOrDoneTwiceWhateverFails)
{
    constexpr int Callers = 8;
    const int rounds = scaled(30);
    MemoryCluster cluster;
    std::vector<std::unique_ptr<Machine>> machines;
    for (int i = 0; i < 3; ++i)
        machines.push_back(std::make_unique<Machine>(cluster));
    cluster.lossPercent = 20;
    std::atomic<int> failed{0};
    std::vector<std::thread> callers;
    for (int caller = 0; caller < Callers; ++caller)
        callers.emplace_back([&, caller] {
            Machine& machine = *machines[static_cast<size_t>(caller) % machines.size()];
            const std::string own = "Own" + std::to_string(caller);
            for (int i = 0; i < rounds; ++i) {
                // A key is made once, and deleted once: whatever is done twice shows.
                const std::string key = own + "\\" + std::to_string(i);
                failed += machine.create(key)->m_disposition != REG_CREATED_NEW_KEY;
                failed += machine.set(key, "v", std::to_string(i)) != 0;
                failed += machine.set("All", "last", own) != 0;
                if (i % 3 == 0)
                    failed += machine.removeValue(key, "v") != 0;
                if (i % 5 == 0)
                    failed += machine.removeKey(key) != 0;
            }
        });
    for (int i = 0; i < 4; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        cluster.away = i % 2 == 0;
        cluster.compact();
    }
    cluster.away = false;
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(failed, 0);
    cluster.lossPercent = 0;
    Machine anew(cluster);
    const auto isEverywhere = [&] {
        return std::all_of(machines.begin(), machines.end(), [&](const auto& p) { return p->dump() == anew.dump(); });
    };
    EXPECT_TRUE(eventually(isEverywhere)) << machines[0]->dump() << "\n---\n" << anew.dump();
    std::string expected;
    const std::string dump = anew.dump();
    for (int caller = 0; caller < Callers; ++caller)
        for (int i = 0; i < rounds; ++i) {
            const std::string key = "[\\Own" + std::to_string(caller) + '\\' + std::to_string(i) + "]\n";
            const std::string value = i % 3 == 0 ? "" : "v=" + std::to_string(i) + '\n';
            EXPECT_EQ(dump.find(key + value) != std::string::npos, i % 5 != 0) << key;
        }
}

TEST(SharedTest, ACopyBecomesWhatAnotherEngineHas)
{
    const TemporaryFolder folder;
    WritableStore store(folder / "store");
    const EntryNames names("acme");
    const auto key = [&](const std::string& path, int64_t created) {
        return engine::Entry{names.key(path), keyText({1, 0, 0, 0, path.substr(path.rfind('\\') + 1), {}}), created,
                             created};
    };
    const auto value = [&](const std::string& path, const std::string& data, int64_t created, int64_t modified) {
        return engine::Entry{names.value(path, "v"), valueText({1, 0, REG_BINARY, 0, "v", data}), created, modified};
    };
    store.begin();
    SharedCopy copy(store, "acme", MachineId);
    copy.apply(
        {9, {{false, key("a", 5)}, {false, value("a", "new", 6, 9)}, {false, key("a\\x", 7)}, {false, key("b", 8)}}});
    copy.apply({8, {{true, {names.value("a", "v"), {}}}, {false, value("a", "old", 6, 8)}}}); // again, and later
    const KeyId a = *store.child(MachineId, "a");
    EXPECT_EQ(std::string(store.value(a, "v")->pData, 3), "new");
    // An older engine: no x, another b, an older value, and a key more.
    const std::vector<engine::Entry> older = {key("a", 5), key("b", 2), key("c", 1), value("a", "was", 6, 6)};
    for (const engine::Revision& revision : copy.difference(std::vector(older), 3))
        copy.apply(revision, true);
    EXPECT_EQ(store.child(a, "x"), std::nullopt);
    EXPECT_EQ(std::string(store.value(a, "v")->pData, 3), "was");
    const Key top = *store.key(MachineId);
    ASSERT_EQ(top.subKeys, 3u);
    for (UINT32 i = 0; i < 3; ++i)
        EXPECT_EQ(std::string(store.subKeyAt(top, i)->pName), std::vector<std::string>({"a", "c", "b"})[i]);
    EXPECT_TRUE(copy.difference(std::vector(older), 3).empty());
    store.commit();
}
