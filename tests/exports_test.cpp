#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Diagnostics.h"
#include "Exports.h"

class ExportsTest : public ::testing::Test {
 protected:
  static int32_t Capture(const char* report, void* context) {
    static_cast<std::vector<std::string>*>(context)->emplace_back(report);
    return IDIGNORE;
  }
  void SetUp() override { SetAssertHandler(Capture, &reports_); }
  void TearDown() override { SetAssertHandler(nullptr, nullptr); }
  // Reports carry the lines of the original header.
  void ExpectReports(size_t count, const std::string& title, int line) {
    ASSERT_EQ(reports_.size(), count);
    for (const std::string& r : reports_) {
      EXPECT_EQ(r.rfind("Debug Assertion Failed(" + title, 0), 0u) << r;
      const std::string where = "File: \"codelib/brisk/include/Exports(" + std::to_string(line) + ")\"\n";
      EXPECT_NE(r.find(where + "Expression: (false)"), std::string::npos) << r;
    }
  }
  std::vector<std::string> reports_;
};

TEST(LibraryFileNameFor, DllNamesMapToLowerCaseSharedObjects) {
  const std::pair<const char*, const char*> cases[] = {{"AVSDEC.dll", "libavsdec.so"},
                                                       {"Mixed.DLL", "libmixed.so"},
                                                       {"/opt/lib/libx.so", "/opt/lib/libx.so"},
                                                       {"dir\\x.dll", "dir\\x.dll"},
                                                       {"libplain.so", "libplain.so"}};
  for (const auto& [in, out] : cases) {
    char name[260];
    LibraryFileNameFor(in, name);
    EXPECT_STREQ(name, out) << in;
  }
}

TEST_F(ExportsTest, PresentFunctionBindsAndAMissingOneIsReportedOnce) {
  Exports probe("exportsprobe.dll");
  auto answer = reinterpret_cast<int (*)()>(probe.GetFunction("probe_answer"));
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer(), 42);
  EXPECT_TRUE(reports_.empty());
  void* loaded = probe.module;
  EXPECT_EQ(probe.GetFunction("probe_missing"), nullptr);
  EXPECT_NE(probe.GetFunction("probe_answer"), nullptr);
  EXPECT_EQ(probe.module, loaded);  // still loaded; not loaded again
  ExpectReports(1, "Can't find \"probe_missing\" in \"exportsprobe.dll\")!", 100);
}

TEST_F(ExportsTest, MissingLibraryIsReportedAndTriedAgainAtEveryCall) {
  Exports missing("NOSUCHLIB.dll");
  for (const char* name : {"avs_init", "avs_decode_one_frame", "avs_destroy"})
    EXPECT_EQ(missing.GetFunction(name), nullptr);
  EXPECT_EQ(missing.module, nullptr);
  const std::string self = std::string(GetSelfModulePath()).substr(0, 256);
  ExpectReports(3, "Can't find \"NOSUCHLIB.dll\" called by \"" + self + "\")!", 85);
}
