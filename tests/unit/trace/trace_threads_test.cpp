#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/trace/trace_tools.h"

namespace {

struct Counter : TraceTools::TraceSubscriber {
  bool WantsEveryEvent() const override { return true; }
  void OnTraceEvent(const TraceTools::TraceEvent& e) override {
    if (e.length > 0 && e.text[0] != '<') count.fetch_add(1, std::memory_order_relaxed);
  }
  std::atomic<int> count{0};
};

// Tracing from several threads while subscribers come and go, formatted by the shared cached ICU formatters.
TEST(TraceThreads, TracingWhileRegistering) {
  Counter stays;
  TraceTools::Subscribe(&stays);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 300; ++i) {
        TraceTools::DbgTraceInfo(83, "thread {0} event {1}", t, i);
        TraceTools::DbgTraceInfo(83, u"{0,number,hex} {1} {2,number,integer,000} {3,date,long} {4,size} {0,choice,0<b}",
                                 i, t * 1000, i % 7, Processor::Date{1e12}, 1536);
      }
    });
  Counter comesAndGoes;
  for (int i = 0; i < 200; ++i) {
    TraceTools::Subscribe(&comesAndGoes);
    TraceTools::Unsubscribe(&comesAndGoes);
  }
  for (auto& th : threads) th.join();
  TraceTools::Unsubscribe(&stays);
  EXPECT_EQ(1800, stays.count.load());
}

}  // namespace
