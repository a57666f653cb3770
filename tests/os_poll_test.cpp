#include "OSPoll.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "OSTime.h"
#include "PerformanceSite.h"
#include "wait_test_support.h"

namespace {

struct Served {
  HandleObj key;
  uint32_t events;
  bool operator==(const Served& o) const { return key == o.key && events == o.events; }
};

// Records what it serves; a per-key action may replace the default result 1.
class RecordingPoll : public COSPoll {
 public:
  int32_t OnHandleSignaled(HandleObj key, HANDLE, int32_t, uint32_t events) override {
    served.push_back({key, events});
    auto it = actions.find(key);
    return it == actions.end() ? 1 : it->second();
  }
  int32_t OnPollTimeout() override {
    ++timeouts;
    return timeoutResult;
  }
  int32_t OnPollError(uint32_t) override {
    ++errors;
    if (errorAction) errorAction();
    return 0;
  }
  int32_t OnHandleFailed(HandleObj key, HANDLE, int32_t, int32_t result) override {
    failed.push_back({key, static_cast<uint32_t>(result)});
    return 0;
  }
  std::vector<HandleObj> ServedKeys() const {
    std::vector<HandleObj> keys;
    for (const Served& s : served) keys.push_back(s.key);
    return keys;
  }

  std::vector<Served> served;
  std::vector<Served> failed;
  std::map<HandleObj, std::function<int32_t()>> actions;
  std::function<void()> errorAction;
  int timeouts = 0;
  int timeoutResult = 0;
  int errors = 0;
};

class OSPollTest : public ::testing::Test {
 protected:
  std::unique_ptr<RecordingPoll> poll_ = std::make_unique<RecordingPoll>();
  EventRow manual_{8, 1};
};

TEST_F(OSPollTest, AddHandleRefusals) {
  HANDLE h = manual_[0];
  EXPECT_EQ(poll_->AddHandle(1, h, -1, 3, 1, 11), 1);
  struct Case {
    const char* what;
    HandleObj key;
    HANDLE handle;
    int32_t socket;
    uint32_t mask;
    int32_t expected;
  } cases[] = {
      {"same key, other handle", 1, manual_[1], -1, 3, 0},
      {"mask 0", 2, h, -1, 0, 0},
      {"empty handle", 3, nullptr, -1, 3, 0},
      {"accept with read", 4, h, -1, 9, 0},
      {"accept with write", 5, h, -1, 10, 0},
      {"accept with close", 6, h, -1, 12, 1},
  };
  for (const Case& c : cases)
    EXPECT_EQ(poll_->AddHandle(c.key, c.handle, c.socket, c.mask, 1, 0), c.expected) << c.what;
  int32_t enabled = -1;
  OSHandle handle{};
  uint32_t mask = 0;
  uintptr_t context = 0;
  EXPECT_EQ(poll_->GetHandleInfos(1, &enabled, &handle, &mask, &context), 1);
  EXPECT_EQ(handle.handle, h);  // the refused second add changed nothing
  EXPECT_EQ(handle.socket, -1);
  EXPECT_EQ(mask, 3u);
  EXPECT_EQ(context, 11u);
  EXPECT_EQ(enabled, 1);
  EXPECT_EQ(poll_->HandleCount(), 2);
}

TEST_F(OSPollTest, TableOperations) {
  for (HandleObj key : {HandleObj(9), HandleObj(5), ~HandleObj(0), HandleObj(7)})
    ASSERT_EQ(poll_->AddHandle(key, manual_[0], -1, 1, 0, key), 1);
  std::vector<HandleObj> keys(4);
  poll_->GetAllHandleObj(keys.data());
  EXPECT_EQ(keys, (std::vector<HandleObj>{5, 7, 9, ~HandleObj(0)}));  // unsigned order
  poll_->GetAllHandleObj(nullptr);

  EXPECT_EQ(poll_->EnableHandle(7, 1), 1);
  EXPECT_EQ(poll_->EnableHandle(7, 1), 1);
  EXPECT_EQ(poll_->EnableHandle(8, 1), 0);
  EXPECT_EQ(poll_->DelHandle(9), 1);
  EXPECT_EQ(poll_->DelHandle(9), 0);

  int32_t enabled = 7;
  OSHandle handle{manual_[0], 5};
  uint32_t mask = 7;
  uintptr_t context = 99;
  EXPECT_EQ(poll_->GetHandleInfos(9, &enabled, &handle, &mask, &context), 0);
  EXPECT_EQ(enabled, 0);
  EXPECT_EQ(handle.handle, nullptr);
  EXPECT_EQ(handle.socket, -1);
  EXPECT_EQ(mask, 0u);
  EXPECT_EQ(context, 99u);  // left alone when the key is missing
  EXPECT_EQ(poll_->GetHandleInfos(7, nullptr, nullptr, nullptr, nullptr), 1);

  poll_->DelAllHandles();
  EXPECT_EQ(poll_->HandleCount(), 0);
  poll_->DelAllHandles();
}

TEST_F(OSPollTest, ServesInKeyOrder) {
  for (HandleObj key : {HandleObj(9), HandleObj(5), HandleObj(7)})
    poll_->AddHandle(key, manual_[key % 8], -1, 3, 1, 0);
  for (int i : {1, 5, 7}) SetEvent(manual_[i]);
  EXPECT_EQ(poll_->Poll(1000), 1);
  EXPECT_EQ(poll_->ServedKeys(), (std::vector<HandleObj>{5, 7, 9}));
  EXPECT_EQ(poll_->served[0].events, 3u);
}

TEST_F(OSPollTest, CallbackDeletesOrReAddsALaterKey) {
  for (HandleObj key : {HandleObj(5), HandleObj(7), HandleObj(9)})
    poll_->AddHandle(key, manual_[key % 8], -1, 3, 1, 0);
  for (int i : {1, 5, 7}) SetEvent(manual_[i]);
  poll_->actions[5] = [&] { return poll_->DelHandle(9); };
  EXPECT_EQ(poll_->Poll(1000), 1);
  EXPECT_EQ(poll_->ServedKeys(), (std::vector<HandleObj>{5, 7}));

  // Delete and add again with a new handle: not served in that pass, waited
  // on from the next.
  poll_->served.clear();
  poll_->actions.clear();
  poll_->AddHandle(9, manual_[1], -1, 3, 1, 0);
  EXPECT_EQ(poll_->Poll(1000), 1);  // the rebuild takes 9 in
  poll_->served.clear();
  poll_->actions[5] = [&] {
    poll_->DelHandle(9);
    return poll_->AddHandle(9, manual_[2], -1, 3, 1, 0);
  };
  EXPECT_EQ(poll_->Poll(1000), 1);
  EXPECT_EQ(poll_->ServedKeys(), (std::vector<HandleObj>{5, 7}));
  poll_->actions.clear();
  poll_->served.clear();
  ResetEvent(manual_[5]);
  ResetEvent(manual_[7]);
  ResetEvent(manual_[1]);
  SetEvent(manual_[2]);
  EXPECT_EQ(poll_->Poll(1000), 1);
  EXPECT_EQ(poll_->ServedKeys(), (std::vector<HandleObj>{9}));
}

TEST_F(OSPollTest, ResultAboveOneEndsThePass) {
  for (HandleObj key : {HandleObj(5), HandleObj(7), HandleObj(9)})
    poll_->AddHandle(key, manual_[key % 8], -1, 3, 1, 0);
  for (int i : {1, 5, 7}) SetEvent(manual_[i]);
  poll_->actions[5] = [] { return 3; };
  EXPECT_EQ(poll_->Poll(1000), 3);
  EXPECT_EQ(poll_->ServedKeys(), std::vector<HandleObj>{5});
  // Manual-reset events stay signalled for the next pass.
  poll_->actions.clear();
  poll_->served.clear();
  EXPECT_EQ(poll_->Poll(0), 1);
  EXPECT_EQ(poll_->ServedKeys(), (std::vector<HandleObj>{5, 7, 9}));
}

TEST_F(OSPollTest, NegativeResultGoesToOnHandleFailed) {
  poll_->AddHandle(5, manual_[5], -1, 3, 1, 0);
  SetEvent(manual_[5]);
  poll_->actions[5] = [] { return -7; };
  EXPECT_EQ(poll_->Poll(0), 0);  // OnHandleFailed returned 0: no work
  ASSERT_EQ(poll_->failed.size(), 1u);
  EXPECT_EQ(poll_->failed[0].key, 5u);
  EXPECT_EQ(static_cast<int32_t>(poll_->failed[0].events), -7);
}

TEST_F(OSPollTest, DisabledAndEmptySets) {
  const uint32_t start = GetTickCount();
  EXPECT_EQ(poll_->Poll(INFINITE), 0);  // no record
  poll_->AddHandle(5, manual_[5], -1, 3, 0, 0);
  SetEvent(manual_[5]);
  EXPECT_EQ(poll_->Poll(INFINITE), 0);  // no enabled record: no wait at all
  EXPECT_LT(GetTickCount() - start, 1000u);
  EXPECT_TRUE(poll_->served.empty());
  EXPECT_EQ(poll_->EnableHandle(5, 1), 1);
  EXPECT_EQ(poll_->Poll(0), 1);
  EXPECT_EQ(poll_->ServedKeys(), std::vector<HandleObj>{5});
  // A record disabled by a callback is still served in that pass, then not.
  poll_->AddHandle(6, manual_[6], -1, 3, 1, 0);
  SetEvent(manual_[6]);
  poll_->actions[5] = [&] { return poll_->EnableHandle(6, 0); };
  poll_->served.clear();
  EXPECT_EQ(poll_->Poll(0), 1);
  EXPECT_EQ(poll_->ServedKeys(), (std::vector<HandleObj>{5, 6}));
  poll_->served.clear();
  EXPECT_EQ(poll_->Poll(0), 1);
  EXPECT_EQ(poll_->ServedKeys(), std::vector<HandleObj>{5});
}

TEST_F(OSPollTest, TimeoutAndErrorPaths) {
  poll_->AddHandle(5, manual_[5], -1, 3, 1, 0);
  EXPECT_EQ(poll_->Poll(5), 0);
  EXPECT_EQ(poll_->timeouts, 1);
  poll_->timeoutResult = -1;
  EXPECT_EQ(poll_->Poll(5), 1);  // negative counts as work
  poll_->timeoutResult = 4;
  EXPECT_EQ(poll_->Poll(5), 4);

  // A bad handle makes the wait fail until the subclass removes it.
  poll_->AddHandle(6, FakeHandle(), -1, 3, 1, 0);
  EXPECT_EQ(poll_->Poll(0), 0);
  EXPECT_EQ(poll_->Poll(0), 0);
  EXPECT_EQ(poll_->errors, 2);
  poll_->errorAction = [&] { poll_->DelHandle(6); };
  EXPECT_EQ(poll_->Poll(0), 1);  // a deletion in OnPollError counts as work
  EXPECT_EQ(poll_->errors, 3);
  SetEvent(manual_[5]);
  EXPECT_EQ(poll_->Poll(0), 1);
  EXPECT_EQ(poll_->ServedKeys(), std::vector<HandleObj>{5});
}

TEST_F(OSPollTest, FullTableReportsAndRefuses) {
  ASSERT_TRUE(EnsureDescriptors(9000));
  EventRow events(POLL_MAX_RECORDS, 0);
  ASSERT_TRUE(events.AllMade());
  for (int i = 0; i < POLL_MAX_RECORDS; ++i)
    ASSERT_EQ(poll_->AddHandle(static_cast<HandleObj>(i + 1), events[i], -1, 1, 1, 0), 1);
  DiagnosticsCapture capture;
  EXPECT_EQ(poll_->AddHandle(99999, manual_[0], -1, 1, 1, 0), 0);
  std::vector<std::string> reports = capture.Reports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NE(reports[0].find("File: \"codelib/brisk/source/OSPoll(103)\""), std::string::npos);
  // The 4032nd is served.
  SetEvent(events[POLL_MAX_RECORDS - 1]);
  EXPECT_EQ(poll_->Poll(1000), 1);
  EXPECT_EQ(poll_->ServedKeys(), std::vector<HandleObj>{POLL_MAX_RECORDS});
  poll_.reset();  // ends the helpers before the events close
}

class SocketPollTest : public OSPollTest {
 protected:
  void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0); }
  void TearDown() override {
    for (int fd : fds_)
      if (fd >= 0) close(fd);
  }
  int fds_[2] = {-1, -1};
  EventRow auto_{2, 0};
};

TEST_F(SocketPollTest, WritableIsServedAgainAndAgain) {
  poll_->actions[1] = [] { return 0; };
  ASSERT_EQ(poll_->AddHandle(1, auto_[0], fds_[0], POLL_WRITE, 1, 0), 1);  // sets the event
  for (int pass = 0; pass < 3; ++pass) EXPECT_EQ(poll_->Poll(0), 0) << pass;
  EXPECT_EQ(poll_->served, (std::vector<Served>(3, Served{1, POLL_WRITE})));
  // Disabled, it is no longer served; enabled again, the rule kicks it.
  poll_->EnableHandle(1, 0);
  poll_->served.clear();
  EXPECT_EQ(poll_->Poll(0), 0);
  EXPECT_TRUE(poll_->served.empty());
  poll_->EnableHandle(1, 1);
  EXPECT_EQ(poll_->Poll(0), 0);
  EXPECT_EQ(poll_->served.size(), 1u);
}

TEST_F(SocketPollTest, ReadinessMapsToTheMask) {
  ASSERT_EQ(poll_->AddHandle(1, auto_[0], fds_[0], POLL_READ | POLL_CLOSE, 1, 0), 1);
  // Nothing to read: the event set by hand carries nothing for this mask.
  SetEvent(auto_[0]);
  EXPECT_EQ(poll_->Poll(0), 0);
  EXPECT_TRUE(poll_->served.empty());
  ASSERT_EQ(write(fds_[1], "x", 1), 1);
  SetEvent(auto_[0]);
  EXPECT_EQ(poll_->Poll(0), 1);
  EXPECT_EQ(poll_->served, (std::vector<Served>{Served{1, POLL_READ}}));
  close(fds_[1]);
  fds_[1] = -1;
  SetEvent(auto_[0]);
  poll_->served.clear();
  EXPECT_EQ(poll_->Poll(0), 1);
  EXPECT_EQ(poll_->served, (std::vector<Served>{Served{1, POLL_READ | POLL_CLOSE}}));
}

TEST_F(SocketPollTest, ListeningSocketAndBadDescriptor) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  socklen_t size = sizeof address;
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
  int client = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(poll_->AddHandle(1, auto_[0], listener, POLL_ACCEPT, 1, 0), 1);
  SetEvent(auto_[0]);
  EXPECT_EQ(poll_->Poll(1000), 1);
  EXPECT_EQ(poll_->served, (std::vector<Served>{Served{1, POLL_ACCEPT}}));

  // A descriptor that is no socket is told as closed, whatever the mask.
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  ASSERT_EQ(poll_->AddHandle(2, auto_[1], pipeFds[0], POLL_READ, 1, 0), 1);
  SetEvent(auto_[1]);
  poll_->served.clear();
  EXPECT_EQ(poll_->Poll(1000), 1);
  EXPECT_EQ(poll_->served, (std::vector<Served>{Served{2, POLL_CLOSE}}));
  for (int fd : {listener, client, pipeFds[0], pipeFds[1]}) close(fd);
}

TEST_F(OSPollTest, OperationsArePerformanceSites) {
  poll_->AddHandle(1, manual_[0], -1, 1, 1, 0);
  poll_->EnableHandle(1, 0);
  poll_->GetHandleInfos(1, nullptr, nullptr, nullptr, nullptr);
  poll_->GetAllHandleObj(nullptr);
  poll_->DelHandle(1);
  for (const char* name : {"COSPoll::AddHandle()", "COSPoll::DelHandle()", "COSPoll::EnableHandle()",
                           "COSPoll::GetHandleInfos()", "COSPoll::GetAllHandleObj()"}) {
    PerformanceSite* site = FindPerformanceSite(name, "codelib");
    ASSERT_NE(site, nullptr) << name;
    EXPECT_GT(site->calls.load(), 0u) << name;
  }
}

}  // namespace
