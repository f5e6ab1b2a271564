// playhdr-selftest: the play header's key-lookup self-test as a program.
#include "playfile/header/PlayHeader.h"

int main(int argc, char** argv) { return playhdr_selftest_main(argc, argv); }
