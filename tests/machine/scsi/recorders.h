#pragma once
// What the library reports while a test runs: trace events and assertions.
#include <mutex>
#include <string>
#include <vector>

#include "core/trace/trace_tools.h"

struct RecordedEvent {
  int level;
  int code;
  std::string text;  // UTF-8
};

// Records every trace event while it lives.
class TraceRecorder : public TraceTools::TraceSubscriber {
 public:
  TraceRecorder() { TraceTools::Subscribe(this); }
  ~TraceRecorder() override { TraceTools::Unsubscribe(this); }
  bool WantsEveryEvent() const override { return true; }
  void OnTraceEvent(const TraceTools::TraceEvent& event) override;

  std::vector<RecordedEvent> Events() const;
  // Events whose text contains `part`.
  std::vector<RecordedEvent> Containing(const std::string& part) const;

 private:
  mutable std::mutex mutex_;
  std::vector<RecordedEvent> events_;
};

// Records assertion texts while it lives (the test program runs with
// ZEMLORA_SAFE_ASSERT=event).
class AssertRecorder {
 public:
  AssertRecorder();
  ~AssertRecorder();
  std::vector<std::string> Texts() const;
  size_t Count(const std::string& part) const;
};
