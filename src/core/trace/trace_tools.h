#pragma once
// Trace events of the library, and the way for a client to receive them.
//
// The library traces through TraceTools::DbgTraceInfo, DbgTraceError, TraceError and
// EventPair. Each event has a level (Common::EventLevel), the event code of the
// calling area (215 storage manager, 189 partitions, 83 SCSI disks), a second code
// (always 0 here) and a UTF-16 text. Events go to a process-wide sink, which hands
// them to subscribers:
//  - subscriber objects (TraceSubscriber): an object that wants every event gets
//    every one; any other only events at or above the minimum level;
//  - callbacks, with or without a context pointer: events at or above the minimum.
// The minimum level is 2 at start and 6 once the library begins to unload.
// Without subscribers, tracing costs a check and nothing is formatted.
//
//   struct Printer : TraceTools::TraceSubscriber {
//     bool WantsEveryEvent() const override { return true; }
//     void OnTraceEvent(const TraceTools::TraceEvent& e) override { ... }
//   } printer;
//   TraceTools::Subscribe(&printer);
//   ...
//   TraceTools::Unsubscribe(&printer);
//
// Threads: events may be traced from any thread; registration is thread-safe too.
// Events reach a subscriber on the tracing thread, possibly on several at once.
// After Unsubscribe returns, an event that had already started may still be
// delivered: keep the subscriber alive until tracing on other threads has stopped.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <utility>

#include "core/common/error.h"
#include "core/common/export.h"
#include "core/common/ustring.h"
#include "core/trace/event_level.h"
#include "processor/format/format_string.h"

namespace TraceTools {

struct TraceEvent {
  Common::EventLevel level;
  int32_t code;
  int32_t secondCode;
  const unsigned short* text;  // terminated
  size_t length;
};

class AS_EXPORT TraceSubscriber {
 public:
  virtual ~TraceSubscriber();
  // True to receive events below the minimum level as well.
  virtual bool WantsEveryEvent() const = 0;
  virtual void OnTraceEvent(const TraceEvent& event) = 0;
};

using TraceCallback = void (*)(void* context, const TraceEvent& event);
using PlainTraceCallback = void (*)(const TraceEvent& event);

AS_EXPORT void Subscribe(TraceSubscriber* subscriber);
AS_EXPORT void Unsubscribe(TraceSubscriber* subscriber);
// Returns a handle for UnregisterCallback (never 0).
AS_EXPORT uint64_t RegisterCallback(TraceCallback callback, void* context);
AS_EXPORT uint64_t RegisterCallback(PlainTraceCallback callback);
AS_EXPORT void UnregisterCallback(uint64_t handle);

AS_EXPORT void SetMinimumLevel(int32_t level) noexcept;
AS_EXPORT int32_t GetMinimumLevel() noexcept;

// Whether an event of `level` would reach anyone; tracing is skipped when not.
AS_EXPORT bool IsTraced(int32_t level) noexcept;
// Sends one event with a ready text.
AS_EXPORT void TraceText(Common::EventLevel level, int32_t code, const String& text);

template <class Pattern, class... Args>
void Trace(Common::EventLevel level, int32_t code, const Pattern& pattern, const Args&... args) {
  if (!IsTraced(level)) return;
  const auto text = Core::FormatString(pattern, args...);
  if constexpr (std::is_same_v<std::decay_t<decltype(text)>, String>)
    TraceText(level, code, text);
  else
    TraceText(level, code, Core::Detail::WideFromNarrow(text.data(), text.size()));
}

// Debug information, level 1.
template <class Pattern, class... Args>
void DbgTraceInfo(int32_t code, const Pattern& pattern, const Args&... args) {
  Trace(Common::EventLevelDebug, code, pattern, args...);
}

// A debug line about a failure, level 1.
template <class Pattern, class... Args>
void DbgTraceError(int32_t code, const Pattern& pattern, const Args&... args) {
  Trace(Common::EventLevelDebug, code, pattern, args...);
}

// An error, level 4: "<context>\n<the error's text form>".
AS_EXPORT void TraceError(int32_t code, const Common::Error& error, const String& context);
AS_EXPORT void TraceError(int32_t code, const Common::Error& error, const unsigned short* context);

// Traces `opening` when made and `closing` when the scope ends, at the same level;
// the closing text starts with "! " when the scope is left by an exception.
template <Common::EventLevel Level>
class EventPair {
 public:
  EventPair(int32_t code, String opening, String closing)
      : code_(code), closing_(std::move(closing)), exceptions_(std::uncaught_exceptions()) {
    if (IsTraced(Level)) TraceText(Level, code_, opening);
  }
  EventPair(const EventPair&) = delete;
  EventPair& operator=(const EventPair&) = delete;
  ~EventPair() {
    if (!IsTraced(Level)) return;
    // A destructor must not throw, least of all while unwinding: a subscriber's
    // exception (or a failed allocation) costs the closing event, not the process.
    try {
      // Counted, not just tested: a guard made inside a destructor that runs during
      // unwinding is left normally although an exception is in flight.
      if (std::uncaught_exceptions() > exceptions_) closing_.insert(0, Common::String{'!', ' '});
      TraceText(Level, code_, closing_);
    } catch (...) {
    }
  }

 private:
  int32_t code_;
  String closing_;
  int exceptions_;
};

}  // namespace TraceTools
