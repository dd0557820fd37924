#pragma once
// Trace events and assertion texts raised while a recorder lives (ZEMLORA_SAFE_ASSERT=event).
#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "core/common/assert.h"
#include "core/common/unicode.h"
#include "core/trace/trace_tools.h"

struct RecordedEvent {
  int level, code;
  std::string text;  // UTF-8
};

class TraceRecorder : public TraceTools::TraceSubscriber {
 public:
  TraceRecorder() { TraceTools::Subscribe(this); }
  ~TraceRecorder() override { TraceTools::Unsubscribe(this); }
  bool WantsEveryEvent() const override { return true; }
  void OnTraceEvent(const TraceTools::TraceEvent& event) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back({event.level, event.code, Common::ToUtf8(event.text, event.length)});
  }
  std::vector<RecordedEvent> Containing(const std::string& part = "") const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<RecordedEvent> found;
    std::copy_if(events_.begin(), events_.end(), std::back_inserter(found),
                 [&](const RecordedEvent& e) { return e.text.find(part) != std::string::npos; });
    return found;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<RecordedEvent> events_;
};

class AssertRecorder {
 public:
  AssertRecorder() {
    texts_.clear();
    Common::SetAssertEventCallback([](int, int, int, const char* text) {
      std::lock_guard<std::mutex> lock(mutex_);
      texts_.push_back(text);
    });
  }
  ~AssertRecorder() { Common::SetAssertEventCallback(nullptr); }
  // Those ending in `end` ("host, line 115").
  size_t Count(const std::string& end = "") const {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::count_if(texts_.begin(), texts_.end(), [&](const std::string& t) {
      return t.size() >= end.size() && t.compare(t.size() - end.size(), end.size(), end) == 0;
    });
  }

 private:
  static inline std::mutex mutex_;
  static inline std::vector<std::string> texts_;
};
