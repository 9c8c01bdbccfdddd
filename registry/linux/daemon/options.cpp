#include "daemon/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "common/channelproto.h"
#include "daemon/files.h"

namespace obregd {

namespace {

void addSharing(CLI::App& app, SharingOptions& sharing)
{
    const auto addShare = [&sharing](const std::string& text) {
        try {
            sharing.shares.push_back(parseShare(text));
        } catch (const std::runtime_error& error) {
            throw CLI::ValidationError("--share", error.what());
        }
    };
    CLI::Option* const pEngine = app.add_option("--engine", sharing.engine.endpoints,
                                                "Where the members of the engine are, https://HOST:PORT, with commas "
                                                "between them")
                                     ->type_name("URLS")
                                     ->delimiter(',');
    const auto need = [pEngine](CLI::Option* pOption) { return pOption->needs(pEngine); };
    need(app.add_option_function<std::string>("--share", addShare,
                                              "Share a key, with all below it, with other machines under a name, as "
                                              "'HKLM\\Shared=NAME'; may be given again")
             ->type_name("KEY=NAME")
             ->take_all()
             ->trigger_on_parse());
    need(app.add_option("--engine-ca", sharing.engine.authority, "Certificates that the engine's is checked with"))
        ->type_name("FILE");
    need(app.add_option("--engine-cert", sharing.engine.certificate, "Certificate to show to the engine"))
        ->type_name("FILE");
    need(app.add_option("--engine-key", sharing.engine.key, "Its key"))->type_name("FILE");
    need(app.add_option("--engine-user", sharing.engine.user, "Name to give to the engine"))->type_name("NAME");
    need(app.add_option("--engine-password", sharing.passwordFile, "File whose first line is the password"))
        ->type_name("FILE");
    need(app.add_option("--engine-patience", sharing.patience,
                        "Time for which a write waits for the engine before it is refused"))
        ->type_name("SECONDS")
        ->capture_default_str();
    need(app.add_option("--engine-library", sharing.library, "The engine's library [that of the package obregd-etcd]"))
        ->type_name("FILE");
}

} // namespace

std::optional<Options> parseOptions(int argc, const char* const* argv, int* pExitCode)
{
    Options options;
    Limits& limits = options.limits;
    CLI::App app("The registry daemon: keeps the registry in a file and answers the clients of a local socket.\n"
                 "Runs in the foreground; SIGTERM or SIGINT stops it after it has answered what it has begun.",
                 "obregd");
    app.set_version_flag("--version", "obregd " OBREG_VERSION, "Print the version and exit");
    app.add_option("--socket", options.socketPath, "Socket to listen on")->type_name("PATH")->capture_default_str();
    app.add_option("--store", options.storePath, "File that keeps the registry [registry.db beside the socket]")
        ->type_name("PATH");
    CLI::Validator asSize = CLI::AsSizeValue(false);
    asSize.description("");
    CLI::Validator inRange = CLI::Range(size_t{1024}, size_t{MaxPayloadLength});
    inRange.description("");
    app.add_option("--max-payload", limits.maxPayload, "Longest request, 1K to 256M")
        ->transform(asSize)
        ->check(inRange)
        ->type_name("SIZE")
        ->default_str("64M");
    app.add_option("--max-queued", limits.maxQueued, "Replies that may wait for one client [2 x max-payload]")
        ->transform(asSize)
        ->type_name("SIZE");
    app.add_option("--max-held", limits.maxHeld, "Requests and replies that may be held for all clients")
        ->transform(asSize)
        ->type_name("SIZE")
        ->default_str("1G");
    app.add_option("--quota-held", limits.maxHeldPerUser,
                   "The same for all clients of one user [max-held / 2, at least 2 x max-payload]")
        ->transform(asSize)
        ->type_name("SIZE");
    app.add_option("--quota-bytes", options.quota.bytes, "Names and data that a user's tree may hold")
        ->transform(asSize)
        ->type_name("SIZE")
        ->default_str("1G");
    app.add_option("--quota-keys", options.quota.keys, "Keys that a user's tree may hold")
        ->type_name("NUMBER")
        ->capture_default_str();
    app.add_option("--quota-requests", limits.maxRequests, "Requests of one user in a second; 0: any number")
        ->type_name("NUMBER")
        ->capture_default_str();
    app.add_option("--history", options.history,
                   "What the store may keep of changes and of what was there before; 0: hardly any")
        ->transform(asSize)
        ->type_name("SIZE")
        ->default_str("64M");
    const auto addSecret = [&options](const std::string& text) {
        std::optional<SecretPattern> pattern = secretPattern(text);
        if (!pattern)
            throw CLI::ValidationError("--secret", text + " names no key; write HKLM, HKCR or HKU and the names below "
                                                          "it, with * for any text, such as 'HKU\\*\\Passwords'");
        options.secrets.push_back(*std::move(pattern));
    };
    app.add_option_function<std::string>("--secret", addSecret,
                                         "Keys, with all below them, of whose values no former data is kept; may be "
                                         "given again")
        ->type_name("PATTERN")
        ->take_all()
        ->trigger_on_parse();
    app.add_option("--quota-watches", limits.maxWatches, "Requests of one user that wait for changes")
        ->type_name("NUMBER")
        ->capture_default_str();
    app.add_option("--max-statements", limits.maxStatements,
                   "Statements of a transaction; of root's ten times as many; and 512 bytes of text for each")
        ->check(CLI::PositiveNumber.description(""))
        ->type_name("NUMBER")
        ->capture_default_str();
    app.add_option("--max-per-user", limits.maxPerUser, "Connections of one user [half of the descriptors]")
        ->check(CLI::PositiveNumber.description(""))
        ->type_name("NUMBER");
    app.add_option("--max-arrival", limits.maxArrival, "Time for a request to arrive once it has begun")
        ->check(CLI::Range(1, 86400).description(""))
        ->type_name("SECONDS")
        ->capture_default_str();
    addSharing(app, options.sharing);
    CLI::Option* const pCheck = app.add_flag(
        "--check", options.check, "Check the store instead, which a daemon may be using; 1 if it is unsound");
    CLI::Option* const pBackup = app.add_option("--backup", options.backupPath,
                                                "Copy the store, which a daemon may be using, into a new file instead")
                                     ->type_name("FILE")
                                     ->excludes(pCheck);
    app.add_flag("--compact", options.compact,
                 "Give the disk back what the store's file does not use, beside a daemon, instead")
        ->excludes(pCheck)
        ->excludes(pBackup);
    app.add_flag("-v,--verbose", options.verbosity, "Log connections and trace messages; twice for more");
    app.footer("Sizes are in bytes; K, M and G are understood.");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        *pExitCode = app.exit(error);
        return std::nullopt;
    }
    if (app.count("--max-queued") == 0)
        limits.maxQueued = 2 * limits.maxPayload;
    if (app.count("--quota-held") == 0)
        limits.maxHeldPerUser = std::max(limits.maxHeld / 2, 2 * limits.maxPayload);
    limits.maxHeldPerUser = std::min(limits.maxHeldPerUser, limits.maxHeld);
    if (options.storePath.empty())
        options.storePath = folderOf(options.socketPath) + "/registry.db";
    return options;
}

} // namespace obregd
