// The .reg reader: the same statements whether the text comes whole or in pieces, and what the writer makes of them is
// read back the same.
#include "fuzz/fuzz.h"
#include "regtext/regwriter.h"
#include "support/read_reg.h"

using namespace regtext;

namespace {

/// Writes what it is told, as far as the writer can: removals are left out.
class Rewriter : public RegSink {
public:
    explicit Rewriter(RegFormat format) : m_writer(format, [this](std::string_view piece) { text += piece; }) {}

    void key(const KeyPath& key, const Place&) override
    {
        statements += "key " + key.text() + '\n';
        m_writer.key(key.text());
    }
    void removeKey(const KeyPath&, const Place&) override {}
    void value(std::string&& name, obreg::Value&& value, const Place&) override
    {
        statements += name + '=' + std::to_string(value.type) + ':' + value.data + '\n';
        m_writer.value(name, value);
    }
    void removeValue(std::string&&, const Place&) override {}
    void finish() { m_writer.finish(); }

    std::string statements;
    std::string text;

private:
    RegWriter m_writer;
};

/// The statements of a text up to its first mistake, and that mistake.
std::string read(std::string_view text, size_t piece, Rewriter& rewriter)
{
    const std::string mistake = readReg(text, piece, rewriter);
    rewriter.finish();
    return rewriter.statements + mistake;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    const fuzz::Block block({reinterpret_cast<const char*>(pData), size});
    const std::string_view input(block.data(), size);
    for (const RegFormat format : {RegFormat::Utf8, RegFormat::Utf16, RegFormat::Regedit4}) {
        Rewriter whole(format);
        Rewriter pieces(format);
        const std::string statements = read(input, SIZE_MAX, whole);
        HOLDS(read(input, 1 + size % 5, pieces) == statements);
        HOLDS(block.unchanged());
        Rewriter again(format);
        if (!whole.statements.empty())
            HOLDS(read(whole.text, SIZE_MAX, again) == whole.statements);
    }
    Rewriter file(RegFormat::Utf8);
    Rewriter transaction(RegFormat::Utf8); // takes what a file may have, and more
    const bool isFile = readReg(input, SIZE_MAX, file).empty();
    const bool isTransaction = readReg(input, 1 + size % 7, transaction, RegKind::Transaction).empty();
    HOLDS(!isFile || (isTransaction && file.statements == transaction.statements));
    return 0;
}
