#include "daemon/engine/sharing.h"

#include <algorithm>
#include <unistd.h>

#include "daemon/log.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

constexpr size_t SlotsOfATree = 64;
constexpr size_t EventsAtOnce = 2000;                // applied in one transaction, about
constexpr auto Tick = std::chrono::milliseconds(20); // while somebody waits
constexpr auto ShortPause = std::chrono::milliseconds(5);
constexpr auto SettlePause = std::chrono::milliseconds(50);
constexpr auto LongPause = std::chrono::milliseconds(500);       // after a failure
constexpr auto AnswerPatience = std::chrono::milliseconds(2000); // with one answer

std::string randomName()
{
    unsigned char random[8] = {};
    if (getentropy(random, sizeof random) != 0)
        throw std::runtime_error("no random numbers can be had");
    std::string name;
    for (const unsigned char byte : random)
        for (const int digit : {byte >> 4, byte & 15})
            name += "0123456789abcdef"[digit];
    return name;
}

size_t bytesOf(const engine::Transaction& transaction)
{
    size_t bytes = 0;
    for (const engine::Compare& compare : transaction.compares)
        bytes += compare.key.size() + compare.end.size() + compare.value.size();
    for (const engine::Operation& operation : transaction.operations)
        bytes += operation.key.size() + operation.end.size() + operation.value.size();
    return bytes;
}

} // namespace

Sharing::Sharing(WritableStore& store, std::unique_ptr<engine::Engine> pEngine, const std::vector<Share>& shares,
                 std::chrono::milliseconds patience)
    : m_store(store), m_patience(patience), m_daemon(randomName()), m_proposer(store, m_copies),
      m_pEngine(std::move(pEngine))
{
    for (const Share& share : shares) {
        SharedCopy& copy = *m_copies.emplace_back(std::make_unique<SharedCopy>(store, share.name, share.top));
        Tree& tree = m_trees.emplace_back();
        tree.pView = std::make_shared<ShareView>(share.name);
        tree.pView->revision = copy.revision();
        for (size_t i = 0; i < SlotsOfATree; ++i)
            tree.slots.push_back({copy.names().underWay(m_daemon, i), {}});
    }
}

Sharing::~Sharing() { end(); }

JobList Sharing::end()
{
    JobList all;
    const auto take = [&](JobPtr& pJob) {
        if (pJob == nullptr)
            return;
        refuse(*pJob, OBREG_STATUS_ENGINE_AWAY);
        all.append(std::move(pJob));
    };
    for (UnderWay& one : m_underWay)
        take(one.pJob);
    for (Again& one : m_again)
        take(one.pJob);
    m_again.clear();
    for (Tree& tree : m_trees)
        tree.pKeeper.reset();
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
    }
    m_ends.notify_all();
    if (m_clock.joinable())
        m_clock.join();
    m_pEngine.reset(); // its last outcomes come meanwhile
    return all;
}

ShareViews Sharing::views() const
{
    ShareViews views;
    for (const Tree& tree : m_trees)
        views.push_back(tree.pView);
    return views;
}

void Sharing::start(std::function<void()> wake)
{
    m_wake = std::move(wake);
    for (Tree& tree : m_trees)
        tree.pKeeper = std::make_unique<ShareKeeper>(*m_pEngine, tree.pView, m_wake);
    m_clock = std::thread([this] {
        std::unique_lock lock(m_mutex);
        while (!m_ending) {
            m_ends.wait_for(lock, Tick);
            lock.unlock();
            if (m_ticks)
                m_wake();
            lock.lock();
        }
    });
}

void Sharing::serve(Job& job, const std::function<void(SharedCalls&)>& act)
{
    if (job.pShared != nullptr)
        job.pShared->proposal.reset();
    SharedCalls calls;
    const int64_t before = m_store.journal().last();
    WritableStore::Savepoint savepoint(m_store);
    act(calls);
    try {
        std::optional<Proposal> proposal;
        if (calls.sync) {
            const EntryNames& names = m_copies[*calls.sync]->names();
            proposal = {*calls.sync, {{}, {{engine::Operation::Kind::Put, names.sync(m_daemon), "sync"}}}};
        } else {
            proposal = m_proposer.propose(before, calls.lookedAt);
        }
        if (!proposal)
            return savepoint.keep();
        if (job.pPlan != nullptr) {
            const EntryNames& names = m_copies[proposal->share]->names();
            const std::string token = names.token(job.peer.uid, job.pPlan->token);
            proposal->transaction.compares.push_back(
                {engine::Compare::What::Created, engine::Compare::Is::Equal, token});
            proposal->transaction.operations.push_back(
                {engine::Operation::Kind::Put, token, std::to_string(job.pPlan->hash)});
        }
        if (job.pShared == nullptr)
            job.pShared = std::make_shared<SharedWork>();
        job.pShared->proposal = std::move(proposal);
    } catch (const CannotPropose& cannot) {
        refuse(job, cannot.status);
        if (job.pPlan != nullptr)
            rememberRefusal(job.peer.uid, job.pPlan->token, {cannot.status, {}, cannot.pWhy});
    }
}

void Sharing::send(JobList& batch)
{
    JobList others;
    while (!batch.empty()) {
        JobPtr pJob = batch.pop();
        if (pJob->pShared == nullptr || !pJob->pShared->proposal)
            others.append(std::move(pJob));
        else
            propose(std::move(pJob));
    }
    batch = std::move(others);
    m_ticks = !isIdle();
}

engine::Compare Sharing::slotIs(const Slot& slot)
{
    if (slot.value.empty())
        return {engine::Compare::What::Created, engine::Compare::Is::Equal, slot.entry};
    return {engine::Compare::What::Value, engine::Compare::Is::Equal, slot.entry, {}, 0, slot.value};
}

void Sharing::propose(JobPtr pJob)
{
    SharedWork& work = *pJob->pShared;
    if (!work.deadline)
        work.deadline = Clock::now() + m_patience;
    Tree& tree = m_trees[work.proposal->share];
    const auto slot = std::find_if(tree.slots.begin(), tree.slots.end(), [](const Slot& one) { return one.isFree; });
    if (slot == tree.slots.end())
        return again(std::move(pJob), ShortPause);
    engine::Transaction transaction = std::move(work.proposal->transaction);
    const size_t index = work.proposal->share;
    const Clock::time_point deadline = *work.deadline;
    const auto place =
        m_underWay.insert(m_underWay.end(), {std::move(pJob), index, static_cast<size_t>(slot - tree.slots.begin()),
                                             std::to_string(++m_lastId), deadline});
    slot->isFree = false;
    transaction.compares.push_back(slotIs(*slot));
    transaction.operations.push_back({engine::Operation::Kind::Put, slot->entry, place->id});
    transaction.asked = slot->entry;
    if (std::max(transaction.operations.size(), transaction.compares.size()) > m_pEngine->mostOperations() ||
        bytesOf(transaction) > m_pEngine->longestValue()) {
        engine::Outcome outcome;
        outcome.end = engine::Outcome::End::Refused;
        outcome.why = "too large for one transaction of the engine";
        const std::lock_guard lock(m_mutex);
        m_outcomes.emplace_back(place, std::move(outcome));
        return;
    }
    commit(place, std::move(transaction));
}

void Sharing::commit(Place place, engine::Transaction&& transaction)
{
    m_pEngine->commit(std::move(transaction), AnswerPatience, [this, place](engine::Outcome&& outcome) {
        {
            const std::lock_guard lock(m_mutex);
            m_outcomes.emplace_back(place, std::move(outcome));
        }
        m_wake();
    });
}

void Sharing::settleLater(Place place)
{
    place->is = UnderWay::ToSettle;
    place->notBefore = Clock::now() + SettlePause;
}

/// Finds out what became of a change of which no answer came, and sees to it that it is not done any more.
void Sharing::settle(Place place)
{
    place->is = UnderWay::Settling;
    const Slot& slot = m_trees[place->tree].slots[place->slot];
    engine::Transaction transaction{
        {slotIs(slot)}, {{engine::Operation::Kind::Put, slot.entry, place->id + '!'}}, slot.entry};
    commit(place, std::move(transaction));
}

void Sharing::decide(Place place, engine::Outcome&& outcome)
{
    Slot& slot = m_trees[place->tree].slots[place->slot];
    const auto isSet = [&](const std::string& value) { return outcome.asked && outcome.asked->value == value; };
    const auto free = [&](const std::string& value) {
        slot.value = value;
        slot.isFree = true;
    };
    const bool settles = place->is == UnderWay::Settling;
    const auto done = [&](int64_t revision) {
        free(place->id);
        place->is = UnderWay::Done;
        place->revision = revision;
        if (place->pJob == nullptr)
            m_underWay.erase(place);
    };
    const auto runAgain = [&] {
        if (place->pJob != nullptr)
            again(std::move(place->pJob), ShortPause);
        m_underWay.erase(place);
    };
    switch (outcome.end) {
    case engine::Outcome::End::Done:
        if (!settles)
            return done(outcome.revision);
        free(place->id + '!');
        return runAgain();
    case engine::Outcome::End::NotDone:
        if (isSet(place->id))
            return done(outcome.asked->modified);
        if (settles && !isSet(place->id + '!'))
            return settleLater(place); // it is nobody else's: try again
        free(outcome.asked ? outcome.asked->value : std::string());
        return runAgain();
    case engine::Outcome::End::Refused: {
        if (settles)
            return settleLater(place);
        free(slot.value);
        if (place->pJob != nullptr) {
            if (const auto leftOut = m_log.allow(Clock::now()))
                logLine(LOG_WARNING, "share %s: a change was refused: %s (%zu such lines were left out)",
                        m_trees[place->tree].pView->name.c_str(), outcome.why.c_str(), *leftOut);
            refuse(*place->pJob, OBREG_STATUS_TOO_LARGE);
            place->revision = 0;
            place->is = UnderWay::Done;
        } else {
            m_underWay.erase(place);
        }
        return;
    }
    case engine::Outcome::End::Unknown:
        return settleLater(place);
    }
}

void Sharing::again(JobPtr pJob, Clock::duration pause) { m_again.push_back({std::move(pJob), Clock::now() + pause}); }

/// What waits of a tree is applied.
void Sharing::applyNews(Tree& tree, size_t index, Transactions& transactions)
{
    ShareKeeper::News news = tree.pKeeper->take();
    if (news.whole)
        tree.waiting = std::move(news); // what waited is older
    else
        std::move(news.revisions.begin(), news.revisions.end(), std::back_inserter(tree.waiting.revisions));
    if (Clock::now() < tree.notBefore)
        return;
    SharedCopy& copy = *m_copies[index];
    if (!applyWhole(tree, copy, transactions) || !applyChanges(tree, copy, transactions))
        tree.notBefore = Clock::now() + LongPause;
    m_store.setTime(0);
}

/// False when the store failed.
bool Sharing::applyWhole(Tree& tree, SharedCopy& copy, Transactions& transactions)
{
    if (!tree.waiting.whole)
        return true;
    const int64_t revision = tree.waiting.whole->revision;
    std::vector<engine::Revision> pieces;
    const auto compare = [&] { pieces = copy.difference(std::vector(tree.waiting.whole->entries), revision); };
    if (!transactions.runOne(compare))
        return false;
    for (const engine::Revision& piece : pieces)
        if (!transactions.runOne([&] { copy.apply(piece, true); }))
            return false;
    if (!transactions.runOne([&] { copy.setRevision(revision); }))
        return false;
    tree.waiting.whole.reset();
    tree.pView->revision = revision;
    return true;
}

/// In transactions of a bounded size. False when the store failed.
bool Sharing::applyChanges(Tree& tree, SharedCopy& copy, Transactions& transactions)
{
    std::vector<engine::Revision>& waiting = tree.waiting.revisions;
    size_t done = 0;
    bool good = true;
    while (good && done < waiting.size()) {
        size_t end = done;
        for (size_t events = 0; end < waiting.size() && events < EventsAtOnce; ++end)
            events += waiting[end].events.size();
        good = transactions.runOne([&] {
            for (size_t i = done; i < end; ++i)
                copy.apply(waiting[i]);
            copy.setRevision(waiting[end - 1].number);
        });
        if (!good)
            break;
        tree.pView->revision = waiting[end - 1].number;
        done = end;
    }
    waiting.erase(waiting.begin(), waiting.begin() + static_cast<ptrdiff_t>(done));
    return good;
}

/// Its change is here. Where the reply says more than that it was done, it is made now.
void Sharing::answer(Job& job)
{
    job.pShared.reset();
    const auto type = job.pOperation->type;
    if (job.pPlan != nullptr || (type != ReqMessage::CreateKeyReqMsgType && type != ReqMessage::QueryValueReqMsgType))
        return;
    SharedCalls calls;
    calls.isDone = true;
    try {
        Session session{m_store, nullptr, job.peer};
        session.pShared = &calls;
        job.reply = job.pOperation->serve(session, job.request.text());
    } catch (const NeedsWriter&) { // somebody else has deleted it already
        refuse(job, OBREG_STATUS_KEY_DELETED);
    } catch (const std::exception&) {
        refuse(job, OBREG_STATUS_STORE_FAILED);
    }
}

JobList Sharing::turn(Transactions& transactions)
{
    for (size_t i = 0; i < m_trees.size(); ++i)
        applyNews(m_trees[i], i, transactions);
    std::vector<std::pair<Place, engine::Outcome>> outcomes;
    {
        const std::lock_guard lock(m_mutex);
        outcomes.swap(m_outcomes);
    }
    for (auto& [place, outcome] : outcomes)
        decide(place, std::move(outcome));
    JobList answered;
    const Clock::time_point now = Clock::now();
    for (auto at = m_underWay.begin(); at != m_underWay.end();) {
        const auto next = std::next(at);
        if (at->is == UnderWay::ToSettle && now >= at->notBefore)
            settle(at);
        const bool isHere = at->is == UnderWay::Done && at->revision <= m_trees[at->tree].pView->revision;
        if (at->pJob != nullptr && (isHere || now >= at->deadline)) {
            if (isHere && at->revision != 0)
                answer(*at->pJob);
            else if (!isHere)
                refuse(*at->pJob, OBREG_STATUS_ENGINE_AWAY);
            at->pJob->pShared.reset();
            answered.append(std::move(at->pJob));
            if (at->is == UnderWay::Done)
                m_underWay.erase(at);
        }
        at = next;
    }
    runAgain(transactions, answered);
    m_ticks = !isIdle();
    return answered;
}

void Sharing::runAgain(Transactions& transactions, JobList& answered)
{
    const Clock::time_point now = Clock::now();
    JobList due;
    for (auto at = m_again.begin(); at != m_again.end();) {
        const auto next = std::next(at);
        if (now >= *at->pJob->pShared->deadline) {
            refuse(*at->pJob, OBREG_STATUS_ENGINE_AWAY);
            answered.append(std::move(at->pJob));
            m_again.erase(at);
        } else if (now >= at->notBefore) {
            due.append(std::move(at->pJob));
            m_again.erase(at);
        }
        at = next;
    }
    while (!due.empty()) {
        const auto next = [&] { return due.empty() ? nullptr : due.pop(); };
        JobList batch = transactions.run(next);
        send(batch);
        answered.append(std::move(batch));
    }
}

} // namespace obregd
