// Binding by name is run by the codec tests through the plugins and probe
// plugins (a missing library or function and its reports included).
#include <gtest/gtest.h>

#include "Exports.h"

// Plain ".dll" names (the plugins' defaults, "AVSDEC.dll" among them) map to
// lower-case shared objects; paths and other names are kept.
TEST(LibraryFileNameFor, DllNamesMapToLowerCaseSharedObjects) {
  for (const auto& [in, out] : {std::pair{"Mixed.DLL", "libmixed.so"}, {"dir\\x.dll", "dir\\x.dll"}, {"a.so", "a.so"}}) {
    char name[260];
    LibraryFileNameFor(in, name);
    EXPECT_STREQ(name, out) << in;
  }
}
