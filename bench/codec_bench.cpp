// How long it takes to encode and to decode each message, without the channel.
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "common/msgproto.h"
#include "support/encoded.h"

int CDebugLevel = 0;

namespace {

const auto Key = reinterpret_cast<HANDLE>(0x5a5a5a5aUL);
constexpr char Name[] = "Software\\Example";
constexpr char Data[] = "sixteen bytes...";
constexpr UINT32 DataLen = 16;
constexpr UINT64 Time = 0x01DC5BE1A2B3C4D5;

template <class Msg, class... Fields>
void add(const std::string& name, Fields... fields)
{
    benchmark::RegisterBenchmark((name + "/encode").c_str(), [=](benchmark::State& state) {
        for (auto _ : state) {
            const Msg msg(fields...);
            char* pText = nullptr;
            int length = 0;
            msg.serialize(&pText, &length);
            benchmark::DoNotOptimize(pText);
            delete[] pText;
        }
    });
    benchmark::RegisterBenchmark((name + "/decode").c_str(), [=](benchmark::State& state) {
        const std::string text = encoded(Msg(fields...));
        for (auto _ : state) {
            const std::unique_ptr<Msg> msg(Msg::deserialize(text.data(), static_cast<int>(text.size())));
            benchmark::DoNotOptimize(msg.get());
        }
    });
}

} // namespace

#define ADD(Msg, ...) add<Msg>(#Msg, __VA_ARGS__)

int main(int argc, char** argv)
{
    ADD(CloseKeyReqMsg, Key);
    ADD(CloseKeyRespMsg, 0U);
    ADD(CreateKeyReqMsg, Key, Name, 0U, 0xF003FU);
    ADD(CreateKeyRespMsg, 0U, Key, 1U);
    ADD(DeleteKeyReqMsg, Key, Name);
    ADD(DeleteKeyRespMsg, 0U);
    ADD(DeleteValueReqMsg, Key, Name);
    ADD(DeleteValueRespMsg, 0U);
    ADD(EnumKeyReqMsg, Key, 3U);
    ADD(EnumKeyRespMsg, 0U, Name, Time);
    ADD(EnumValueReqMsg, Key, 3U);
    ADD(EnumValueRespMsg, 0U, Name, 1U, Data, DataLen);
    ADD(OpenKeyReqMsg, Key, Name, 0U, 0xF003FU);
    ADD(OpenKeyRespMsg, 0U, Key);
    ADD(QueryValueReqMsg, Key, Name);
    ADD(QueryValueRespMsg, 0U, 1U, Data, DataLen);
    ADD(SetValueReqMsg, Key, Name, 1U, Data, DataLen);
    ADD(SetValueRespMsg, 0U);
    ADD(QueryInfoKeyReqMsg, Key);
    ADD(QueryInfoKeyRespMsg, 0U, 7U, 16U, 0U, 9U, 16U, 16U, Time);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
