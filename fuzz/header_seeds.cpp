// Seed inputs of the header fuzz target: a key line, then a header text.
#include <string>
#include <vector>

std::vector<std::string> fuzzSeeds() {
    return {
        "medium\nheader_version 6\n\rmedium vision\n\rinput_rate 25.00000000\n\rwidth 720\n\rheight 576\n\r"
        "vision_type PAL\n\rsequence -1\n\rorig_fname /media/a b.mov\n\rvideo_field both\n\r",
        "number_of_channels\nmedium sound\nnumber_of_channels 2\nbytes_per_sample 3\nsampling_frequency 48000\n",
        "f\nx f I am x and not f\nnovalue \nthe line after no value\nf I really am f\n",
        "novalue\nnovalue",
        "reelid\nreelid ABCDEFGHIJKLMNOPQRSTUVWXYZ\n",
        "\n",
        "header_version\nheader_version 99999999999999999999999\n",
        "format\nformat PAL\tx\n",
        "orig_fname\norig_fname \xC3\xA9\xE4\xB8\xAD \xFF\xFE\n",
    };
}
