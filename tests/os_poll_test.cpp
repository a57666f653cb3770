#include "OSPoll.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "wait_test_support.h"

namespace {

using Served = std::pair<HandleObj, uint32_t>;  // key, events
using Keys = std::vector<HandleObj>;

// Records what it serves; a per-key action may replace the default result 1.
class RecordingPoll : public COSPoll {
 public:
  int32_t OnHandleSignaled(HandleObj key, HANDLE, int32_t, uint32_t events) override {
    served.push_back({key, events});
    auto it = actions.find(key);
    return it == actions.end() ? 1 : it->second();
  }
  int32_t OnPollTimeout() override { return timeoutResult; }
  int32_t OnPollError(uint32_t) override {
    if (errorAction) errorAction();
    return 0;
  }
  int32_t OnHandleFailed(HandleObj key, HANDLE, int32_t, int32_t result) override {
    return failed.push_back({key, static_cast<uint32_t>(result)}), 0;
  }
  // One pass from a clean record: the keys served, checking Poll's result.
  Keys Pass(int32_t expected, uint32_t timeoutMs = 0) {
    served.clear();
    EXPECT_EQ(Poll(timeoutMs), expected);
    Keys keys;
    for (const Served& s : served) keys.push_back(s.first);
    return keys;
  }

  std::vector<Served> served, failed;
  std::map<HandleObj, std::function<int32_t()>> actions;
  std::function<void()> errorAction;
  int timeoutResult = 0;
};

class OSPollTest : public ::testing::Test {
 protected:
  // Records 5, 7 and 9 on manual_[5], [7] and [1], all signalled.
  void AddFiveSevenNine() {
    for (HandleObj key : {HandleObj(9), HandleObj(5), HandleObj(7)})
      ASSERT_EQ(poll_->AddHandle(key, manual_[key % 8], -1, 3, 1, 0), 1);
    for (int i : {1, 5, 7}) SetEvent(manual_[i]);
  }
  // GetHandleInfos' result and outputs; the context is preset to 77.
  std::tuple<int32_t, int32_t, HANDLE, int32_t, uint32_t, uintptr_t> Infos(HandleObj key) {
    int32_t enabled = -1;
    OSHandle handle{FakeHandle(), 5};
    uint32_t mask = 7;
    uintptr_t context = 77;
    const int32_t found = poll_->GetHandleInfos(key, &enabled, &handle, &mask, &context);
    return {found, enabled, handle.handle, handle.socket, mask, context};
  }
  std::unique_ptr<RecordingPoll> poll_ = std::make_unique<RecordingPoll>();
  EventRow manual_{8, 1};
};

TEST_F(OSPollTest, TableOperations) {
  HANDLE h = manual_[0];
  for (HandleObj key : {HandleObj(9), HandleObj(5), ~HandleObj(0), HandleObj(7)})
    ASSERT_EQ(poll_->AddHandle(key, h, -1, 3, 1, key), 1);
  struct Case {  // the same key again, mask 0, no handle, accept with read, accept with close
    HandleObj key;
    HANDLE handle;
    uint32_t mask;
    int32_t expected;
  } cases[] = {{9, manual_[1], 3, 0}, {2, h, 0, 0}, {3, nullptr, 3, 0}, {4, h, 9, 0}, {6, h, 12, 1}};
  for (const Case& c : cases) EXPECT_EQ(poll_->AddHandle(c.key, c.handle, -1, c.mask, 1, 0), c.expected) << c.key;
  Keys keys(5);
  poll_->GetAllHandleObj(keys.data());
  EXPECT_EQ(keys, (Keys{5, 6, 7, 9, ~HandleObj(0)}));  // unsigned order
  EXPECT_EQ(poll_->HandleCount(), 5);

  EXPECT_EQ(Infos(9), std::make_tuple(1, 1, h, -1, 3u, uintptr_t(9)));  // the refused second add changed nothing

  EXPECT_EQ(poll_->EnableHandle(7, 1), 1);
  EXPECT_EQ(poll_->EnableHandle(8, 1), 0);
  EXPECT_EQ(poll_->DelHandle(9), 1);
  EXPECT_EQ(poll_->DelHandle(9), 0);
  EXPECT_EQ(Infos(9), std::make_tuple(0, 0, HANDLE(nullptr), -1, 0u, uintptr_t(77)));  // context left alone
  poll_->DelAllHandles();
  EXPECT_EQ(poll_->HandleCount(), 0);
}

TEST_F(OSPollTest, PassServesEnabledSignalledRecordsInKeyOrder) {
  ASSERT_EQ(poll_->AddHandle(6, manual_[6], -1, 3, 0, 0), 1);
  SetEvent(manual_[6]);
  EXPECT_EQ(poll_->Pass(0, INFINITE), Keys{});  // no enabled record: no wait at all
  AddFiveSevenNine();
  EXPECT_EQ(poll_->Pass(1, 1000), (Keys{5, 7, 9}));
  EXPECT_EQ(poll_->served[0].second, 3u);
  // A result above 1 ends the pass; manual-reset events stay signalled.
  poll_->actions[5] = [] { return 3; };
  EXPECT_EQ(poll_->Pass(3), Keys{5});
  // A negative result goes to OnHandleFailed, which says "no work".
  poll_->actions[5] = [] { return -7; };
  poll_->actions[7] = poll_->actions[9] = [] { return 0; };
  EXPECT_EQ(poll_->Pass(0), (Keys{5, 7, 9}));
  EXPECT_EQ(poll_->failed, (std::vector<Served>{{5, static_cast<uint32_t>(-7)}}));
}

TEST_F(OSPollTest, CallbackDeletesOrReAddsALaterKey) {
  AddFiveSevenNine();
  poll_->actions[5] = [&] { return poll_->DelHandle(9); };
  EXPECT_EQ(poll_->Pass(1, 1000), (Keys{5, 7}));
  // Deleted and added again with a new handle: not served in that pass,
  // waited on from the next.
  poll_->actions.clear();
  poll_->AddHandle(9, manual_[1], -1, 3, 1, 0);
  EXPECT_EQ(poll_->Pass(1, 1000), (Keys{5, 7, 9}));  // the rebuild takes 9 in
  poll_->actions[5] = [&] { return poll_->DelHandle(9), poll_->AddHandle(9, manual_[2], -1, 3, 1, 0); };
  EXPECT_EQ(poll_->Pass(1, 1000), (Keys{5, 7}));
  poll_->actions.clear();
  for (int i : {5, 7, 1}) ResetEvent(manual_[i]);
  SetEvent(manual_[2]);
  EXPECT_EQ(poll_->Pass(1, 1000), Keys{9});
}

TEST_F(OSPollTest, FullTableReportsAndRefuses) {
  ASSERT_TRUE(EnsureDescriptors(9000));
  EventRow events(POLL_MAX_RECORDS, 0);
  ASSERT_TRUE(events.AllMade());
  for (int i = 0; i < POLL_MAX_RECORDS; ++i)
    ASSERT_EQ(poll_->AddHandle(static_cast<HandleObj>(i + 1), events[i], -1, 1, 1, 0), 1);
  DiagnosticsCapture capture;
  EXPECT_EQ(poll_->AddHandle(99999, manual_[0], -1, 1, 1, 0), 0);
  EXPECT_EQ(capture.Reports().size(), 1u);
  EXPECT_EQ(poll_->HandleCount(), POLL_MAX_RECORDS);
}

// Socket records: the write rule, and the socket's readiness in place of the mask.
TEST_F(OSPollTest, SocketRecordsContract) {
  EventRow autoReset(2, 0);
  int pair[2], pipeFds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) + pipe(pipeFds), 0);
  // A writable socket is served again and again while enabled; enabling kicks it.
  poll_->actions[1] = [] { return 0; };
  ASSERT_EQ(poll_->AddHandle(1, autoReset[0], pair[0], POLL_WRITE, 1, 0), 1);  // sets the event
  for (int pass = 0; pass < 4; ++pass) {  // disabled for the third
    if (pass >= 2) poll_->EnableHandle(1, pass == 3);
    EXPECT_EQ(poll_->Pass(0), pass == 2 ? Keys{} : Keys{1}) << pass;
  }
  EXPECT_EQ(poll_->served[0].second, static_cast<uint32_t>(POLL_WRITE));
  poll_->DelHandle(1);
  auto serve = [&](int fd) {  // as a read record, with the event set
    poll_->served.clear();
    EXPECT_EQ(poll_->AddHandle(2, autoReset[1], fd, POLL_READ | POLL_CLOSE, 1, 0), 1);
    SetEvent(autoReset[1]);
    poll_->Poll(0);
    return poll_->DelHandle(2), poll_->served;
  };
  EXPECT_EQ(serve(pair[0]), std::vector<Served>{});  // nothing to read: set by hand
  ASSERT_EQ(write(pair[1], "x", 1), 1);
  EXPECT_EQ(serve(pair[0]), (std::vector<Served>{{2, POLL_READ}}));
  close(pair[1]);
  EXPECT_EQ(serve(pair[0]), (std::vector<Served>{{2, POLL_READ | POLL_CLOSE}}));
  EXPECT_EQ(serve(pipeFds[0]), (std::vector<Served>{{2, POLL_CLOSE}}));  // no socket: told as closed
  for (int fd : {pair[0], pipeFds[0], pipeFds[1]}) close(fd);
}

}  // namespace
