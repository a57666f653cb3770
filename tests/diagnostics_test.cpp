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

TEST_F(DiagnosticsTest, ReportNamesTitleFileAndExpressionAndAnswerDecides) {
  EXPECT_EQ(ReportAssertion("codelib/brisk/source/VBufferQueue", 2055, "false", "%s", "text"), 0);
  ReportAssertion("a.cpp", 1, "x > 0", nullptr);
  ASSERT_EQ(reports_.size(), 2u);
  const std::string pid =
      "!\n\nPID: " + std::to_string(getpid()) + ", TID: " + std::to_string(GetCurrentThreadId());
  EXPECT_EQ(reports_[0].rfind("Debug Assertion Failed(text)" + pid + "(0x", 0), 0u) << reports_[0];
  EXPECT_EQ(reports_[1].rfind("Debug Assertion Failed" + pid, 0), 0u);  // a bare title
  // The engine is linked in, so the module is this program.
  EXPECT_EQ(GetSelfModulePath(), std::filesystem::read_symlink("/proc/self/exe").string());
  const std::string tail = "\"\n\nFile: \"codelib/brisk/source/VBufferQueue(2055)\"\nExpression: (false)\n\n"
                           "(Press Retry to debug the application)";
  EXPECT_EQ(reports_[0].substr(reports_[0].size() - tail.size()), tail);

  // The answer decides the result, and the caller's last error survives.
  errno = ENOENT;
  answer_ = IDRETRY;
  EXPECT_EQ(ReportAssertion("f", 1, "e", nullptr), 1);
  EXPECT_EQ(errno, ENOENT);
  answer_ = IDIGNORE;
  BreakIntoDebugger();  // with no debugger attached it does nothing
  for (int validCount : {1, 0})
    BRISK_ASSERT_AT("codelib/brisk/source/VBufferQueue", 2560, validCount > 0, nullptr);
  ASSERT_EQ(reports_.size(), 4u);
  EXPECT_NE(reports_[3].find("Expression: (validCount > 0)"), std::string::npos);
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
