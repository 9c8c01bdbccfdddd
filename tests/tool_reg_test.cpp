// The .reg reader by itself; then a hostile tree through the tool and the real daemon, and out as .reg text and in
// again.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <map>
#include <optional>
#include <sstream>

#include <gtest/gtest.h>

#include "app.h"
#include "errors.h"
#include "moment.h"
#include "support/read_reg.h"
#include "support/running_daemon.h"
#include "text.h"
#include "valuetext.h"

using namespace obregtool;
using namespace std::string_literals;

namespace {

/// Statements as text, one a line.
class Recorder : public RegSink {
public:
    void key(const KeyPath& key, const Place& place) override { add(place) << "key " << key.text() << '\n'; }
    void removeKey(const KeyPath& key, const Place& place) override { add(place) << "-key " << key.text() << '\n'; }
    void value(std::string&& name, obreg::Value&& value, const Place& place) override
    {
        add(place) << name << '=' << value.type << ':' << hexOf(value.data) << '\n';
    }
    void removeValue(std::string&& name, const Place& place) override { add(place) << '-' << name << '\n'; }

    std::ostringstream statements;

private:
    std::ostream& add(const Place& place) { return statements << place.line << ' '; }
};

/// The statements of a text, or its first mistake.
std::string read(std::string_view text, size_t piece)
{
    Recorder recorder;
    const std::string mistake = readReg(text, piece, recorder);
    return mistake.empty() ? recorder.statements.str() : mistake;
}

const std::string Header = "Windows Registry Editor Version 5.00\n";

/// Reads a text in every encoding and in pieces of several sizes; all must come out the same.
std::string readEveryWay(const std::string& text)
{
    const std::string result = read(text, SIZE_MAX);
    std::string crLf;
    for (const char c : text)
        crLf += c == '\n' ? "\r\n" : std::string(1, c);
    for (const std::string& same : {text, crLf, "\xEF\xBB\xBF" + text, "\xFF\xFE" + toUtf16(text), toUtf16(text)})
        for (const size_t piece : {1u, 2u, 7u, 100000u})
            EXPECT_EQ(read(same, piece), result) << text;
    return result;
}

TEST(RegReader, ReadsEveryStatement)
{
    const struct {
        const char* pText;
        const char* pStatements;
    } cases[] = {
        {"", ""},
        {"; comment\n\n  ; another", ""},
        {"[HKLM\\a]\n[hkey_users\\B\\]", "2 key HKEY_LOCAL_MACHINE\\a\n3 key HKEY_USERS\\B\n"},
        {"[HKCU\\a/b]c] ; d", "2 key HKEY_CURRENT_USER\\a/b]c\n"},
        {"[-HKCR\\x]", "2 -key HKEY_CLASSES_ROOT\\x\n"},
        {"[HKLM\\a]\n@=\"x\"\n\"\"=-", "2 key HKEY_LOCAL_MACHINE\\a\n3 default=1:7800\n4 -default\n"},
        {"[HKLM]\n \"a\\\\b\\\"=\" = \"c\\\\;\" ; d", "2 key HKEY_LOCAL_MACHINE\n3 a\\b\"==1:635c3b00\n"},
        {"[HKLM]\n\"a\"=dword:1\n\"b\"=DWORD:fedcBA98", "2 key HKEY_LOCAL_MACHINE\n3 a=4:01000000\n4 b=4:98badcfe\n"},
        {"[HKLM]\n@=hex:0,f,ff,Ab\n\"x\"=hex(b):1,\\\n  2,\\ ; on it goes\n3 ;\n@=hex(FFFFFFFF):\\\n00",
         "2 key HKEY_LOCAL_MACHINE\n3 default=3:000fffab\n4 x=11:010203\n7 default=4294967295:00\n"},
        {"[HKLM]\n@=hex(0): ; nothing\n\"x\"=hex:", "2 key HKEY_LOCAL_MACHINE\n3 default=0:\n4 x=3:\n"},
        {"[HKLM\\\xC3\xA4\xF0\x9F\x98\x80]\n\"\xFF\xC3\"=\"\xE2\x82\xAC\"",
         "2 key HKEY_LOCAL_MACHINE\\\xC3\xA4\xF0\x9F\x98\x80\n3 \xFF\xC3=1:e282ac00\n"},
    };
    for (const auto& one : cases)
        EXPECT_EQ(readEveryWay(Header + one.pText), one.pStatements) << one.pText;
    EXPECT_EQ(readEveryWay("REGEDIT4\n[HKLM\\a]"), "2 key HKEY_LOCAL_MACHINE\\a\n");
}

TEST(RegReader, NamesTheFirstMistake)
{
    const struct {
        const char* pText;
        const char* pPlace;
        const char* pPart;
    } cases[] = {
        {"@=\"x\"", "line 2, column 1", "[key] before"},
        {"[HKLM\\a]\n[-HKLM\\a]\n@=\"x\"", "line 4, column 1", "[key] before"},
        {"[HKLM\\a", "line 2, column 8", "]"},
        {"[Software\\a]", "line 2, column 2", "HKLM"},
        {"[-HKLM]", "line 2, column 3", "root cannot be deleted"},
        {"junk", "line 2, column 1", "found 'j'"},
        {"[HKLM]\n\"a\"=\"c:\\dir\"", "line 3, column 9", "twice"},
        {"[HKLM]\n\"a\"=\"b\" c", "line 3, column 9", "end of the line"},
        {"[HKLM]\n\"@\"=\"b\"", "line 3, column 1", "another name"},
        {"[HKLM]\n\"a\"=dword:123456789", "line 3, column 19", "digits"},
        {"[HKLM]\n\"a\"=hex:,", "line 3, column 9", "digits"},
        {"[HKLM]\n\"a\"=\"b\nc", "line 5, column 1", "begins in line 3"},
        {"[HKLM]\n\"a\"=\"b\n\"c\"=\"d\"", "line 4, column 2", "begins in line 3"},
        {"[HKLM]\n\"a\"=hex(:00", "line 3, column 9", "type"},
        {"[HKLM]\n\"a\"=hex:00,\\\n  11,xx", "line 4, column 6", "digits"},
        {"[HKLM]\n\"a\"=hex:00,\\", "line 4, column 1", "more bytes"},
    };
    for (const auto& one : cases) {
        const std::string mistake = readEveryWay(Header + one.pText);
        EXPECT_EQ(mistake.find(one.pPlace), 0u) << mistake << " for " << one.pText;
        EXPECT_NE(mistake.find(one.pPart), std::string::npos) << mistake << " for " << one.pText;
    }
    for (const std::string& noHeader : {""s, "\n"s + Header, "Windows Registry Editor Version 6.00"s, "[HKLM]"s,
                                        "\xFE\xFF\0W"s, "\0W\0i"s, "\xFF\xFE\0\0W\0\0\0"s})
        EXPECT_EQ(read(noHeader, 1).find("line 1, column 1: expected "), 0u) << hexOf(noHeader);
    EXPECT_NE(read("\xFF\xFE" + toUtf16(Header) + 'x', 3).find("whole UTF-16"), std::string::npos);
    EXPECT_NE(read(Header + "[HKLM]\n\"a\"=\"\0\""s, 9).find("NUL"), std::string::npos);
}

TEST(RegReader, AStringMayRunOverALineEndWhichStaysWhatItIs)
{
    const std::string text = Header + "[HKLM]\n\"a\"=\"b\r\n\n\\\"\" ; c\n@=\"\"";
    for (const size_t piece : {1u, 9u})
        EXPECT_EQ(read(text, piece), "2 key HKEY_LOCAL_MACHINE\n3 a=1:620d0a0a2200\n6 default=1:00\n");
}

TEST(RegReader, ConvertsUtf16OrWarnsOfIt)
{
    const struct {
        const char* pData;
        const char* pConverted;
        uint64_t alike;
    } cases[] = {
        {"hex(2):61,00,62,00,00,00", "616200", 1},
        {"hex(7):61,00,00,00,ac,20,00,00,00,00", "6100e282ac0000", 1},
        {"hex(7):61,00,62,63,00,00", "61e68da200", 0}, // two strings as they stand
        {"hex(1):61,00", "61", 0},
        {"hex:61,00,62,00,00,00", "610062000000", 0},
        {"\"ab\"", "616200", 0},
    };
    for (const auto& one : cases) {
        Recorder recorder;
        RegReader reader(recorder, true);
        RegReader asIs(recorder);
        for (RegReader* const pReader : {&asIs, &reader}) {
            recorder.statements.str("");
            pReader->feed(Header + "[HKLM]\n@=" + one.pData);
            pReader->finish();
        }
        const std::string statements = recorder.statements.str();
        EXPECT_EQ(statements.substr(statements.rfind(':') + 1), std::string(one.pConverted) + '\n') << one.pData;
        EXPECT_EQ(asIs.utf16Alike(), one.alike) << one.pData;
    }
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/// All short strings of bytes that mean something somewhere.
std::vector<std::string> everyShortData()
{
    static const std::string pieces[] = {"\0"s, "a", "\"", ", ", "\\", "x61", "\n", "\x1B", "\xFF", "hex:", "61"};
    std::vector<std::string> all = {""};
    for (size_t begin = 0; all.size() < 10000;)
        for (const size_t end = all.size(); begin < end; ++begin)
            for (const std::string& piece : pieces)
                all.push_back(all[begin] + piece);
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all;
}

TEST(ValueText, NoTwoValuesLookAlikeAndTextComesBack)
{
    const std::vector<std::string> datas = everyShortData();
    for (const UINT32 type : {REG_NONE, REG_SZ, REG_DWORD, REG_MULTI_SZ, REG_QWORD, REG_DWORD_BIG_ENDIAN}) {
        std::map<std::string, std::string> seen[4];
        for (const std::string& data : datas) {
            const obreg::Value value{type, data};
            std::string texts[4];
            writeData(value, [&](std::string_view piece) { texts[0] += piece; });
            texts[1] = shownData(value);
            const bool bare = writeBare(value, [&](std::string_view piece) { texts[2] += piece; });
            texts[3] = escaped(texts[2], Escape::Screen);
            for (size_t form = 0; form < (bare ? 4u : 2u); ++form)
                EXPECT_EQ(seen[form].emplace(texts[form], data).first->second, data) << typeName(type) << texts[form];
            const bool list = meaningOf(value).kind == Meaning::List;
            const std::string again =
                bare && !data.empty() ? valueOfArguments(type, list ? linesOf(texts[2]) : std::vector{texts[2]}).data
                                      : bytesOfHex(texts[2].substr(type == REG_NONE ? 0 : 4)).value_or("no bytes");
            EXPECT_EQ(again, data) << typeName(type) << texts[2];
        }
    }
}

/// Plants keys and values whose names and data want to break something: every pair of the pieces.
void plant(const std::string& top)
{
    static const std::string pieces[] = {
        // clang-format off
        "a", "B", "]", "[-", "\"", "\\", "=", ";", "@", ",", " ", "/", "-", "\xC3\xA4", "\xFF", "\x80", "%s", "\x7F",
        "\xC3", "\xED\xB2\x80", "'", "\xF0\x9F\x98\x80", "default", "hex:"
        // clang-format on
    };
    std::string everyByte;
    for (int i = 0; i < 3000; ++i)
        everyByte += static_cast<char>(i);
    UINT32 type = 0;
    for (const std::string& piece : pieces) {
        const obreg::Key key = obreg::Key::create(obreg::localMachine(), piece == "\\" ? top : top + '\\' + piece);
        key.set("", obreg::Value{~type, everyByte});
        for (const std::string& other : pieces)
            key.set(piece + other, obreg::Value{++type % 14, other + piece + std::string(type % 3, '\0')});
    }
}

int tool(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "obreg");
    return runTool(static_cast<int>(arguments.size()), arguments.data());
}

TEST(Tool, AHostileTreeSurvivesExportAndImport)
{
    const FreshDaemon daemon;
    const std::string file = testing::TempDir() + "obreg.reg";
    plant("Twin");
    for (const char* const pFormat : {"--yes", "--utf16", "--regedit4"}) {
        SCOPED_TRACE(pFormat);
        plant("Tree");
        ASSERT_EQ(tool({"export", "HKLM/Tree", file.c_str(), "--yes", pFormat}), 0);
        ASSERT_EQ(tool({"delete", "HKLM/Tree", "--yes"}), 0);
        ASSERT_EQ(tool({"import", file.c_str()}), 0);
        EXPECT_EQ(tool({"compare", "HKLM/Tree", "HKLM/Twin", "-s"}), 0);
    }
}

TEST(Moment, OfALocalClockThatIsSetForwardAndBack)
{
    constexpr const char* Europe = "CET-1CEST,M3.5.0,M10.5.0/3";
    constexpr const char* AtMidnight = "<-04>4<-03>,M9.1.0/0,M4.1.0/0"; // set back to 23:00
    constexpr const char* ToMidnight = "<-05>5<-04>,M3.2.0/0,M11.1.0/1";
    const struct {
        const char *pZone, *pText, *pSays; ///< the same with a zone, or what a refusal has
    } rows[] = {
        {Europe, "2026-10-25 01:59:59", "2026-10-24 23:59:59Z"},
        {Europe, "2026-10-25 02:30",
         "twice: it is set back; write the zone behind it: '2026-10-25 02:30 +0200' or "
         "'2026-10-25 02:30 +0100'"},
        {Europe, "2026-10-25 03:00", "2026-10-25 02:00Z"},
        {Europe, "2026-03-29 01:59", "2026-03-29 00:59Z"},
        {Europe, "2026-03-29 02:30", "never shows"},
        {Europe, "2026-03-29 03:00", "2026-03-29 01:00Z"},
        {Europe, "2026-03-29 02:30 +0100", "2026-03-29 01:30Z"},
        {Europe, "2026-02-30", "no time"},
        {AtMidnight, "2026-09-06", "2026-09-06 04:00Z"}, // its first moment shows 01:00
        {AtMidnight, "2026-09-06 00:30", "never shows"},
        {ToMidnight, "2026-11-01", "2026-11-01 04:00Z"}, // 00:00 comes again an hour later
        {ToMidnight, "2026-11-01 00:00", "twice"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.pText);
        setenv("TZ", row.pZone, 1);
        tzset();
        std::optional<uint64_t> at;
        std::string refusal;
        try {
            at = momentArgument(row.pText).at;
        } catch (const UsageError& error) {
            refusal = error.what();
        }
        EXPECT_EQ(at.has_value(), std::isdigit(*row.pSays) != 0) << refusal;
        if (at)
            EXPECT_EQ(*at, momentArgument(row.pSays).at);
        else
            EXPECT_NE(refusal.find(row.pSays), std::string::npos) << refusal;
    }
    unsetenv("TZ");
    tzset();
}

} // namespace
