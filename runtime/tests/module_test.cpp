#include <atomic>
#include <memory>
#include <stdexcept>

#include "QmThreadModule.h"
#include "QmconException.h"
#include "QmsysEventLogInterface.h"
#include "net_test_support.h"

namespace {

// Counts a call and answers `result`.
template <typename Counter>
bool Counted(Counter& calls, bool result) {
  ++calls;
  return result;
}

struct PlainModule : QmPlainModule {
  std::string GetRunningModuleName() override { return "NetModuleTest"; }
  bool InitializeSpecial() override { return Counted(initialised, initResult); }
  bool FinalizeSpecial() override { return Counted(finalised, false); }  // Finalize still says true

  int initialised = 0, finalised = 0;
  bool initResult = true;
};

// A thread module whose work loop is given by the test.
struct LoopModule : QmThreadModule {
  explicit LoopModule(std::function<void(LoopModule&)> loop) : loop(std::move(loop)) {}
  std::string GetRunningModuleName() override { return "Loop Module"; }
  void DoThreadWork() override { loop(*this); }
  bool FinalizeSpecial() override { return Counted(finalised, true); }
  std::function<void(LoopModule&)> loop;
  std::atomic<int> finalised{0};
};

TEST(PlainModuleTest, LoggerRules) {
  RecordingLogger log;
  PlainModule without, given, owning;
  // Required but none given nor made.
  EXPECT_TRUE(without.Initialize(nullptr, "") && !without.GetLogger() && without.initialised == 1);
  given.initResult = false;
  EXPECT_FALSE(given.Initialize(&log, "/nonexistent"));
  EXPECT_EQ(&log, given.GetLogger());
  EXPECT_TRUE(given.Finalize() && given.finalised == 1);

  LogTempDir dir;  // without one passed, creates its own and stops it at the end
  EXPECT_TRUE(owning.Initialize(nullptr, dir.path()));
  auto* created = dynamic_cast<QmsysEventLogInterface*>(owning.GetLogger());
  ASSERT_NE(nullptr, created);
  EXPECT_TRUE(created->IsAlive() && owning.Finalize() && !created->IsAlive());
  QmsysEventLogInterface::ReleaseAll();
}

TEST(ThreadModuleTest, WaitAndPacingBeforeAndAfterStop) {
  RecordingLogger log;  // outlives the module's thread
  QmconEvent started(true);
  LoopModule module([&](LoopModule& self) {
    started.Broadcast();
    while (self.KeepContinueMyself(20, true)) {
    }
  });
  EXPECT_FALSE(module.WaitForThreadStop(0));  // not started
  module.Initialize(&log, "");
  EXPECT_TRUE(module.StartAsThread());
  EXPECT_EQ(QmconEvent::SIGNALLED, started.Wait(5000));
  EXPECT_EQ(1u, log.Count(QmLogInterface::LEVEL_INFO, "Starting 'Loop Module' thread, pid:"));
  EXPECT_FALSE(module.StartAsThread());  // already running: refused, the thread goes on
  EXPECT_EQ(1u, log.Count(QmLogInterface::LEVEL_ERROR,
                          "Unable to start 'Loop Module' thread: it is already running."));
  EXPECT_TRUE(module.KeepContinueMyself(10, true) && !module.KeepContinueMyself(10, false));
  EXPECT_FALSE(module.WaitForThreadStop(50));

  EXPECT_TRUE(module.StopThread() && module.WaitForThreadStop(5000));
  EXPECT_EQ(1, module.finalised.load());
  // The last trace comes before the stopped event.
  EXPECT_EQ(1u, log.Count(QmLogInterface::LEVEL_TRACE, "Leaving QmThreadModule::DoWork()"));
  EXPECT_FALSE(module.KeepContinueMyself(5000, true));  // the stop stays set
  EXPECT_TRUE(module.KeepContinueMyself(0, true));
}

// Each module and its logger are deleted as soon as the stopped event is
// seen: the thread touches neither after signalling it.
TEST(ThreadModuleTest, EachKindOfExceptionIsLoggedOnceAndTheModuleStillEnds) {
  const std::pair<std::function<void()>, const char*> cases[] = {
      {[] { throw QmioException("peer:1", "I/O went wrong"); },
       "I/O exception occurred: Exception raised! IO path[peer:1]"},
      {[] { throw QmconException(7, "lock went wrong"); },
       "Concurrency exception occurred: Exception raised! ThreadID[7]"},
      {[] { throw QmException("plain fault"); }, "General exception occurred: plain fault"},
      {[] { throw std::runtime_error("std fault"); }, "General exception occurred: std fault"},
      {[] { throw 42; }, "Unknown exception occurred."}};
  for (const auto& c : cases) {
    auto log = std::make_unique<RecordingLogger>();
    auto module = std::make_unique<LoopModule>([&](LoopModule&) { c.first(); });
    module->Initialize(log.get(), "");
    module->StartAsThread();
    ASSERT_TRUE(module->WaitForThreadStop(5000)) << c.second;
    EXPECT_TRUE(log->Count(QmLogInterface::LEVEL_CRITICAL, c.second) == 1 && module->finalised == 1)
        << c.second;
  }  // the module goes first, then its logger
}

}  // namespace
