// The process-wide trace sink. Readers never lock: registrations publish a new
// immutable list and keep the old ones to the end of the process, so an event that
// is being delivered never sees a list freed under it. Registrations are rare.
#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "core/trace/trace_internal.h"
#include "core/trace/trace_tools.h"
#include "processor/format/impl/formatters.h"

namespace TraceTools {

namespace {

struct Registration {
  uint64_t handle;
  TraceCallback callback;
  PlainTraceCallback plain;
  void* context;
};

struct Lists {
  std::vector<TraceSubscriber*> subscribers;
  std::vector<Registration> callbacks;
};

std::atomic<int32_t> gMinimumLevel{Common::EventLevelNotice};

class Sink {
 public:
  const Lists* Current() const noexcept { return current_.load(std::memory_order_acquire); }

  template <class Change>
  void Update(Change change) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto next = std::make_unique<Lists>(*Current());
    change(*next);
    current_.store(next.get(), std::memory_order_release);
    retired_.push_back(std::move(next));
  }

  uint64_t NextHandle() { return ++lastHandle_; }

 private:
  std::mutex mutex_;
  std::vector<std::unique_ptr<Lists>> retired_{[] {
    std::vector<std::unique_ptr<Lists>> v;
    v.push_back(std::make_unique<Lists>());
    return v;
  }()};
  std::atomic<const Lists*> current_{retired_.front().get()};
  uint64_t lastHandle_ = 0;
};

// Never destroyed: events may be traced from any static destructor.
Sink& TheSink() {
  static Sink* sink = new Sink;
  return *sink;
}

}  // namespace

TraceSubscriber::~TraceSubscriber() = default;

void Subscribe(TraceSubscriber* subscriber) {
  if (subscriber == nullptr) return;
  TheSink().Update([subscriber](Lists& l) { l.subscribers.push_back(subscriber); });
}

void Unsubscribe(TraceSubscriber* subscriber) {
  TheSink().Update([subscriber](Lists& l) {
    l.subscribers.erase(std::remove(l.subscribers.begin(), l.subscribers.end(), subscriber), l.subscribers.end());
  });
}

namespace {

uint64_t Register(Registration registration) {
  Sink& sink = TheSink();
  sink.Update([&](Lists& l) {
    registration.handle = sink.NextHandle();
    l.callbacks.push_back(registration);
  });
  return registration.handle;
}

}  // namespace

uint64_t RegisterCallback(TraceCallback callback, void* context) { return Register({0, callback, nullptr, context}); }

uint64_t RegisterCallback(PlainTraceCallback callback) { return Register({0, nullptr, callback, nullptr}); }

void UnregisterCallback(uint64_t handle) {
  TheSink().Update([handle](Lists& l) {
    l.callbacks.erase(std::remove_if(l.callbacks.begin(), l.callbacks.end(),
                                     [handle](const Registration& r) { return r.handle == handle; }),
                      l.callbacks.end());
  });
}

void SetMinimumLevel(int32_t level) noexcept { gMinimumLevel.store(level, std::memory_order_relaxed); }

int32_t GetMinimumLevel() noexcept { return gMinimumLevel.load(std::memory_order_relaxed); }

bool IsTraced(int32_t level) noexcept {
  const Lists* lists = TheSink().Current();
  if (level >= GetMinimumLevel() && (!lists->subscribers.empty() || !lists->callbacks.empty())) return true;
  // Asked each time, as delivery asks: a subscriber may change its mind while subscribed.
  return std::any_of(lists->subscribers.begin(), lists->subscribers.end(),
                     [](const TraceSubscriber* s) { return s->WantsEveryEvent(); });
}

void TraceText(Common::EventLevel level, int32_t code, const String& text) {
  const Lists* lists = TheSink().Current();
  const TraceEvent event{level, code, 0, text.c_str(), text.size()};
  const bool aboveMinimum = level >= GetMinimumLevel();
  for (TraceSubscriber* s : lists->subscribers)
    if (aboveMinimum || s->WantsEveryEvent()) s->OnTraceEvent(event);
  if (!aboveMinimum) return;
  for (const Registration& r : lists->callbacks) {
    if (r.callback != nullptr)
      r.callback(r.context, event);
    else if (r.plain != nullptr)
      r.plain(event);
  }
}

void BeginUnload() noexcept {
  SetMinimumLevel(Common::EventLevelShutdown);
  Processor::FormatersHolder::Shutdown();
}

namespace {

// Its destructor runs among the library's static destructors as it unloads.
struct Unload {
  ~Unload() { BeginUnload(); }
} gUnload;

}  // namespace

}  // namespace TraceTools
