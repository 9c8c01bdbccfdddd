// Whose turn it is: users take turns, and so do the connections of one user.
//
// So the share that one user gets depends on how many others want something, and not on how many connections he has
// opened or how much he has asked for on each. The serving thread's time, the readers and the places in a batch of
// writes are all handed out in this way.
//
// Entering, leaving and taking allocate nothing: everybody brings a place in the ring along. No lock of its own: who
// owns a Turns guards it and the places in it.
#ifndef OBREG_DAEMON_SERVE_TURNS_H
#define OBREG_DAEMON_SERVE_TURNS_H

#include <list>

namespace obregd {

/// Those who wait, in the order in which they came. Each waits in one ring at most.
template <class Owner>
class Ring {
public:
    class Place {
    public:
        explicit Place(Owner& owner) : m_node{&owner}, m_self(m_node.begin()) {}
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        bool waits() const { return m_node.empty(); }

    private:
        friend class Ring;
        std::list<Owner*> m_node; // the place itself, while it is in no ring
        typename std::list<Owner*>::iterator m_self;
    };

    bool empty() const { return m_waiting.empty(); }
    auto begin() const { return m_waiting.begin(); }
    auto end() const { return m_waiting.end(); }

    /// To the end, unless it waits already.
    void enter(Place& place) { m_waiting.splice(m_waiting.end(), place.m_node); }

    /// It waits in this ring, or in none.
    void leave(Place& place)
    {
        if (place.waits())
            place.m_node.splice(place.m_node.end(), m_waiting, place.m_self);
    }

private:
    std::list<Owner*> m_waiting;
};

/// The two rings, one in the other. Owner is what belongs to a connection.
template <class Owner>
class Turns {
public:
    /// What belongs to a user; lives longer than the places of the user's connections.
    class User {
    public:
        User() = default;

    private:
        friend class Turns;
        typename Ring<User>::Place m_place{*this};
        Ring<Owner> m_ring;
    };

    /// What belongs to a connection; to be taken out before it is destroyed.
    class Place {
    public:
        Place(Owner& owner, User& user) : m_place(owner), m_user(user) {}
        bool waits() const { return m_place.waits(); }

    private:
        friend class Turns;
        typename Ring<Owner>::Place m_place;
        User& m_user;
    };

    bool empty() const { return m_users.empty(); }

    /// At the end of the user's turns, unless it waits already.
    void enter(Place& place)
    {
        place.m_user.m_ring.enter(place.m_place);
        m_users.enter(place.m_user.m_place);
    }

    void leave(Place& place)
    {
        place.m_user.m_ring.leave(place.m_place);
        if (place.m_user.m_ring.empty())
            m_users.leave(place.m_user.m_place);
    }

    /// The one whose turn it is, of those that may have it now; null when there is none. It waits on until leave() or
    /// passOn() is called for it.
    template <class May>
    Owner* next(May may) const
    {
        for (const User* pUser : m_users)
            if (Owner* const pOwner = *pUser->m_ring.begin(); may(*pOwner))
                return pOwner;
        return nullptr;
    }
    Owner* next() const
    {
        return next([](const Owner&) { return true; });
    }

    /// It has had its turn: the user's other connections and the other users come before its next one. It goes on
    /// waiting for that only if `again`.
    void passOn(Place& place, bool again)
    {
        place.m_user.m_ring.leave(place.m_place);
        m_users.leave(place.m_user.m_place);
        if (again)
            place.m_user.m_ring.enter(place.m_place);
        if (!place.m_user.m_ring.empty())
            m_users.enter(place.m_user.m_place);
    }

private:
    Ring<User> m_users;
};

} // namespace obregd

#endif
