#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "core/common/unicode.h"
#include "processor/format/format_string.h"
#include "processor/format/impl/subformat.h"
#include "resource_api.h"

namespace {

using Common::Str;
using Core::FormatString;

TEST(Concord, ThreeCategories) {
  struct Case {
    double value;
    int category;
  } cases[] = {{1, 0},  {21, 0}, {101, 0}, {2, 1},  {3, 1},  {4, 1},  {22, 1}, {5, 2},   {11, 2},
               {12, 2}, {14, 2}, {25, 2},  {0, 2},  {111, 2}, {-1, 0}, {1.5, 1}, {NAN, 1}, {1e300, 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    EXPECT_EQ(c.category, Processor::ConcordCategory(c.value, true));
  }
}

TEST(Concord, TwoCategories) {
  EXPECT_EQ(0, Processor::ConcordCategory(1, false));
  for (double v : {0.0, 2.0, 21.0, 1.5, static_cast<double>(NAN)}) EXPECT_EQ(1, Processor::ConcordCategory(v, false));
}

// The built-in (English) texts select two categories; the Russian message file three.
TEST(Concord, RuleComesFromTheMessageTexts) {
  const String pattern = Str(u"{0} {0,concord,0#file|1#files}");
  EXPECT_EQ(Str(u"1 file"), FormatString(pattern, 1));
  EXPECT_EQ(Str(u"21 files"), FormatString(pattern, 21));
  EXPECT_EQ(Str(u"abc files"), FormatString(pattern, Str(u"abc")));  // a string counts by its length
  EXPECT_EQ(Str(u"a file"), FormatString(pattern, Str(u"a")));

  setenv("ZEMLORA_RESOURCE_DIR", AS_TEST_RESOURCES, 1);
  ResourceApi::SetLanguage("ru");
  const String ru = Str(u"{0} {0,concord,0#файл|1#файла|2#файлов}");
  EXPECT_EQ(Str(u"21 файл"), FormatString(ru, 21));
  EXPECT_EQ(Str(u"22 файла"), FormatString(ru, 22));
  EXPECT_EQ(Str(u"11 файлов"), FormatString(ru, 11));
  // No clause for the category: the last clause tried.
  EXPECT_EQ(Str(u"last"), FormatString(Str(u"{0,concord,0#first|1#last}"), 5));
  ResourceApi::SetLanguage("en");
  EXPECT_EQ(Str(u"21 files"), FormatString(pattern, 21));
}

}  // namespace
