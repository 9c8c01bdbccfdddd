// The .reg reader by itself; then a hostile tree through the tool and the real daemon, and out as .reg text and in
// again.
#include <sstream>

#include <gtest/gtest.h>

#include "app.h"
#include "support/read_reg.h"
#include "support/running_daemon.h"
#include "text.h"

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
    for (const std::string& same : {text, crLf, "\xEF\xBB\xBF" + text, "\xFF\xFE" + toUtf16(text)})
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
        {"[HKLM]\n\"a\"=hex:", "line 3, column 9", "empty value"},
        {"[HKLM]\n\"a\"=hex(:00", "line 3, column 9", "type"},
        {"[HKLM]\n\"a\"=hex:00,\\\n  11,xx", "line 4, column 6", "digits"},
        {"[HKLM]\n\"a\"=hex:00,\\", "line 4, column 1", "more bytes"},
    };
    for (const auto& one : cases) {
        const std::string mistake = readEveryWay(Header + one.pText);
        EXPECT_EQ(mistake.find(one.pPlace), 0u) << mistake << " for " << one.pText;
        EXPECT_NE(mistake.find(one.pPart), std::string::npos) << mistake << " for " << one.pText;
    }
    for (const char* const pNoHeader : {"", "Windows Registry Editor Version 6.00"})
        EXPECT_EQ(read(pNoHeader, 1).find("line 1, column 1: expected the header"), 0u);
    EXPECT_NE(read("\xFF\xFE" + toUtf16(Header) + 'x', 3).find("whole UTF-16"), std::string::npos);
    EXPECT_NE(read(Header + "[HKLM]\n\"a\"=\"\0\""s, 9).find("NUL"), std::string::npos);
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

} // namespace
