#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Diagnostics.h"
#include "Exports.h"

namespace {

int32_t Capture(const char* report, void* context) {
  static_cast<std::vector<std::string>*>(context)->emplace_back(report);
  return IDIGNORE;
}

class ExportsTest : public ::testing::Test {
 protected:
  void SetUp() override { SetAssertHandler(Capture, &reports_); }
  void TearDown() override { SetAssertHandler(nullptr, nullptr); }
  bool Reported(size_t index, const std::string& title, int line) {
    if (index >= reports_.size()) return false;
    const std::string& r = reports_[index];
    return r.rfind("Debug Assertion Failed(" + title + ")!", 0) == 0 &&
           r.find("File: \"codelib/brisk/include/Exports(" + std::to_string(line) + ")\"") !=
               std::string::npos &&
           r.find("Expression: (false)") != std::string::npos;
  }
  std::vector<std::string> reports_;
};

TEST(LibraryFileNameFor, DllNamesMapToLowerCaseSharedObjects) {
  const struct {
    const char* in;
    const char* out;
  } cases[] = {{"AVSDEC.dll", "libavsdec.so"},
               {"jpgdec.dll", "libjpgdec.so"},
               {"Mixed.DLL", "libmixed.so"},
               {"/opt/lib/libx.so", "/opt/lib/libx.so"},
               {"libplain.so", "libplain.so"}};
  for (const auto& c : cases) {
    char out[260];
    LibraryFileNameFor(c.in, out);
    EXPECT_STREQ(out, c.out) << c.in;
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
  ASSERT_EQ(reports_.size(), 1u);
  EXPECT_TRUE(Reported(0, "Can't find \"probe_missing\" in \"exportsprobe.dll\"", 100))
      << reports_[0];
  // The library stays loaded; no second load.
  EXPECT_NE(probe.GetFunction("probe_answer"), nullptr);
  EXPECT_EQ(probe.module, loaded);
  EXPECT_EQ(reports_.size(), 1u);
}

TEST_F(ExportsTest, MissingLibraryIsReportedAndTriedAgainAtEveryCall) {
  Exports missing("NOSUCHLIB.dll");
  for (const char* name : {"avs_init", "avs_decode_one_frame", "avs_destroy"})
    EXPECT_EQ(missing.GetFunction(name), nullptr);
  EXPECT_EQ(missing.module, nullptr);
  ASSERT_EQ(reports_.size(), 3u);
  const std::string title = std::string("Can't find \"NOSUCHLIB.dll\" called by \"") +
                            std::string(GetSelfModulePath()).substr(0, 256) + "\"";
  for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(Reported(i, title, 85)) << reports_[i];
}

}  // namespace
