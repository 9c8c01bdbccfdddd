// What a fuzz target is made of. A target is one source with the function below; it is linked either with libFuzzer or
// with driver.cpp, which replays the seeds and changes them a little with any compiler.
#ifndef OBREG_TESTS_FUZZ_H
#define OBREG_TESTS_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "support/encoded.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size);

/// Ends the process when a property does not hold; the fuzzer keeps the input.
#define HOLDS(property) ((property) ? static_cast<void>(0) : fuzz::broken(#property, __FILE__, __LINE__))

namespace fuzz {

[[noreturn]] inline void broken(const char* pProperty, const char* pFile, int line)
{
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", pFile, line, pProperty);
    std::abort();
}

/// The input in a block of exactly its size, so that a byte too many is seen.
class Block {
public:
    explicit Block(std::string_view text) : m_text(text), m_pBytes(new char[text.size()])
    {
        std::copy(text.begin(), text.end(), m_pBytes.get());
    }
    const char* data() const { return m_pBytes.get(); }
    int size() const { return static_cast<int>(m_text.size()); }
    bool unchanged() const { return std::string_view(m_pBytes.get(), m_text.size()) == m_text; }

private:
    const std::string m_text;
    const std::unique_ptr<char[]> m_pBytes;
};

} // namespace fuzz

#endif
