#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <unistd.h>
#include <vector>

#include "Diagnostics.h"
#include "OSTime.h"

namespace {

struct Captured {
  std::vector<std::string> reports;
  int32_t answer = IDIGNORE;
};

int32_t CaptureReport(const char* report, void* context) {
  auto* captured = static_cast<Captured*>(context);
  captured->reports.emplace_back(report);
  errno = EBADF;  // a handler may clobber the last error; the caller's must survive
  return captured->answer;
}

class DiagnosticsTest : public ::testing::Test {
 protected:
  void SetUp() override { SetAssertHandler(CaptureReport, &captured_); }
  void TearDown() override { SetAssertHandler(nullptr, nullptr); }
  Captured captured_;
};

std::string Shorten(const std::string& path) {
  char out[64];
  ShortenPathForReport(path.c_str(), out);
  return out;
}

TEST(ShortenPathForReport, KeepsShortPathsAndCutsLongOnesAtASeparator) {
  const std::string path54 = "/" + std::string(53, 'a');
  const std::string path55 = "/" + std::string(54, 'a');
  EXPECT_EQ(Shorten(path54), path54);
  EXPECT_EQ(Shorten(path55), "..." + path55.substr(55 - 40));

  // A separator at the 45th last character: the path is kept from there.
  std::string withSlash = std::string(20, 'x') + "\\" + std::string(44, 'y');
  ASSERT_EQ(withSlash.size(), 65u);
  EXPECT_EQ(Shorten(withSlash), "...\\" + std::string(44, 'y'));
  // The first of two separators among the ten wins; '/' counts like '\'.
  std::string twoSlashes = std::string(15, 'x') + "/" + std::string(3, 'y') + "/" +
                           std::string(45, 'z');
  ASSERT_EQ(twoSlashes.size(), 65u);
  EXPECT_EQ(Shorten(twoSlashes), "..." + twoSlashes.substr(15));
  // A separator just outside the ten (the 51st last) is not looked at.
  std::string outside = std::string(14, 'x') + "/" + std::string(50, 'z');
  EXPECT_EQ(Shorten(outside), "..." + outside.substr(outside.size() - 40));
}

std::string ExpectedReport(const std::string& title, const std::string& file, int line,
                           const std::string& expression) {
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  exe[n > 0 ? n : 0] = '\0';
  const uint32_t tid = GetCurrentThreadId();
  char text[2048];
  snprintf(text, sizeof text,
           "Debug Assertion Failed%s!\n\nPID: %d, TID: %d(0x%08X)\nProgram: \"%s", title.c_str(),
           static_cast<int>(getpid()), static_cast<int>(tid), tid, Shorten(exe).c_str());
  std::string head = text;
  snprintf(text, sizeof text, "\n\nFile: \"%s(%d)\"\nExpression: (%s)\n\n(Press Retry to debug the application)",
           Shorten(file).c_str(), line, expression.c_str());
  return head + "\x01" + text;  // \x01 marks where the argument line and module go
}

void ExpectReport(const std::string& report, const std::string& expected) {
  size_t split = expected.find('\x01');
  std::string head = expected.substr(0, split);
  std::string tail = expected.substr(split + 1);
  ASSERT_GE(report.size(), head.size() + tail.size());
  EXPECT_EQ(report.substr(0, head.size()), head);
  EXPECT_EQ(report.substr(report.size() - tail.size()), tail);
  std::string middle = report.substr(head.size(), report.size() - head.size() - tail.size());
  // The argument line, then the module, which is the test program itself.
  EXPECT_NE(middle.find("\"\nModule: \""), std::string::npos) << middle;
  EXPECT_NE(middle.find(Shorten(GetSelfModulePath())), std::string::npos) << middle;
}

TEST_F(DiagnosticsTest, ReportTextCarriesTitleProgramModuleFileAndExpression) {
  EXPECT_EQ(ReportAssertion("codelib/brisk/source/VBufferQueue", 2055, "false", "%s", "text"), 0);
  ASSERT_EQ(captured_.reports.size(), 1u);
  ExpectReport(captured_.reports[0],
               ExpectedReport("(text)", "codelib/brisk/source/VBufferQueue", 2055, "false"));
}

TEST_F(DiagnosticsTest, NullOrEmptyFormatLeavesTheTitleBare) {
  ReportAssertion("a.cpp", 1, "x > 0", nullptr);
  ReportAssertion("a.cpp", 2, "x > 0", "");
  ASSERT_EQ(captured_.reports.size(), 2u);
  for (const std::string& r : captured_.reports)
    EXPECT_EQ(r.rfind("Debug Assertion Failed!\n\nPID: ", 0), 0u) << r;
}

TEST_F(DiagnosticsTest, ArgumentsAreFormattedIntoTheTitle) {
  ReportAssertion("f", 3, "false", "reader 太多，超过MAX_READER_COUNT=%d个了", 256);
  ASSERT_EQ(captured_.reports.size(), 1u);
  EXPECT_EQ(captured_.reports[0].rfind("Debug Assertion Failed(reader 太多，超过MAX_READER_COUNT=256个了)!", 0), 0u);
}

TEST_F(DiagnosticsTest, RetryAsksForABreakAndIgnoreDoesNotAndTheLastErrorSurvives) {
  errno = ENOENT;
  captured_.answer = IDRETRY;
  EXPECT_EQ(ReportAssertion("f", 1, "e", nullptr), 1);
  EXPECT_EQ(errno, ENOENT);
  captured_.answer = IDIGNORE;
  EXPECT_EQ(ReportAssertion("f", 1, "e", nullptr), 0);
  EXPECT_EQ(errno, ENOENT);
  // With no debugger attached a break does nothing.
  BreakIntoDebugger();
}

TEST_F(DiagnosticsTest, AssertMacroReportsOnlyWhenTheConditionFails) {
  int validCount = 1;
  BRISK_ASSERT_AT("codelib/brisk/source/VBufferQueue", 2560, validCount > 0, nullptr);
  EXPECT_TRUE(captured_.reports.empty());
  validCount = 0;
  BRISK_ASSERT_AT("codelib/brisk/source/VBufferQueue", 2560, validCount > 0, nullptr);
  ASSERT_EQ(captured_.reports.size(), 1u);
  EXPECT_NE(captured_.reports[0].find("Expression: (validCount > 0)"), std::string::npos);
}

TEST(DiagnosticsDeathTest, AbortEndsTheProcessWithExitCode255) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        SetAssertHandler([](const char*, void*) -> int32_t { return IDABORT; }, nullptr);
        ReportAssertion("f", 1, "false", nullptr);
      },
      ::testing::ExitedWithCode(255), "");
}

TEST(DiagnosticsDefault, DefaultHandlerWritesToStderrAndIgnores) {
  SetAssertHandler(nullptr, nullptr);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ReportAssertion("file.cpp", 12, "cond", "%s", "why"), 0);
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Debug Assertion Failed(why)!"), std::string::npos);
  EXPECT_NE(err.find("File: \"file.cpp(12)\""), std::string::npos);
}

TEST(DebugSink, LinesReachTheSinkExactlyAndNullRestoresTheDefault) {
  std::vector<std::string> lines;
  SetDebugSink([](const char* line, void* c) { static_cast<std::vector<std::string>*>(c)->push_back(line); },
               &lines);
  OutputDebugStringA("TQF resync.\n");
  DebugPrint("CEventThread::Close(), %s\n", "x");
  std::string big(5000, 'z');
  DebugPrint("%s", big.c_str());
  SetDebugSink(nullptr, nullptr);
  OutputDebugStringA("not captured\n");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "TQF resync.\n");
  EXPECT_EQ(lines[1], "CEventThread::Close(), x\n");
  EXPECT_EQ(lines[2].size(), 2047u);  // DebugPrint formats into 2048 bytes
}

TEST(SelfModulePath, NamesTheModuleThatHoldsTheCode) {
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  ASSERT_GT(n, 0);
  exe[n] = '\0';
  // The engine is linked into this test program.
  EXPECT_STREQ(GetSelfModulePath(), exe);
}

}  // namespace
