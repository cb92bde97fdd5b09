// The one symbol of a stand-in platform library of another ABI version.
extern "C" int FakeNewPlatform(void) { return 99; }
