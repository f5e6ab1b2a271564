// Seed inputs of the JSON fuzz target.
#include <string>
#include <vector>

std::vector<std::string> fuzzSeeds() {
    return {
        R"({"Location":"/media/downloads","ProxyExt":"mov","Naming":"clip"})",
        R"({"Location":"C:\\Media\\x","ProxyExt":"mp4","Naming":"file","extra":[1,2.5,-3e10,true,null,{}]})",
        R"({"Location":"\u00e9\ud83d\ude00","ProxyExt":"\"","Naming":5})",
        R"([[[[[[[[[[{"a":[[[[[]]]]]}]]]]]]]]]])",
        R"({"n":18446744073709551615,"m":-9223372036854775808,"f":1e400,"g":-0.0})",
        "{\"Location\":\"/a\xC3\xA9\",\"ProxyExt\":\"x\"",
        "\"just a string\"",
        "",
    };
}
