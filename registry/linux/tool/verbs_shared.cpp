// shared: the trees that are shared with other machines.
#include "verbs.h"

namespace obregtool {

namespace {

struct SharedOptions {
    std::string action;
    std::string name;
};

obreg::Key openShares()
{
    std::error_code error;
    obreg::Key shares = obreg::Key::open(obreg::Key::root(HKEY_DYN_DATA), "Shared", KEY_READ, error);
    if (error == obreg::Status::notFound || error == obreg::Status::badHandle)
        throw Failure(ExitNotFound, "nothing is shared with other machines here",
                      "obregd --share says what is (docs/shared.md)");
    check(error, {HKEY_DYN_DATA, "Shared"});
    return shares;
}

int status(const std::string& name, Output& output)
{
    const KeyPath path{HKEY_DYN_DATA, "Shared\\" + name};
    std::error_code error;
    const obreg::Key share = obreg::Key::open(obreg::Key::root(path.root), path.path, KEY_READ, error);
    check(error, path);
    std::string members;
    for (const std::string& member : share.get<obreg::StringList>("Members"))
        members += (members.empty() ? "" : ", ") + member;
    output.fact({"share",
                 {{"name", name, Style::Name},
                  {"state", share.get<std::string>("State")},
                  {"revision", share.get<UINT64>("Revision")},
                  {"lagMs", share.get<UINT64>("Lag")},
                  {"members", members, Style::Faint}}});
    return ExitDone;
}

/// Waits until the copy here is as new as the engine is now.
int sync(const std::string& name, Output& output)
{
    const KeyPath path{HKEY_DYN_DATA, "Shared\\" + name};
    const std::string value = "Sync";
    std::error_code error;
    const obreg::Key share = obreg::Key::open(obreg::Key::root(path.root), path.path, KEY_READ, error);
    check(error, path);
    const auto revision = share.get<UINT64>(value, error);
    check(error, path, &value);
    output.fact({"synced", {{"name", name, Style::Name}, {"revision", revision}}});
    return ExitDone;
}

int shared(const SharedOptions& options, Output& output)
{
    const auto action = options.action == "status" ? status : options.action == "sync" ? sync : nullptr;
    if (action == nullptr)
        throw UsageError("\"" + options.action +
                         "\" is nothing that can be done with what is shared; say status or sync");
    const obreg::Key shares = openShares();
    output.makeList();
    if (!options.name.empty())
        return action(options.name, output);
    for (const obreg::SubKey& share : shares.subKeys())
        action(share.name, output);
    return ExitDone;
}

} // namespace

Run declareShared(Arguments& arguments)
{
    const auto pOptions = std::make_shared<SharedOptions>();
    arguments.text("ACTION", pOptions->action,
                   "status: how it stands with the engine; sync: wait until all is here that the engine has now",
                   Arguments::Required);
    arguments.text("NAME", pOptions->name, "Only this share [all]");
    return [=](Output& output) { return shared(*pOptions, output); };
}

} // namespace obregtool
