// What obregd has answered is there, whole, after a kill and after a power failure, and its store is sound. For the
// power failure, a journal tells what the daemon wrote and when it synchronised; the files are then made anew from what
// was synchronised and, of what was not, some sectors and not others.
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sys/wait.h>
#include <thread>

#include "failures/write_journal.h"
#include "support/raw_client.h"
#include "support/running_daemon.h"
#include "support/scale.h"
#include "support/temporary_folder.h"

using namespace writejournal;

namespace {

constexpr size_t Writers = 16;
constexpr size_t Slots = 3; // values of each writer
constexpr size_t Sector = 512;
const HANDLE Transactions = reinterpret_cast<HANDLE>(uintptr_t{0x80000011});

/// Every other writer writes all its values at once.
bool transacts(size_t writer) { return writer % 2 != 0; }
std::string tokenOf(size_t writer, int number) { return std::to_string(writer) + '-' + std::to_string(number); }

std::string contents(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A value that shows when a piece of it is another's. Its length goes up and down.
std::string valueOf(int number)
{
    const std::string text = std::to_string(number) + ' ';
    std::string value;
    while (value.size() < 20 + static_cast<size_t>(number) * 7919 % 9000)
        value += text;
    return value;
}

std::string nameOf(size_t writer, size_t slot) { return std::to_string(writer) + "." + std::to_string(slot); }

/// The transaction that takes a writer from one number to the next, and which nobody can do twice.
std::string transactionOf(HANDLE key, size_t writer, int number)
{
    std::array<char, 9> handle{};
    std::snprintf(handle.data(), handle.size(), "%08x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(key)));
    const auto line = [&](size_t slot, int of) { return '"' + nameOf(writer, slot) + "\"=\"" + valueOf(of) + "\"\n"; };
    std::string text = "REGEDIT4\n[?#" + std::string(handle.data()) + "]\n";
    text += number == 1 ? '"' + nameOf(writer, 0) + "\"=-\n" : line(0, number - 1);
    text += "[#" + std::string(handle.data()) + "]\n";
    for (size_t slot = 0; slot < Slots; ++slot)
        text += line(slot, number);
    return text;
}

class Durability : public testing::Test {
protected:
    /// The next write of a writer. What he had begun and not been answered he begins again.
    void write(RawClient& client, HANDLE key, size_t writer)
    {
        int& number = m_begun[writer];
        if (!transacts(writer)) {
            const size_t slot = static_cast<size_t>(++number) % Slots;
            if (client.set(key, nameOf(writer, slot), valueOf(number)) == 0)
                m_answered[writer][slot] = number;
            return;
        }
        number = m_answered[writer][0] + 1;
        if (client.set(Transactions, tokenOf(writer, number), transactionOf(key, writer, number)) == 0)
            m_answered[writer].fill(number);
        else
            ADD_FAILURE() << client.query(Transactions, tokenOf(writer, number));
    }

    /// Starts the daemon, lets writers write, kills it at a random moment.
    void writeAndKill()
    {
        m_daemon.start();
        const HANDLE key = RawClient(m_socket).create("K");
        std::vector<std::thread> threads;
        for (size_t i = 0; i < Writers; ++i)
            threads.emplace_back([&, i] {
                try {
                    RawClient client(m_socket);
                    for (;;)
                        write(client, key, i);
                } catch (const std::runtime_error&) { // killed
                }
            });
        usleep(5000 + static_cast<useconds_t>(m_random() % 60000));
        m_daemon.stop(SIGKILL);
        for (std::thread& thread : threads)
            thread.join();
    }

    /// What is in the store is sound, whole, and no older than what was answered.
    void expectAllAnswered()
    {
        const std::string check = std::string(getenv("OBREGD")) + " --check --store " + m_store + " >/dev/null";
        EXPECT_EQ(std::system(check.c_str()), 0) << "the store is not sound";
        m_daemon.start();
        RawClient client(m_socket);
        const HANDLE key = client.create("K");
        for (size_t i = 0; i < Writers; ++i)
            for (size_t slot = 0; slot < Slots; ++slot) {
                const std::string stored = client.query(key, nameOf(i, slot));
                const int number = std::atoi(stored.c_str());
                EXPECT_GE(number, m_answered[i][slot]) << "an answered write is gone";
                EXPECT_LE(number, m_begun[i]);
                EXPECT_TRUE(number == 0 || stored.substr(0, stored.find('\0')) == valueOf(number)) << "half a write";
                EXPECT_TRUE(!transacts(i) || stored == client.query(key, nameOf(i, 0))) << "half a transaction";
                m_checked += m_answered[i][slot] != 0;
            }
        for (size_t i = 1; i < Writers; i += 2)
            expectTokenIsTrue(client, key, i);
        m_daemon.stop(SIGKILL);
    }

    /// Whether the last transaction was done is what its token tells, and sent again it is done once.
    void expectTokenIsTrue(RawClient& client, HANDLE key, size_t writer)
    {
        const int number = m_begun[writer];
        if (number == 0)
            return;
        const bool done = std::atoi(client.query(key, nameOf(writer, 0)).c_str()) == number;
        const std::string told = client.query(Transactions, tokenOf(writer, number));
        EXPECT_EQ(told.substr(0, 4), done ? "done" : "(non");
        if (m_random() % 2 == 0)
            return;
        for (int times = 0; times < 2; ++times)
            EXPECT_EQ(client.set(Transactions, tokenOf(writer, number), transactionOf(key, writer, number)), 0u);
        EXPECT_EQ(std::atoi(client.query(key, nameOf(writer, 0)).c_str()), number);
        m_answered[writer].fill(number);
        ++m_tokens;
    }

    std::string pathOf(File file) const { return m_store + (file == File::Log ? "-wal" : ""); }
    void losePower(const std::map<File, std::string>& before);

    const TemporaryFolder m_folder{"/var/opt/quorlin/ombrel/obregd"};
    const std::string m_socket = m_folder / "s";
    const std::string m_store = m_folder / "durable.db";
    const std::string m_journal = m_folder / "journal";
    // A short journal: each power failure copies and checks the whole store.
    RunningDaemon m_daemon{m_socket, m_store, {"--history=2M"}};
    std::mt19937 m_random{std::random_device{}()};
    std::array<int, Writers> m_begun{};
    std::array<std::array<int, Slots>, Writers> m_answered{};
    long m_checked = 0;
    long m_tokens = 0;
};

/// Makes the files as a power failure may have left them: before, and what the journal says has reached the disk.
void Durability::losePower(const std::map<File, std::string>& before)
{
    const std::string journal = contents(m_journal);
    std::map<File, size_t> synchronised; // up to where in the journal
    const auto forEach = [&](auto action) {
        for (size_t at = 0; at + sizeof(Record) <= journal.size();) {
            Record record;
            std::memcpy(&record, journal.data() + at, sizeof record);
            if (at + sizeof record + record.length > journal.size())
                break;
            action(record, at, std::string_view(journal).substr(at + sizeof record, record.length));
            at += sizeof record + record.length;
        }
    };
    forEach([&](const Record& record, size_t at, std::string_view) {
        if (record.kind == Kind::Sync)
            synchronised[record.file] = at;
    });

    std::map<File, std::string> files = before;
    forEach([&](const Record& record, size_t at, std::string_view bytes) {
        std::string& file = files[record.file];
        const bool safe = at < synchronised[record.file];
        if (record.kind == Kind::Truncate && (safe || m_random() % 2 == 0))
            file.resize(static_cast<size_t>(record.offset));
        for (size_t from = 0; record.kind == Kind::Write && from < bytes.size(); from += Sector) {
            if (!safe && m_random() % 2 == 0)
                continue;
            const std::string_view piece = bytes.substr(from, Sector);
            const size_t to = static_cast<size_t>(record.offset) + from;
            file.resize(std::max(file.size(), to + piece.size()));
            file.replace(to, piece.size(), piece);
        }
    });
    std::filesystem::remove(m_store + "-shm");
    for (const auto& [file, bytes] : files)
        std::ofstream(pathOf(file), std::ios::binary) << bytes;
}

} // namespace

TEST_F(Durability, AfterAKillAndAfterAPowerFailure)
{
    m_daemon.start(); // makes the store
    m_daemon.stop(SIGKILL);
    const int rounds = scaled(50);
    int powerFailures = 0;
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        const bool losesPower =
            round % 2 != 0 && Slower == 1; // a sanitizer's runtime must be loaded before the journal
        std::map<File, std::string> before;
        for (const File file : {File::Store, File::Log})
            before[file] = contents(pathOf(file));
        std::filesystem::remove(m_journal);
        setenv("OBREG_JOURNAL", m_journal.c_str(), 1);
        setenv("LD_PRELOAD", losesPower ? getenv("OBREG_WRITE_JOURNAL") : "", 1);
        writeAndKill();
        unsetenv("LD_PRELOAD");
        if (losesPower) {
            losePower(before);
            ++powerFailures;
        }
        expectAllAnswered();
    }
    EXPECT_GT(m_checked, rounds);
    EXPECT_GT(m_tokens, rounds);
    std::printf("FIGURE durability: %d kills, %d of them power failures, %ld answered writes found again, "
                "%ld transactions sent again\n",
                rounds, powerFailures, m_checked, m_tokens);
}
