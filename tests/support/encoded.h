// A message as the bytes that it writes.
#ifndef OBREG_TESTS_ENCODED_H
#define OBREG_TESTS_ENCODED_H

#include <memory>
#include <string>

template <class Msg>
std::string encoded(const Msg& msg)
{
    char* pText = nullptr;
    int length = 0;
    msg.serialize(&pText, &length);
    const std::unique_ptr<char[]> owner(pText);
    return {pText, static_cast<size_t>(length)};
}

#endif
