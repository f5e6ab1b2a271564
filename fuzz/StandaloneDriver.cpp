// Runs a fuzz target without libFuzzer: the seed inputs, then a fixed number of inputs
// mutated from them with a fixed random seed. Used by the test suite, so every build
// exercises the targets; `make fuzz` runs them under libFuzzer instead.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
std::vector<std::string> fuzzSeeds();

int main(int argc, char** argv) {
    long runs = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 20000;
    std::vector<std::string> seeds = fuzzSeeds();
    for (const auto& s : seeds) LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(s.data()), s.size());
    std::mt19937 rng(12345);
    for (long i = 0; i < runs; ++i) {
        std::string s = seeds[rng() % seeds.size()];
        int edits = 1 + int(rng() % 8);
        for (int e = 0; e < edits; ++e) {
            size_t at = s.empty() ? 0 : rng() % (s.size() + 1);
            switch (rng() % 5) {
            case 0: s.insert(at, 1, char(rng())); break;
            case 1: if (at < s.size()) s.erase(at, 1 + rng() % 16); break;
            case 2: if (at < s.size()) s[at] = char(rng()); break;
            case 3: s.insert(at, std::string(1 + rng() % 300, "x \t\n\r"[rng() % 5])); break;
            case 4: s.insert(at, seeds[rng() % seeds.size()].substr(0, rng() % 64)); break;
            }
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(s.data()), s.size());
    }
    std::printf("%zu seeds and %ld mutated inputs ran cleanly\n", seeds.size(), runs);
    return 0;
}
