#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include "Diagnostics.h"
#include "OSTime.h"

class DiagnosticsTest : public ::testing::Test {
 protected:
  static int32_t Capture(const char* report, void* context) {
    auto* self = static_cast<DiagnosticsTest*>(context);
    self->reports_.emplace_back(report);
    errno = EBADF;  // a handler may clobber the last error; the caller's must survive
    return self->answer_;
  }
  void SetUp() override { SetAssertHandler(Capture, this); }
  void TearDown() override { SetAssertHandler(nullptr, nullptr); }
  std::vector<std::string> reports_;
  int32_t answer_ = IDIGNORE;
};

std::string Shorten(const std::string& path) {
  char out[64];
  ShortenPathForReport(path.c_str(), out);
  return out;
}

TEST(ShortenPathForReport, KeepsShortPathsAndCutsLongOnesAtASeparator) {
  const std::string a53(53, 'a'), y44(44, 'y'), z50(50, 'z');
  const std::pair<std::string, std::string> cases[] = {
      {"/" + a53, "/" + a53},                                     // 54 characters: kept
      {"/a" + a53, "..." + a53.substr(13)},                       // 55: the last 40
      {std::string(20, 'x') + "\\" + y44, "...\\" + y44},         // a separator 45th last
      {std::string(15, 'x') + "/yyy/" + z50.substr(5), ".../yyy/" + z50.substr(5)},  // the first of two
      {std::string(14, 'x') + "/" + z50, "..." + z50.substr(10)},  // 51st last: not looked at
  };
  for (const auto& [path, expected] : cases) EXPECT_EQ(Shorten(path), expected) << path;
}

TEST_F(DiagnosticsTest, ReportNamesTitleProgramModuleFileAndExpressionAndAnswerDecides) {
  EXPECT_EQ(ReportAssertion("codelib/brisk/source/VBufferQueue", 2055, "false", "%s", "text"), 0);
  ReportAssertion("a.cpp", 1, "x > 0", nullptr);
  ReportAssertion("a.cpp", 2, "x > 0", "");
  ASSERT_EQ(reports_.size(), 3u);
  const std::string pid =
      "!\n\nPID: " + std::to_string(getpid()) + ", TID: " + std::to_string(GetCurrentThreadId());
  EXPECT_EQ(reports_[0].rfind("Debug Assertion Failed(text)" + pid + "(0x", 0), 0u) << reports_[0];
  for (int i : {1, 2}) EXPECT_EQ(reports_[i].rfind("Debug Assertion Failed" + pid, 0), 0u);  // a bare title
  // The program is this test with its arguments; the engine is linked in, so
  // the module is the same file.
  const std::string exe = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(GetSelfModulePath(), exe);
  std::string expected = ")\nProgram: \"" + Shorten(exe);
  const std::vector<std::string> argv = ::testing::internal::GetArgvs();
  for (size_t i = 1; i < argv.size(); ++i) expected += " " + argv[i];
  expected += "\"\nModule: \"" + Shorten(exe) +
              "\"\n\nFile: \"codelib/brisk/source/VBufferQueue(2055)\"\nExpression: (false)\n\n"
              "(Press Retry to debug the application)";
  EXPECT_EQ(reports_[0].substr(reports_[0].find(")\nProgram: ")), expected);

  // The answer decides the result, and the caller's last error survives.
  errno = ENOENT;
  answer_ = IDRETRY;
  EXPECT_EQ(ReportAssertion("f", 1, "e", nullptr), 1);
  EXPECT_EQ(errno, ENOENT);
  answer_ = IDIGNORE;
  EXPECT_EQ(ReportAssertion("f", 1, "e", nullptr), 0);
  EXPECT_EQ(errno, ENOENT);
  BreakIntoDebugger();  // with no debugger attached it does nothing
  for (int validCount : {1, 0})
    BRISK_ASSERT_AT("codelib/brisk/source/VBufferQueue", 2560, validCount > 0, nullptr);
  ASSERT_EQ(reports_.size(), 6u);
  EXPECT_NE(reports_[5].find("Expression: (validCount > 0)"), std::string::npos);
}

TEST(DiagnosticsDeathTest, AbortEndsTheProcessWithExitCode255) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto abort = [] {
    SetAssertHandler([](const char*, void*) -> int32_t { return IDABORT; }, nullptr);
    ReportAssertion("f", 1, "false", nullptr);
  };
  EXPECT_EXIT(abort(), ::testing::ExitedWithCode(255), "");
}

TEST(DiagnosticsDefault, HandlerWritesToStderrAndIgnoresAndSinkTakesLinesExactly) {
  SetAssertHandler(nullptr, nullptr);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ReportAssertion("file.cpp", 12, "cond", "%s", "why"), 0);
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Debug Assertion Failed(why)!"), std::string::npos);

  std::vector<std::string> lines;
  auto sink = [](const char* line, void* c) { static_cast<std::vector<std::string>*>(c)->push_back(line); };
  SetDebugSink(sink, &lines);
  OutputDebugStringA("TQF resync.\n");
  DebugPrint("CEventThread::Close(), %s\n", "x");
  DebugPrint("%s", std::string(5000, 'z').c_str());
  SetDebugSink(nullptr, nullptr);  // back to the default
  OutputDebugStringA("not captured\n");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0] + lines[1], "TQF resync.\nCEventThread::Close(), x\n");
  EXPECT_EQ(lines[2].size(), 2047u);  // DebugPrint formats into 2048 bytes
}
