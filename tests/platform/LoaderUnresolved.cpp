extern "C" int mirelSymbolThatNobodyHas();
extern "C" [[gnu::visibility("default")]] int mirelLoaderNeedsMore();

int mirelLoaderNeedsMore() { return mirelSymbolThatNobodyHas(); }
