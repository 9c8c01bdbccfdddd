// Sharing trees with other machines through an engine: what is written there is proposed to it, and answered when it
// has come back and is in the local copy.
//
// A request that writes is carried out in a savepoint. When that has touched a shared tree it is undone again and
// proposed (proposal.h); the job then waits here. What the engine tells (keeper.h) is applied by the same thread, and
// jobs whose change is among it are answered. When a proposal is refused because what it rests on has changed, the job
// is run again.
//
// EXACTLY ONCE. Each change under way has a place of its own in the engine, whose entry it sets on the condition that
// it is what it was. When no answer comes, another change sets that entry: the one that was first decides, and after
// that the other cannot be done any more.
//
// Belongs to the thread that commits; only outcomes come from the engine's threads, into a list with a lock.
#ifndef OBREGD_ENGINE_SHARING_H
#define OBREGD_ENGINE_SHARING_H

#include <list>

#include "daemon/engine/keeper.h"
#include "daemon/engine/proposal.h"
#include "daemon/engine/shares.h"
#include "daemon/engine/shareview.h"
#include "daemon/serve/transactions.h"

namespace obregd {

/// What a job carries with it while it is about a shared tree.
struct SharedWork {
    std::optional<Proposal> proposal;
    std::optional<std::chrono::steady_clock::time_point> deadline;
};

class Sharing final : public SharedTrees {
public:
    Sharing(WritableStore& store, std::unique_ptr<engine::Engine> pEngine, const std::vector<Share>& shares,
            std::chrono::milliseconds patience);
    ~Sharing() override;

    /// What is to be seen of the trees; while this lives.
    ShareViews views() const;

    /// Begins to follow the trees. `wake`: turn() has something to do; any thread.
    void start(std::function<void()> wake) override;
    void serve(Job& job, const std::function<void(SharedCalls&)>& act) override;
    /// Takes the jobs that are to wait out of a batch whose transaction is over.
    void send(JobList& batch) override;
    JobList turn(Transactions& transactions) override;
    bool isIdle() const override { return m_underWay.empty() && m_again.empty(); }
    JobList end() override;

private:
    using Clock = std::chrono::steady_clock;

    /// A change at a time, of which the engine has an entry.
    struct Slot {
        std::string entry;
        std::string value; ///< what it is there; empty: it is not
        bool isFree = true;
    };
    struct Tree {
        std::unique_ptr<ShareKeeper> pKeeper;
        std::shared_ptr<ShareView> pView; ///< its revision is what is applied
        ShareKeeper::News waiting;        ///< to be applied
        Clock::time_point notBefore{};
        std::vector<Slot> slots;
    };
    struct UnderWay {
        JobPtr pJob; ///< null: it was answered, and only the slot is to be settled
        size_t tree;
        size_t slot;
        std::string id;
        Clock::time_point deadline;
        enum { Sent, ToSettle, Settling, Done } is = Sent;
        Clock::time_point notBefore{}; ///< ToSettle
        int64_t revision = 0;
    };
    using Place = std::list<UnderWay>::iterator;
    struct Again {
        JobPtr pJob;
        Clock::time_point notBefore;
    };

    void applyNews(Tree& tree, size_t index, Transactions& transactions);
    bool applyWhole(Tree& tree, SharedCopy& copy, Transactions& transactions);
    bool applyChanges(Tree& tree, SharedCopy& copy, Transactions& transactions);
    void propose(JobPtr pJob);
    void commit(Place place, engine::Transaction&& transaction);
    void settle(Place place);
    void settleLater(Place place);
    void decide(Place place, engine::Outcome&& outcome);
    void again(JobPtr pJob, Clock::duration pause);
    void answer(Job& job);
    void runAgain(Transactions& transactions, JobList& answered);
    static engine::Compare slotIs(const Slot& slot);

    WritableStore& m_store;
    const std::chrono::milliseconds m_patience;
    std::string m_daemon; // this process among all that share
    uint64_t m_lastId = 0;
    std::vector<std::unique_ptr<SharedCopy>> m_copies;
    Proposer m_proposer;
    std::vector<Tree> m_trees;
    std::list<UnderWay> m_underWay;
    std::list<Again> m_again;
    std::function<void()> m_wake;
    LogLimit m_log;
    std::mutex m_mutex; // guards what follows
    std::vector<std::pair<Place, engine::Outcome>> m_outcomes;
    bool m_ending = false;
    std::condition_variable m_ends;
    std::unique_ptr<engine::Engine> m_pEngine;
    std::thread m_clock; // wakes while something waits
    std::atomic<bool> m_ticks{false};
};

} // namespace obregd

#endif
