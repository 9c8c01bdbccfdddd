// transaction.cpp - several values as one: both change or neither does, and only while they are what was read.
#include <iostream>
#include <obreg/transaction.hpp>

using namespace obreg;

namespace {

/// Moves an amount from one account to the other, whoever else does the same at the same time.
void transfer(const Key& accounts, const std::string& from, const std::string& to, UINT32 amount)
{
    for (;;) {
        const auto has = accounts.get<UINT32>(from);
        const auto had = accounts.get<UINT32>(to);
        Transaction change;
        change.require(accounts, from, has).require(accounts, to, had);
        change.set(accounts, from, has - amount).set(accounts, to, had + amount);
        std::error_code error;
        change.commit(error);
        if (!error)
            return;
        if (error != Status::conditionFailed) // else somebody was faster: read again
            throw std::system_error(error, "transfer");
    }
}

} // namespace

int main()
try {
    const Key accounts = Key::create(currentUser(), "Software\\Example\\Accounts");
    Transaction opening; // the sub-key, too, is there with both values or not at all
    opening.set(accounts, "Ada", UINT32{100}).set(accounts, "Ben", UINT32{5}).set(accounts, "Notes", "Opened by", "me");
    opening.commit();
    transfer(accounts, "Ada", "Ben", 30);
    std::cout << "Ada has " << accounts.get<UINT32>("Ada") << ", Ben has " << accounts.get<UINT32>("Ben") << '\n';

    // One value alone: set to what follows from it, unless somebody else has changed it meanwhile.
    auto visits = accounts.get<UINT32>("Ada");
    while (!compareAndSet(accounts, "Ada", visits, visits + 1))
        visits = accounts.get<UINT32>("Ada");

    try {
        Transaction refused;
        refused.require(accounts, "Ben", UINT32{0}).remove(accounts, "Notes").commit();
    } catch (const std::system_error& failure) {
        std::cout << failure.what() << '\n';
    }
    return 0;
} catch (const std::exception& failure) {
    std::cerr << failure.what() << '\n';
    return 1;
}
