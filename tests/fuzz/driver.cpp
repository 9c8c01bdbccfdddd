// Runs a fuzz target without libFuzzer: every seed as it is, then as many changed ones as asked for, always the same.
//
//   TARGET FOLDER [CHANGED-INPUTS]     OBREG_TORTURE multiplies the number
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <vector>

#include <syslog.h>

#include "fuzz/fuzz.h"
#include "support/scale.h"

extern "C" void syslog(int, const char*, ...) {} // NOLINT: hostile bytes make a line each

namespace {

std::mt19937 randomBits(20261123); // NOLINT: the same inputs every time

size_t below(size_t limit) { return randomBits() % limit; }

/// Changes a few places: bytes replaced, inserted or removed, a piece of another seed put in.
std::string changed(std::string text, const std::vector<std::string>& seeds)
{
    for (size_t i = 1 + below(4); i > 0; --i) {
        const size_t at = below(text.size() + 1);
        const std::string& other = seeds[below(seeds.size())];
        const size_t from = below(other.size() + 1);
        switch (below(4)) {
        case 0:
            text.replace(at, below(2), 1, below(2) != 0 ? static_cast<char>(below(256)) : "\r\n\0\\ =0xF-"[below(10)]);
            break;
        case 1:
            text.erase(at, 1 + below(8));
            break;
        case 2:
            text.insert(at, other, from, 1 + below(40));
            break;
        default:
            text.replace(at, text.size(), other, from);
        }
    }
    return text;
}

void run(const std::string& text)
{
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> seeds;
    const std::filesystem::directory_iterator folder(argc > 1 ? argv[1] : ".");
    const std::set<std::filesystem::path> paths(begin(folder), end(folder)); // in order
    for (const auto& path : paths) {
        std::ifstream file(path, std::ios::binary);
        seeds.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        run(seeds.back());
    }
    if (seeds.empty()) {
        std::fprintf(stderr, "no seeds\n");
        return 1;
    }
    const int count = scaled(argc > 2 ? std::atoi(argv[2]) : 0);
    for (int i = 0; i < count; ++i)
        run(changed(seeds[below(seeds.size())], seeds));
    std::printf("FIGURE %zu seeds, %d changed inputs\n", seeds.size(), count);
    return 0;
}
