// Seed inputs of the file-name fuzz target: a control byte, then a clip name.
#include <string>
#include <vector>

std::vector<std::string> fuzzSeeds() {
    return {
        "_../../etc/passwd",
        "\xDF" "a clip name with a newline\nand a tab\t.mov",
        "-CON.txt",
        "_ . . ..",
        std::string("_") + std::string(300, 'x') + ".mov",
        "\x80\xE4\xB8\xAD\xE6\x96\x87\xE2\x80\xAE\xF0\x9F\x98\x80",
        "_file:///home/u/My%20Clips/shot_0098.dpx",
        "_C:\\Media\\take_0001.exr",
        std::string("\x00\x00\xD8\x00\x00\x11\x00\x00", 9),
    };
}
