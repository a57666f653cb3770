// Binding by name; the plugins' own binding is also run by the codec tests.
#include <gtest/gtest.h>

#include "Exports.h"
#include "wait_test_support.h"

// Plain ".dll" names (the plugins' defaults, "AVSDEC.dll" among them) map to
// lower-case shared objects; paths and other names are kept.
TEST(LibraryFileNameFor, DllNamesMapToLowerCaseSharedObjects) {
  for (const auto& [in, out] : {std::pair{"Mixed.DLL", "libmixed.so"}, {"dir\\x.dll", "dir\\x.dll"}, {"a.so", "a.so"}}) {
    char name[260];
    LibraryFileNameFor(in, name);
    EXPECT_STREQ(name, out) << in;
  }
}

// A missing function is reported once and leaves the library loaded; a
// missing library is tried again, and reported, at every call. Reports carry
// the lines of the original header.
TEST(Exports, PresentFunctionBindsAndWhatIsMissingIsReported) {
  DiagnosticsCapture capture;
  Exports probe("exportsprobe.dll");
  auto answer = reinterpret_cast<int (*)()>(probe.GetFunction("probe_answer"));
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer(), 42);
  void* loaded = probe.module;
  EXPECT_EQ(probe.GetFunction("probe_missing"), nullptr);
  EXPECT_NE(probe.GetFunction("probe_answer"), nullptr);
  EXPECT_EQ(probe.module, loaded);
  Exports missing("NOSUCHLIB.dll");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(missing.GetFunction("avs_init"), nullptr);
  EXPECT_EQ(missing.module, nullptr);
  const std::vector<std::string> reports = capture.Reports();
  ASSERT_EQ(reports.size(), 3u);
  const std::string self = std::string(GetSelfModulePath()).substr(0, 256);
  EXPECT_EQ(reports[0].rfind("Debug Assertion Failed(Can't find \"probe_missing\" in \"exportsprobe.dll\")!", 0), 0u);
  EXPECT_NE(reports[0].find("File: \"codelib/brisk/include/Exports(100)\""), std::string::npos) << reports[0];
  EXPECT_EQ(reports[1], reports[2]);
  EXPECT_EQ(reports[2].rfind("Debug Assertion Failed(Can't find \"NOSUCHLIB.dll\" called by \"" + self + "\")!", 0),
            0u);
  EXPECT_NE(reports[2].find("File: \"codelib/brisk/include/Exports(85)\""), std::string::npos) << reports[2];
}
