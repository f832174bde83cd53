// A loadable module that is no COM server: it lacks DllGetClassObject.
#include <objbase.h>

extern "C" DECLSPEC_EXPORT int NotAClassFactoryEntry() { return 42; }
