// Seed inputs of the RIFF chunk reader's fuzz target: well-formed chunk lists and the
// damaged shapes the reader must stop at.
#include <string>
#include <vector>

namespace {
std::string le32(unsigned v) {
    return std::string{char(v & 0xFF), char((v >> 8) & 0xFF), char((v >> 16) & 0xFF), char((v >> 24) & 0xFF)};
}
std::string chunk(const char* code, const std::string& body) {
    std::string c = std::string(code, 4) + le32(unsigned(body.size())) + body;
    if (body.size() & 1) c += '\0';
    return c;
}
} // namespace

std::vector<std::string> fuzzSeeds() {
    std::string list = chunk("fmt ", std::string(16, '\x01')) + chunk("LIST", "odd") + chunk("data", std::string(8, 'x'));
    return {
        "RIFF" + le32(unsigned(list.size() + 4)) + "WAVE" + list,
        "RIFF" + le32(4) + "WAVE" + "JUNK" + le32(0xFF000000u) + "rest",
        "RIFF" + le32(4) + "WAVE" + "data" + le32(0xFFFFFFFFu),
        "RIFF" + le32(4) + "WAVE" + "abc",
        "RIFF\x01",
        "",
    };
}
