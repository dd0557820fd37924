#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "core/common/unicode.h"
#include "processor/format/format_string.h"

namespace {

using Common::Str;

// The shared engine and its cached ICU formatters from many threads at once.
TEST(FormatThreads, SharedEngine) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 300; ++i) {
        const String got = Core::FormatString(
            Str(u"{0,number,hex} {1,number} {2,number,integer,000} {3,date,long} {4,size} {0,choice,0#a|0<b}"), i,
            t * 1000, i % 7, Processor::Date{1e12}, 1536);
        ASSERT_FALSE(got.empty());
        ASSERT_EQ(std::to_string(i) + "!", Core::FormatString("{0}!", i));
      }
    });
  for (auto& th : threads) th.join();
}

}  // namespace
