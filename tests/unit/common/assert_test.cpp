// The handler reads its settings once per process: each case runs in a forked child. No assertion
// looks up a text, so this program's one lookup is the first, which subscribes and must keep errno.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <regex>

#include "../../support/child.h"
#include "../../support/temp_dir.h"
#include "core/common/assert.h"
#include "core/common/assert_internal.h"
#include "core/common/message_ids.h"
#include "core/common/message_text.h"

namespace {

using namespace Common::Detail;

TEST(AssertMode, ParsedFromHexAndWordsAfterAFirstLookupThatKeepsErrno) {
  errno = 12345;
  const unsigned short* text = GetTextFromMessageFile(Messages::DiskIsFull);
  EXPECT_TRUE(errno == 12345 && text != nullptr && text[0] == 'T');
  const std::string pad124(124, ' ');  // only the first 127 characters are read
  const struct { std::string value; /* "unset": no variable */ uint32_t mode; } cases[] = {
      {"unset", 0}, {"", 0}, {"0x24", kAssertLog | kAssertAbort}, {"0X24", kAssertLog | kAssertAbort},
      {"064", 0x64}, {"0x0", kAssertOff}, {"0x24z", kAssertOff}, {"+24", kAssertOff}, {" 24", kAssertOff},
      {"0x1FFFFFFFF", kAssertOff}, {"log stack", kAssertLog | kAssertStack}, {"LOG", kAssertOff},
      {"\tlog\tdebug  ", kAssertLog | kAssertDebug}, {"break debug log event msgbox abort stack", 127},
      {"log loud", kAssertOff}, {pad124 + "log", kAssertLog}, {pad124 + " log", kAssertOff} /* "lo" */,
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.mode, ParseAssertMode(c.value == "unset" ? nullptr : c.value.c_str())) << "[" + c.value + "]";
}

volatile bool gNever = false;
const int kFailingLine = __LINE__ + 1;
__attribute__((noinline)) void FailingCheck() { AS_ASSERT(gNever); asm volatile("" ::: "memory"); }
const std::string kFailure =
    "Assertion failed: gNever, file tests/unit/common/assert_test, line " + std::to_string(kFailingLine);

std::string gEvents;

TEST(AssertHandler, WhatEachModeDoes) {
  const TestSupport::TempDir dir;
  const std::string path = dir / "log";
  // Mode (nullptr: unset), exit code or 128 + signal, the log, or its first line when a stack follows.
  const struct { const char* mode; std::function<int()> body; int result; std::string log; bool stack = false; }
  cases[] = {
      {nullptr, [] { return Common::AssertionHandler("x"); }, 1, ""},
      {"log", [] { return unsetenv("ZEMLORA_SAFE_ASSERT_LOGFILE"), Common::AssertionHandler("x"); }, 1, ""},
      {"log abort bogus", [] { return Common::AssertionHandler("x"); }, 0, ""},
      {"log", [] { FailingCheck(); return Common::AssertionHandler("second"); }, 1, kFailure + "\nsecond\n"},
      {"log", [] { Common::AssertionFailed(std::string(5000, 'e').c_str(), "f", 1); return 0; }, 0,
       "Assertion failed: " + std::string(539 - 18, 'e') + "\n"},  // cut, not overrun
      {"0x24", [] { FailingCheck(); return 0; }, 128 + SIGABRT, kFailure + "\n"},
      {"log break", [] { FailingCheck(); return 0; }, 128 + SIGTRAP, kFailure + "\n"},
      {"log stack", [] {  // an event callback, but no event in the mode
         Common::SetAssertEventCallback([](int, int, int, const char*) { std::_Exit(3); });
         FailingCheck();
         return 0;
       }, 0, kFailure + "\n", true},
      {"debug event stack", [] {  // the event gets the whole stack, however long
         Common::SetAssertEventCallback([](int category, int flags, int id, const char* text) {
           gEvents += category == 5 && flags == 0 && id == 27 ? std::string(text) + "|" : "?";
         });
         FailingCheck();
         const std::string last = "\n" + Common::GetAssertDebugBuffer() + "|";  // the stack's last line
         const bool whole = gEvents.size() == gEvents.find(last) + last.size();
         return whole && last.find(" + 0x") != std::string::npos &&
                std::regex_match(gEvents, std::regex(kFailure + "\\|[^|]*FailingCheck[^|]*\\|")) ? 0 : 1;
       }, 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mode ? c.mode : "unset");
    std::ofstream(path, std::ios::trunc).close();
    EXPECT_EQ(c.result, TestSupport::RunInChild([&] {
                if (c.mode) setenv("ZEMLORA_SAFE_ASSERT", c.mode, 1);
                setenv("ZEMLORA_SAFE_ASSERT_LOGFILE", path.c_str(), 1);
                return c.body();
              }));
    std::ifstream in(path);
    const std::string logged{std::istreambuf_iterator<char>(in), {}};
    EXPECT_EQ(c.log, c.stack ? logged.substr(0, c.log.size()) : logged);
    if (!c.stack) continue;
    // Without the handler's own two frames; the executable's function is named, with an offset.
    const std::string stack = logged.substr(c.log.size());
    EXPECT_TRUE(std::regex_search(stack, std::regex("^.*Common::.*\n(.*\n)*.*FailingCheck.* \\+ 0x"))) << stack;
    // The C library's frames are named after its exported symbols, with an offset, never after ours.
    EXPECT_FALSE(std::regex_search(stack, std::regex("(^|\n)libc\\.so.*::"))) << stack;
    EXPECT_TRUE(std::regex_search(stack, std::regex("(^|\n)libc\\.so.* \\+ 0x"))) << stack;
  }
}

}  // namespace
