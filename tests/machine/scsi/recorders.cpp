#include "recorders.h"

#include "core/common/assert.h"
#include "core/common/unicode.h"

void TraceRecorder::OnTraceEvent(const TraceTools::TraceEvent& event) {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back({event.level, event.code, Common::ToUtf8(event.text, event.length)});
}

std::vector<RecordedEvent> TraceRecorder::Events() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

std::vector<RecordedEvent> TraceRecorder::Containing(const std::string& part) const {
  std::vector<RecordedEvent> found;
  for (const RecordedEvent& e : Events())
    if (e.text.find(part) != std::string::npos) found.push_back(e);
  return found;
}

namespace {
std::mutex gAssertMutex;
std::vector<std::string> gAsserts;

void OnAssert(int, int, int, const char* text) {
  std::lock_guard<std::mutex> lock(gAssertMutex);
  gAsserts.push_back(text);
}
}  // namespace

AssertRecorder::AssertRecorder() {
  std::lock_guard<std::mutex> lock(gAssertMutex);
  gAsserts.clear();
  Common::SetAssertEventCallback(OnAssert);
}

AssertRecorder::~AssertRecorder() { Common::SetAssertEventCallback(nullptr); }

std::vector<std::string> AssertRecorder::Texts() const {
  std::lock_guard<std::mutex> lock(gAssertMutex);
  return gAsserts;
}

size_t AssertRecorder::Count(const std::string& part) const {
  size_t n = 0;
  for (const std::string& t : Texts()) n += t.find(part) != std::string::npos;
  return n;
}
