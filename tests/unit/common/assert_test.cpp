// The handler reads its settings once per process: every case that needs them runs in
// a forked child.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <sstream>

#include "../../support/child.h"
#include "../../support/temp_dir.h"
#include "core/common/assert.h"
#include "core/common/assert_internal.h"

namespace {

using namespace Common::Detail;

TEST(AssertMode, ParsedFromHexAndWords) {
  const std::string pad124(124, ' ');  // only the first 127 characters are read
  const struct { std::string value; /* "unset": no variable */ uint32_t mode; } cases[] = {
      {"unset", 0},         {"", 0},         {std::string(200, ' '), 0},    {"0x24", kAssertLog | kAssertAbort},
      {"0X24", kAssertLog | kAssertAbort},   {"24", kAssertLog | kAssertAbort}, {"0x0", kAssertOff},  {"0x", kAssertOff},
      {"log stack", kAssertLog | kAssertStack}, {"\tlog\tdebug  ", kAssertLog | kAssertDebug},
      {"break debug log event msgbox abort stack", 127}, {"log loud", kAssertOff}, {"LOG", kAssertOff},
      {"0x24z", kAssertOff}, {"-1", kAssertOff}, {"0x1FFFFFFFF", kAssertOff}, {"064", 0x64},
      {pad124 + "log", kAssertLog},  {pad124 + " log", kAssertOff} /* cut to "lo" */,
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("[" + c.value + "]");
    EXPECT_EQ(c.mode, ParseAssertMode(c.value == "unset" ? nullptr : c.value.c_str()));
  }
}

const int kFailingLine = __LINE__ + 1;
__attribute__((noinline)) void FailingCheck() { AS_ASSERT(1 + 1 == 3); asm volatile("" ::: "memory"); }
const std::string kFailure =
    "Assertion failed: 1 + 1 == 3, file tests/unit/common/assert_test, line " + std::to_string(kFailingLine);

std::string gEvents;

TEST(AssertHandler, WhatEachModeDoes) {
  const TestSupport::TempDir dir;
  const std::string log = dir / "log";
  // Mode (nullptr: unset), exit code or 128 + signal, the log or its first line when a stack follows.
  const struct { const char* mode; bool logFile; std::function<int()> body; int result; std::string logged; bool stack = false; } cases[] = {
      {nullptr, true, [] { return Common::AssertionHandler("x"); }, 1, ""},
      {"log", false, [] { return Common::AssertionHandler("x"); }, 1, ""},
      {"log abort bogus", true, [] { return Common::AssertionHandler("x"); }, 0, ""},
      {"log", true, [] { FailingCheck(); return Common::AssertionHandler("second"); }, 1, kFailure + "\nsecond\n"},
      {"log", true, [] { Common::AssertionFailed(std::string(5000, 'e').c_str(), "f", 1); return 0; }, 0,  // cut, not overrun
       "Assertion failed: " + std::string(539 - 18, 'e') + "\n"},
      {"0x24", true, [] { FailingCheck(); return 0; }, 128 + SIGABRT, kFailure + "\n"},
      {"log break", true, [] { FailingCheck(); return 0; }, 128 + SIGTRAP, kFailure + "\n"},
      {"log stack", true, [] { FailingCheck(); return 0; }, 0, kFailure + "\n", true},
      {"debug event stack", false, [] {  // the event gets the whole stack, however long
         Common::SetAssertEventCallback([](int category, int flags, int id, const char* text) {
           gEvents += category == 5 && flags == 0 && id == 27 ? std::string(text) + "|" : "?";
         });
         FailingCheck();
         const std::string last = Common::GetAssertDebugBuffer();  // the stack's last line
         return gEvents.rfind(kFailure + "|", 0) == 0 && gEvents.find("FailingCheck") != std::string::npos &&
                last.find(" + 0x") != std::string::npos && gEvents.size() == gEvents.find("\n" + last + "|") + last.size() + 2 ? 0 : 1;
       }, 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mode ? c.mode : "unset");
    std::ofstream(log, std::ios::trunc).close();
    EXPECT_EQ(c.result, TestSupport::RunInChild([&] {
                if (c.mode) setenv("ZEMLORA_SAFE_ASSERT", c.mode, 1);
                if (c.logFile) setenv("ZEMLORA_SAFE_ASSERT_LOGFILE", log.c_str(), 1);
                return c.body();
              }));
    std::stringstream text;
    text << std::ifstream(log).rdbuf();
    const std::string logged = text.str();
    if (!c.stack) {
      EXPECT_EQ(c.logged, logged);
      continue;
    }
    EXPECT_EQ(0u, logged.rfind(c.logged, 0)) << logged;
    // A stack follows, without the handler's first two frames (how many of the library's
    // remain depends on inlining); the executable's own function is named through /proc/self/exe.
    const size_t second = c.logged.size();
    EXPECT_NE(std::string::npos, logged.substr(second, logged.find('\n', second) - second).find("Common::")) << logged;
    EXPECT_NE(std::string::npos, logged.find("FailingCheck")) << logged;
    std::istringstream frames(logged);  // the C library's unexported frames are not named after ours
    for (std::string frame; std::getline(frames, frame);)
      if (frame.rfind("libc.so", 0) == 0) { EXPECT_EQ(std::string::npos, frame.find("::")) << frame; }
    EXPECT_NE(std::string::npos, logged.find(" + 0x")) << logged;
    EXPECT_GT(std::count(logged.begin(), logged.end(), '\n'), 3);
  }
}

}  // namespace
