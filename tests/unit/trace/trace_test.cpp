#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/common/unicode.h"
#include "core/trace/trace_internal.h"
#include "core/trace/trace_tools.h"
#include "ext/include/logging/log.h"

namespace {

using Common::Str;
using Common::ToUtf8;
using Texts = std::vector<std::string>;

struct Recorder : TraceTools::TraceSubscriber {
  explicit Recorder(bool wantsEvery) : every(wantsEvery) { TraceTools::Subscribe(this); }
  ~Recorder() override { TraceTools::Unsubscribe(this); }
  bool WantsEveryEvent() const override { return every; }
  void OnTraceEvent(const TraceTools::TraceEvent& e) override {
    texts.push_back(std::to_string(e.level) + " " + std::to_string(e.code) + " " + Common::ToUtf8(e.text, e.length));
  }
  bool every;
  Texts texts;
};

TEST(Trace, DeliveryByLevelAndSubscriberKind) {
  for (auto level : {Common::EventLevelDebug, Common::EventLevelError, Common::EventLevelCritical})
    EXPECT_FALSE(TraceTools::IsTraced(level)) << level;  // nobody listens
  Recorder every(true), filtered(false);
  Texts callbacks;
  static Texts plain;
  const uint64_t c = TraceTools::RegisterCallback(
      [](void* to, const TraceTools::TraceEvent& e) { static_cast<Texts*>(to)->push_back(ToUtf8(e.text, e.length)); },
      &callbacks);
  const uint64_t h = TraceTools::RegisterCallback(
      [](const TraceTools::TraceEvent& e) { plain.push_back(Common::ToUtf8(e.text, e.length)); });
  TraceTools::DbgTraceInfo(215, "Device {0} has {1} partitions", "sdb", 2);
  TraceTools::Trace(Common::EventLevelNotice, 189, Str(u"Mounting {0}"), Str(u"sdb1"));
  TraceTools::UnregisterCallback(h);
  filtered.every = true;  // asked on every event
  TraceTools::DbgTraceError(83, "now");
  TraceTools::Trace(Common::EventLevelError, 83, "two");
  TraceTools::UnregisterCallback(c);
  EXPECT_EQ((Texts{"1 215 Device sdb has 2 partitions", "2 189 Mounting sdb1", "1 83 now", "4 83 two"}), every.texts);
  EXPECT_EQ((Texts{"2 189 Mounting sdb1", "1 83 now", "4 83 two"}), filtered.texts);
  EXPECT_EQ((Texts{"Mounting sdb1", "two"}), callbacks);
  EXPECT_EQ(Texts{"Mounting sdb1"}, plain);
}

// Every pattern form compiles for FormatString and the trace calls, with the result of its width.
TEST(Trace, EveryPatternForm) {
  Recorder every(true);
  const char narrow[] = "disk {0}";
  const unsigned short wide[] = {'d', 'i', 's', 'k', ' ', '{', '0', '}', 0};
  auto check = [&](const auto& pattern, bool isWide) {
    EXPECT_EQ(isWide, (std::is_same_v<decltype(Core::FormatString(pattern, 7)), String>));
    TraceTools::DbgTraceInfo(83, pattern, u"sdb");
    TraceTools::DbgTraceError(83, pattern, 7);
  };
  check("disk {0}", false), check(narrow, false), check(static_cast<const char*>(narrow), false);
  check(std::string(narrow), false), check(std::string_view(narrow), false);
  check(u"disk {0}", true), check(static_cast<const char16_t*>(u"disk {0}"), true);
  check(std::u16string(u"disk {0}"), true), check(std::u16string_view(u"disk {0}"), true);
  check(Str(u"disk {0}"), true), check(wide, true), check(static_cast<const unsigned short*>(wide), true);
  ASSERT_EQ(24u, every.texts.size());
  for (size_t i = 0; i < every.texts.size(); ++i) EXPECT_EQ(i % 2 ? "1 83 disk 7" : "1 83 disk sdb", every.texts[i]);
}

TEST(Trace, EventPairMarksExceptionalExit) {
  Recorder every(true);
  using Pair = TraceTools::EventPair<Common::EventLevelDebug>;
  { Pair pair(215, Str(u"Enter"), Str(u"Leave")); }
  // A guard made inside a destructor that runs during unwinding is left normally.
  struct Cleanup {
    ~Cleanup() { TraceTools::EventPair<Common::EventLevelNotice> pair(83, Str(u"In"), Str(u"Out")); }
  };
  try {
    Cleanup c;
    Pair pair(215, Str(u"Enter"), Str(u"Leave"));
    throw std::runtime_error("x");
  } catch (const std::exception&) {
  }
  EXPECT_EQ((Texts{"1 215 Enter", "1 215 Leave", "1 215 Enter", "1 215 ! Leave", "2 83 In", "2 83 Out"}), every.texts);

  // A subscriber that throws costs the closing event, not std::terminate.
  struct Thrower : TraceTools::TraceSubscriber {
    bool WantsEveryEvent() const override { return true; }
    void OnTraceEvent(const TraceTools::TraceEvent&) override { throw std::runtime_error("subscriber"); }
  } thrower;
  {
    Pair pair(215, Str(u"Enter"), Str(u"Leave"));
    TraceTools::Subscribe(&thrower);
  }
  TraceTools::Unsubscribe(&thrower);
  TraceTools::DbgTraceInfo(215, "after");
  EXPECT_EQ("1 215 after", every.texts.back());  // tracing went on
}

// Unloading raises the minimum level to 6, then ends the formatting singletons; formatting
// still works afterwards. An error's event joins the context and the error's text.
TEST(Trace, UnloadRaisesTheMinimumLevelErrorsStillReachEveryEvent) {
  EXPECT_EXIT(
      {
        Recorder every(true);
        Recorder filtered(false);
        TraceTools::BeginUnload();
        const Common::Error e(0xBD08B0, Str(u"File is not found."), AS_LOCATION_AT("x/y", "GetDeviceSize", 10));
        TraceTools::TraceError(215, e, Str(u"Getting size of 'sdé'").c_str());
        const Texts joined{"4 215 Getting size of 'sdé'\n" + Core::FormatString("{0}", e)};
        const bool ok = TraceTools::GetMinimumLevel() == 6 && filtered.texts.empty() && every.texts == joined;
        std::exit(ok && Core::FormatString(u"{0,number,hex}", 255) == Str(u"FF") ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(Log, ReachesTheLoggingLibrary) {
  _log_line_tag tag;
  Logging_BuildLineTag(&tag, "a/b.cpp", "void F()", 9);
  for (int asked : {1, 0}) {
    Logging_SetStandardError(asked);
    testing::internal::CaptureStderr();
    AS_LOG(4, AS_LOG_PREFIX "Retrieving mount point of '%s' failed", "/dev/sdb1");
    Log(tag, 2, "storage", "%d partitions", 3);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(asked ? 2 : 0, std::count(err.begin(), err.end(), '\n'));
    for (const char* part : {"error ", "trace_test.cpp:", "[Appliance Storage] Retrieving mount point of '/dev/sdb1' failed\n",
                             "notice a/b.cpp:9 void F(): storage: 3 partitions\n"})
      EXPECT_EQ(asked != 0, err.find(part) != std::string::npos) << part;
  }
  // A null format is reported through the assertion handler and still logged.
  EXPECT_EXIT(
      {
        setenv("ZEMLORA_SAFE_ASSERT", "log", 1);
        setenv("ZEMLORA_SAFE_ASSERT_LOGFILE", "stderr", 1);
        Logging_SetStandardError(1);
        Log(tag, 4, nullptr, nullptr);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "Assertion failed: format, file ext/include/logging/log, line 251");
}

}  // namespace
