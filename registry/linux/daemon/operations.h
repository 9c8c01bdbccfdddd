// The ten operations of the registry: one table, and one way to serve an entry of it.
//
// An operation reads the request from its text, runs, and writes the response to text. It runs in a session: a store
// and the peer whose rights count. In a session without a writable store an operation that finds something to write
// throws NeedsWriter before it has changed anything, and is served again, from the beginning, in a session that has
// one.
//
// No state of its own: any thread, with that thread's store.
#ifndef OBREG_DAEMON_OPERATIONS_H
#define OBREG_DAEMON_OPERATIONS_H

#include <memory>
#include <string_view>

#include "common/msgproto.h"
#include "daemon/dynamic.h"
#include "daemon/figures.h"
#include "daemon/plan.h"
#include "daemon/store/store.h"

namespace obregd {

inline constexpr REGSTATUS Success = OBREG_STATUS_SUCCESS;

struct NeedsWriter {};

/// Thrown where a session may wait: there is nothing to tell yet, or it is others' waits that are to end.
struct MustWait {
    Wait wait;
};

/// Thrown by a session that cannot write: the request is a transaction, which has been read. It is carried out
/// (carryout.h), not served again.
struct Planned {
    std::shared_ptr<const Plan> pPlan;
};

/// What a session has to do with trees that are shared with other machines (serve/sharedtrees.h).
struct SharedCalls {
    /// What a transaction's condition has looked at: a key, by the path from one that is there, and perhaps more.
    struct LookedAt {
        KeyId key;
        std::string path;
        std::optional<std::string> value{}; ///< its value of that name, there or not
        bool isWholeTree = false;           ///< that nothing in it has changed
    };
    std::vector<LookedAt> lookedAt{};
    std::optional<size_t> sync{}; ///< it is to be answered when all is here that the engine has by now of that tree
    bool isDone = false;          ///< the request was carried out before, and only its answer is to be made
};

struct Session {
    Store& store;
    WritableStore* pWriter; ///< the same store when it can be written, else null
    Peer peer;
    bool mayWait = false;
    size_t maxStatements = DefaultMaxStatements; ///< of a transaction
    bool quotaLater = false;                     ///< somebody looks at the quota when all is done
    SharedCalls* pShared = nullptr;              ///< where trees are shared

    /// Where the key of that number is to be found.
    Tree& at(KeyId id) const
    {
        if (id >= PerformanceId && id < FirstKeyId)
            return figureTree();
        if (id > LastKeyId)
            return dynamicTree();
        return store;
    }
    WritableStore& writer() const
    {
        if (pWriter == nullptr)
            throw NeedsWriter();
        return *pWriter;
    }
};

/// A response as text. None when there was no response to make: the client then gets an error packet.
struct Reply {
    std::unique_ptr<char[]> pText;
    int length = 0;
};

struct Operation {
    ReqMessage::MessageTypes type;
    /// Writes as a rule, so it is not even tried without a writable store.
    bool writes;
    /// Takes something away and adds nothing: done even when the disk is full.
    bool frees;
    /// No text when the request cannot be decoded. Throws NeedsWriter, Planned, MustWait, TooLong,
    /// SQLite::Exception or std::bad_alloc.
    Reply (*serve)(const Session& session, std::string_view request);
    /// The response that gives a status and nothing else.
    Reply (*refuse)(REGSTATUS status);
};

/// The answer to a query of changes whose wait is over; nothing when there is nothing to tell and the time is not up.
/// The wait goes on from what was looked at.
std::optional<Reply> tellChanges(Store& store, Wait& wait, bool timeIsUp);

/// The answer to a query that has ended as many waits.
Reply tellEnded(size_t waits);
/// Whether a request to set a value is a transaction. It is to be served in a session that cannot write.
bool isTransaction(const Operation& operation, std::string_view request);

/// The operation that a request asks for by its first line; null when there is none of that name.
const Operation* findOperation(std::string_view request);

} // namespace obregd

#endif
