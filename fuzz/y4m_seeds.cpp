// Seed inputs of the Y4M fuzz target.
#include <string>
#include <vector>

std::vector<std::string> fuzzSeeds() {
    return {
        std::string("YUV4MPEG2 W16 H8 F25:1 Ip A1:1 C420jpeg XYSCSS=420JPEG\nFRAME\n") + std::string(192, 'x'),
        "YUV4MPEG2 W1920 H1080 F30000:1001 It C422p10\nFRAME Ixyz\n",
        "YUV4MPEG2 W32768 H32768 Cmono16\n",
        "YUV4MPEG2 W0 H0\n",
        "YUV4MPEG2 W-5 H99999999999\n",
        "YUV4MPEG2 W4 H4 C444alpha F0:0 A0:0\nFRAME",
        "YUV4MPEG2",
        std::string("YUV4MPEG2 W16 H2 I\0\n", 21),
        std::string("YUV4MPEG2 W16\0 H2 F+25:1\n", 26),
    };
}
