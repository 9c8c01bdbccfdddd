#include "daemon/carryout.h"

#include "daemon/govern/names.h"
#include "daemon/handlers.h"
#include "obreg/roots.h"
#include "obreg/status.hpp"

namespace obregd {

namespace {

constexpr int64_t ChangesLookedAt = 10'000; // by the conditions of one transaction: some ten milliseconds
constexpr UINT32 CountedValues = 1000;      // of a key that is deleted; more are cleared away later

std::string meaningOf(REGSTATUS status)
{
    const obreg::StatusText* const pText = obreg::statusText(status);
    return pText == nullptr ? "it failed" : pText->sentence;
}

class CarryingOut {
public:
    CarryingOut(const Session& session, const Plan& plan)
        : m_session(session), m_plan(plan), m_steps(plan.steps.size()), m_limited(isLimited(session.peer, ownOwner())),
          m_before(session.writer().usage(ownOwner())), m_workBefore(session.writer().work())
    {}

    void judgeConditions()
    {
        for (const Step& step : m_plan.steps) {
            if (step.isOfKey())
                m_pKey = &step;
            if (step.isCondition())
                judge(step);
        }
    }

    /// Returns whether keys or values were added.
    bool act()
    {
        for (const Step& step : m_plan.steps) {
            if (step.isOfKey())
                m_pKey = &step;
            if (!step.isCondition())
                act(step);
        }
        if (m_pOverQuota != nullptr)
            refuse(OBREG_STATUS_QUOTA_EXCEEDED, *m_pOverQuota);
        return m_added;
    }

    size_t steps() const { return m_steps; }

private:
    Owner ownOwner() const { return static_cast<Owner>(m_session.peer.uid); }

    [[noreturn]] void refuse(REGSTATUS status, const Step& step, const std::string& why) const
    {
        const Step& key = m_pKey == nullptr ? step : *m_pKey; // the reader lets no other step come first
        throw Refused{status, step.place, subjectOf(key, step.isOfValue() ? &step : nullptr) + ": " + why};
    }
    [[noreturn]] void refuse(REGSTATUS status, const Step& step) const { refuse(status, step, meaningOf(status)); }

    void check(REGSTATUS status, const Step& step) const
    {
        if (status != Success)
            refuse(status, step);
    }

    /// A key that is there, or the status that says why it is none.
    REGSTATUS open(HANDLE root, const std::string& path, HANDLE& key) const
    {
        return openKey(m_session, OpenKeyReqMsg(root, path.c_str(), 0, 0), key);
    }

    void judge(const Step& step)
    {
        const auto require = [&](bool holds, const char* pWhy) {
            if (!holds)
                refuse(OBREG_STATUS_CONDITION_FAILED, step, pWhy);
        };
        lookAt(step);
        if (step.isOfKey()) {
            const REGSTATUS status = open(step.root, step.name, m_key);
            const bool isMissing = status == OBREG_STATUS_NOT_FOUND || status == OBREG_STATUS_KEY_DELETED;
            if (!isMissing)
                check(status, step);
            return require(isMissing == (step.kind == Step::RequireNoKey), isMissing ? "is missing" : "exists");
        }
        if (step.kind == Step::RequireUnchanged)
            return judgeUnchanged(step);
        if (dynamicKey(m_key) != 0) // some look through the journal: too long for the thread that writes
            refuse(OBREG_STATUS_BAD_TRANSACTION, step, "what is made on demand is no condition");
        UINT32 type = 0;
        const char* pData = nullptr;
        UINT32 length = 0;
        const REGSTATUS status = queryValue(m_session, QueryValueReqMsg(m_key, step.name.c_str()), type, pData, length);
        if (status != OBREG_STATUS_NOT_FOUND)
            check(status, step);
        const bool isThere = status == Success;
        if (step.kind == Step::RequireNoValue)
            return require(!isThere, "exists");
        require(isThere, "is missing");
        require(type == step.value.type, "is of another type");
        require(std::string_view(pData, length) == step.value.data, "is another");
    }

    /// Where trees are shared the others are to find it so, too.
    void lookAt(const Step& step) const
    {
        SharedCalls* const pShared = m_session.pShared;
        if (pShared == nullptr || m_pKey == nullptr)
            return;
        const KeyId root = storedKey(m_session, m_pKey->root);
        if (root == 0)
            return;
        SharedCalls::LookedAt looked{root, m_pKey->name};
        if (step.isOfValue())
            looked.value = step.name;
        looked.isWholeTree = step.kind == Step::RequireUnchanged;
        pShared->lookedAt.push_back(std::move(looked));
    }

    void judgeUnchanged(const Step& step)
    {
        const KeyId key = storedKey(m_session, m_key);
        if (key == 0)
            refuse(OBREG_STATUS_BAD_TRANSACTION, step, "what is made on demand is no condition");
        const auto since = static_cast<int64_t>(std::min<uint64_t>(step.since, INT64_MAX - 1));
        switch (m_session.store.changedSince(key, since, m_changesLeft)) {
        case Store::Changed::No:
            return;
        case Store::Changed::Yes:
            refuse(OBREG_STATUS_CONDITION_FAILED, step, "has changed after change " + std::to_string(step.since));
        case Store::Changed::Unknown:
            refuse(OBREG_STATUS_CONDITION_FAILED, step,
                   "may have changed after change " + std::to_string(step.since) + ", which is too long ago to tell");
        }
    }

    void act(const Step& step)
    {
        switch (step.kind) {
        case Step::MakeKey: {
            const UINT32 access = step.name.empty() ? 0 : KEY_WRITE; // a root is there, whoever may write in it
            UINT32 disposition = 0;
            check(createKey(m_session, {step.root, step.name.c_str(), 0, access}, m_key, disposition), step);
            m_added = m_added || disposition == REG_CREATED_NEW_KEY;
            break;
        }
        case Step::RemoveKey:
            removeTree(step);
            break;
        case Step::SetValue: {
            const std::string& data = step.value.data;
            check(setValue(m_session, {m_key, step.name.c_str(), step.value.type, data.data(),
                                       static_cast<UINT32>(data.size()), ValueData::Borrowed}),
                  step);
            m_added = true;
            break;
        }
        default: {
            const REGSTATUS status = deleteValue(m_session, DeleteValueReqMsg(m_key, step.name.c_str()));
            if (status != OBREG_STATUS_NOT_FOUND)
                check(status, step);
        }
        }
        checkWork(step);
        lookAtQuota(step);
    }

    /// Remembers since which step more is taken than may be.
    void lookAtQuota(const Step& step)
    {
        if (!m_limited)
            return;
        if (m_session.writer().fitsQuota(ownOwner(), m_before))
            m_pOverQuota = nullptr;
        else if (m_pOverQuota == nullptr)
            m_pOverQuota = &step;
    }

    /// Key by key, from below, without recursion: a tree may be deeper than a stack.
    void removeTree(const Step& step)
    {
        struct Level {
            HANDLE parent;
            std::string name;
            HANDLE key;
        };
        std::vector<Level> way;
        const auto enter = [&](HANDLE parent, const std::string& name) {
            HANDLE key = nullptr;
            const REGSTATUS status = open(parent, name, key);
            if (status == OBREG_STATUS_NOT_FOUND && way.empty())
                return;
            check(status, step);
            way.push_back({parent, name, key});
        };
        enter(step.root, step.name);
        while (!way.empty()) {
            const char* pName = nullptr;
            UINT64 written = 0;
            if (enumKey(m_session, EnumKeyReqMsg(way.back().key, 0), pName, written) == Success) {
                enter(way.back().key, std::string(pName));
                continue;
            }
            const auto& [parent, name, key] = way.back();
            countRemoved(reinterpret_cast<uintptr_t>(key), step, way.size() > 1);
            check(deleteKey(m_session, DeleteKeyReqMsg(parent, name.c_str())), step);
            way.pop_back();
        }
    }

    /// A key below one that is deleted counts like a statement, and so do the values that are deleted at once.
    void countRemoved(uintptr_t handle, const Step& step, bool isBelow)
    {
        const auto key = m_session.store.key(static_cast<KeyId>(handle));
        m_steps += (isBelow ? 1 : 0) + (key && key->values <= CountedValues ? key->values : 0);
        atMost(m_steps, m_plan.mostSteps, "statements, with the keys and values that go with a key", step);
    }

    /// What statements bring along keeps the others' writes waiting as well.
    void checkWork(const Step& step) const
    {
        const auto& [keys, bytes] = m_session.writer().work();
        atMost(keys - m_workBefore.keysMade, m_plan.mostSteps, "new keys", step);
        atMost(bytes - m_workBefore.bytesGivenBack, m_plan.mostSteps * GivenBackPerStatement,
               "bytes of values that it replaces or deletes", step);
    }

    void atMost(uint64_t number, uint64_t most, const char* pWhat, const Step& step) const
    {
        if (number > most)
            refuse(OBREG_STATUS_TOO_LARGE, step, "a transaction has at most " + std::to_string(most) + ' ' + pWhat);
    }

    const Session& m_session;
    const Plan& m_plan;
    size_t m_steps;
    const bool m_limited;
    const Usage m_before;
    const WritableStore::Work m_workBefore;
    const Step* m_pKey = nullptr; // the last step that named a key
    HANDLE m_key = nullptr;       // and that key
    const Step* m_pOverQuota = nullptr;
    bool m_added = false;
    int64_t m_changesLeft = ChangesLookedAt;
};

REGSTATUS doneBefore(const Session& session, const std::string& token, int64_t hash)
{
    const std::optional<Token> known = session.store.token(session.peer.uid, token);
    if (!known)
        return OBREG_STATUS_NOT_FOUND;
    return known->hash == hash ? Success : OBREG_STATUS_TOKEN_USED;
}

} // namespace

Done carryOut(const Session& session, const Plan& plan, const std::function<bool()>& mayAdd)
{
    if (const REGSTATUS before = doneBefore(session, plan.token, plan.hash); before != OBREG_STATUS_NOT_FOUND)
        return {before, 0};
    Session quotaLater = session;
    quotaLater.quotaLater = true;
    CarryingOut carrying(quotaLater, plan);
    try {
        carrying.judgeConditions();
        WritableStore::Savepoint savepoint(session.writer());
        if (carrying.act() && plan.frees && !mayAdd())
            throw Refused{OBREG_STATUS_STORE_FULL, {}, meaningOf(OBREG_STATUS_STORE_FULL)};
        session.writer().addToken(session.peer.uid, plan.token, plan.hash);
        savepoint.keep();
        return {Success, carrying.steps()};
    } catch (const Refused& refused) {
        rememberRefusal(session.peer.uid, plan.token, refused);
        return {refused.status, carrying.steps()};
    }
}

REGSTATUS takeTransaction(const Session& session, const SetValueReqMsg& request)
{
    const std::string& token = request.m_valueName;
    if (!isToken(token))
        return OBREG_STATUS_BAD_NAME;
    std::string_view text(request.m_pValueData, request.m_valueDataLen);
    text = text.substr(0, text.find_last_not_of('\0') + 1);
    if (const REGSTATUS before = doneBefore(session, token, hashOf(text)); before != OBREG_STATUS_NOT_FOUND)
        return before;
    const bool trusted = mayWrite(session.peer, MachineOwner);
    try {
        const size_t most = session.maxStatements * (trusted ? TrustedFactor : 1);
        throw Planned{std::make_shared<const Plan>(makePlan(token, text, most))};
    } catch (const Refused& refused) {
        rememberRefusal(session.peer.uid, token, refused);
        return refused.status;
    }
}

REGSTATUS queryTransaction(const Session& session, const std::string& token, std::string& text)
{
    if (!isToken(token))
        return OBREG_STATUS_BAD_NAME;
    if (const auto done = session.store.token(session.peer.uid, token))
        text = "done " + std::to_string(done->number);
    else if (const auto refused = refusalOf(session.peer.uid, token))
        text = *refused;
    else
        return OBREG_STATUS_NOT_FOUND;
    text += '\0';
    return Success;
}

} // namespace obregd
