extern "C" [[gnu::visibility("default")]] int mirelLoaderAnswer();

int mirelLoaderAnswer() { return 42; }
