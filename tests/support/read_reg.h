// Reads .reg text as the tool does, in pieces of any size.
#ifndef OBREG_TESTS_READ_REG_H
#define OBREG_TESTS_READ_REG_H

#include <algorithm>
#include <string>
#include <string_view>

#include "regtext/regreader.h"

/// Returns the first mistake; empty when there is none.
inline std::string readReg(std::string_view text, size_t piece, regtext::RegSink& sink,
                           regtext::RegKind kind = regtext::RegKind::File)
{
    try {
        regtext::RegReader reader(sink, false, kind);
        for (; !text.empty(); text.remove_prefix(std::min(piece, text.size())))
            reader.feed(text.substr(0, piece));
        reader.finish();
    } catch (const regtext::RegSyntaxError& error) {
        return error.what();
    }
    return "";
}

#endif
