// The twenty readers, every one on every input: the input stays as it is, and what a reader understood is written and
// read back the same. A type is known by its exact line.
#include "common/msgproto.h"
#include "fuzz/fuzz.h"

int CDebugLevel = 0;

namespace {

template <class Msg>
void check(std::string_view input)
{
    const fuzz::Block block(input);
    const std::unique_ptr<Msg> pRead(Msg::deserialize(block.data(), block.size()));
    HOLDS(block.unchanged());
    if (!pRead)
        return;
    const std::string text = encoded(*pRead);
    const fuzz::Block written(text);
    const std::unique_ptr<Msg> pAgain(Msg::deserialize(written.data(), written.size()));
    HOLDS(pAgain != nullptr);
    HOLDS(encoded(*pAgain) == text);
}

template <class... Msgs>
void checkAll(std::string_view input)
{
    (check<Msgs>(input), ...);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(pData), size);
    checkAll<OpenKeyReqMsg, OpenKeyRespMsg, CreateKeyReqMsg, CreateKeyRespMsg, CloseKeyReqMsg, CloseKeyRespMsg,
             DeleteKeyReqMsg, DeleteKeyRespMsg, SetValueReqMsg, SetValueRespMsg, QueryValueReqMsg, QueryValueRespMsg,
             DeleteValueReqMsg, DeleteValueRespMsg, EnumKeyReqMsg, EnumKeyRespMsg, EnumValueReqMsg, EnumValueRespMsg,
             QueryInfoKeyReqMsg, QueryInfoKeyRespMsg>(input);
    if (!input.empty()) {
        const std::string line(input.substr(0, input.find('\r')));
        const bool known = ReqMessage::getReqMsgType(*fuzz::Block(line + '\r').data()) != ReqMessage::UnknownReqMsgType;
        HOLDS(known == (line.size() == 6 && line.substr(0, 5) == "Type0" &&
                        std::string_view("123456789A").find(line[5]) != std::string_view::npos));
    }
    return 0;
}
