#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/common/unicode.h"
#include "core/trace/trace_tools.h"

namespace {

struct Counter : TraceTools::TraceSubscriber {
  bool WantsEveryEvent() const override { return true; }
  void OnTraceEvent(const TraceTools::TraceEvent& e) override {
    if (e.length > 0) count.fetch_add(1, std::memory_order_relaxed);
  }
  std::atomic<int> count{0};
};

// Tracing from several threads while subscribers come and go.
TEST(TraceThreads, TracingWhileRegistering) {
  Counter stays;
  TraceTools::Subscribe(&stays);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 500; ++i) TraceTools::DbgTraceInfo(83, "thread {0} event {1}", t, i);
    });
  Counter comes_and_goes;
  for (int i = 0; i < 200; ++i) {
    TraceTools::Subscribe(&comes_and_goes);
    TraceTools::Unsubscribe(&comes_and_goes);
  }
  for (auto& th : threads) th.join();
  TraceTools::Unsubscribe(&stays);
  EXPECT_EQ(1500, stays.count.load());
}

}  // namespace
