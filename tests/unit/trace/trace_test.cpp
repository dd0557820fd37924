#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "core/common/unicode.h"
#include "core/trace/trace_tools.h"
#include "processor/format/impl/formatters.h"

namespace {

using Common::Str;

struct Recorded {
  int32_t level;
  int32_t code;
  std::string text;
};

struct Recorder : TraceTools::TraceSubscriber {
  explicit Recorder(bool wantsEvery) : every(wantsEvery) { TraceTools::Subscribe(this); }
  ~Recorder() override { TraceTools::Unsubscribe(this); }
  bool WantsEveryEvent() const override { return every; }
  void OnTraceEvent(const TraceTools::TraceEvent& e) override {
    events.push_back({e.level, e.code, Common::ToUtf8(e.text, e.length)});
  }
  bool every;
  std::vector<Recorded> events;
};

struct CallbackLog {
  std::vector<Recorded> events;
  uint64_t handle;
  CallbackLog() {
    handle = TraceTools::RegisterCallback(
        [](void* self, const TraceTools::TraceEvent& e) {
          static_cast<CallbackLog*>(self)->events.push_back({e.level, e.code, Common::ToUtf8(e.text, e.length)});
        },
        this);
  }
  ~CallbackLog() { TraceTools::UnregisterCallback(handle); }
};

class Trace : public ::testing::Test {
 protected:
  void SetUp() override { TraceTools::SetMinimumLevel(Common::EventLevelNotice); }
  void TearDown() override { TraceTools::SetMinimumLevel(Common::EventLevelNotice); }
};

TEST_F(Trace, DeliveryByLevelAndSubscriberKind) {
  EXPECT_EQ(2, TraceTools::GetMinimumLevel());
  Recorder every(true), filtered(false);
  CallbackLog callbacks;
  TraceTools::DbgTraceInfo(215, "Device {0} has {1} partitions", "sdb", 2);
  TraceTools::Trace(Common::EventLevelNotice, 189, Str(u"Mounting {0}"), Str(u"sdb1"));

  ASSERT_EQ(2u, every.events.size());
  EXPECT_EQ(1, every.events[0].level);
  EXPECT_EQ(215, every.events[0].code);
  EXPECT_EQ("Device sdb has 2 partitions", every.events[0].text);
  ASSERT_EQ(1u, filtered.events.size());
  EXPECT_EQ("Mounting sdb1", filtered.events[0].text);
  ASSERT_EQ(1u, callbacks.events.size());
  EXPECT_EQ(189, callbacks.events[0].code);
}

TEST_F(Trace, SubscriberMayStartWantingEveryEvent) {
  Recorder later(false);
  TraceTools::DbgTraceInfo(215, "before");
  later.every = true;
  TraceTools::DbgTraceInfo(215, "after");
  ASSERT_EQ(1u, later.events.size());
  EXPECT_EQ("after", later.events[0].text);
}

TEST_F(Trace, PlainCallbacksAndUnregistering) {
  static std::vector<std::string> seen;
  seen.clear();
  const uint64_t h = TraceTools::RegisterCallback(
      [](const TraceTools::TraceEvent& e) { seen.push_back(Common::ToUtf8(e.text, e.length)); });
  EXPECT_NE(0u, h);
  TraceTools::Trace(Common::EventLevelError, 83, "one");
  TraceTools::UnregisterCallback(h);
  TraceTools::Trace(Common::EventLevelError, 83, "two");
  EXPECT_EQ(std::vector<std::string>{"one"}, seen);
  for (auto level : {Common::EventLevelDebug, Common::EventLevelError, Common::EventLevelCritical})
    EXPECT_FALSE(TraceTools::IsTraced(level)) << level;
  TraceTools::DbgTraceInfo(215, "{0}", "unseen");  // must simply do nothing
}

TEST_F(Trace, TraceErrorJoinsContextAndErrorText) {
  Recorder every(true);
  const Common::Error e(0xBD08B0, Str(u"File is not found."), AS_LOCATION_AT("x/y", "GetDeviceSize", 10));
  TraceTools::TraceError(215, e, Str(u"Getting size of 'sdé'"));
  ASSERT_EQ(1u, every.events.size());
  EXPECT_EQ(4, every.events[0].level);
  EXPECT_EQ("Getting size of 'sdé'\n\n    0xBD08B0: File is not found.\n    $module = "
            "appliance_storage_glxa64_38811\n    x/y : GetDeviceSize(10)",
            every.events[0].text);
  // A lone surrogate in the context comes out as U+FFFD.
  String context = Str(u"a");
  context.push_back(0xD800);
  TraceTools::TraceError(215, e, context);
  EXPECT_EQ(0u, every.events[1].text.find("a\xEF\xBF\xBD\n"));
}

TEST_F(Trace, EventPairMarksExceptionalExit) {
  Recorder every(true);
  {
    TraceTools::EventPair<Common::EventLevelDebug> pair(215, Str(u"Enter"), Str(u"Leave"));
  }
  try {
    TraceTools::EventPair<Common::EventLevelDebug> pair(215, Str(u"Enter"), Str(u"Leave"));
    throw std::runtime_error("x");
  } catch (const std::exception&) {
  }
  // A guard made inside a destructor that runs during unwinding is left normally.
  struct Cleanup {
    ~Cleanup() { TraceTools::EventPair<Common::EventLevelDebug> pair(83, Str(u"In"), Str(u"Out")); }
  };
  try {
    Cleanup c;
    throw std::runtime_error("y");
  } catch (const std::exception&) {
  }
  std::vector<std::string> texts;
  for (const auto& e : every.events) texts.push_back(e.text);
  EXPECT_EQ((std::vector<std::string>{"Enter", "Leave", "Enter", "! Leave", "In", "Out"}), texts);
}

// A subscriber that throws must not turn the closing event into std::terminate.
TEST_F(Trace, EventPairSurvivesAThrowingSubscriber) {
  struct Thrower : TraceTools::TraceSubscriber {
    bool WantsEveryEvent() const override { return true; }
    void OnTraceEvent(const TraceTools::TraceEvent&) override { throw std::runtime_error("subscriber"); }
  } thrower;
  for (bool unwinding : {false, true}) {
    SCOPED_TRACE(unwinding);
    try {
      TraceTools::EventPair<Common::EventLevelDebug> pair(215, Str(u"Enter"), Str(u"Leave"));
      TraceTools::Subscribe(&thrower);
      if (unwinding) throw std::logic_error("scope");
    } catch (const std::logic_error& e) {
      EXPECT_STREQ("scope", e.what());
    }
    TraceTools::Unsubscribe(&thrower);
  }
}

// Unloading raises the minimum level to 6 before the formatting singletons go;
// formatting still works afterwards. Run in a child, as it ends the singletons.
TEST_F(Trace, UnloadRaisesTheMinimumLevel) {
  EXPECT_EXIT(
      {
        Recorder every(true);
        CallbackLog callbacks;
        Processor::BeginUnload();
        const bool raised = TraceTools::GetMinimumLevel() == 6;
        TraceTools::TraceError(215, Common::Error(1, AS_HERE), Str(u"late"));
        const bool filtered = callbacks.events.empty() && every.events.size() == 1;
        const bool formats = Core::FormatString(Str(u"{0,number,hex}"), 255) == Str(u"FF");
        std::exit(raised && filtered && formats ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
