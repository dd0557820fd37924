#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "core/common/error.h"
#include "core/common/guid.h"
#include "core/common/unicode.h"
#include "processor/format/format_string.h"

namespace {

using Core::FormatString;

TEST(NarrowFormat, Substitution) {
  struct Case {
    std::string got, want;
  } cases[] = {
      {FormatString("/sys/block/{0}/size", "sdb"), "/sys/block/sdb/size"},
      {FormatString("{1}:{0}", 8, 16), "16:8"},
      // Stops at the first placeholder without an argument, leaving the rest as written.
      {FormatString("a {1} b {0}", "x"), "a {1} b {0}"},
      {FormatString("{0} {2} {1}", "x", "y"), "x {2} {1}"},
      // Inserted text is never scanned again.
      {FormatString("{0}{0}", "{0}"), "{0}{0}"},
      {FormatString("{0}", "{1}", "z"), "{1}"},
      {FormatString("{x} {} {0", 1), "{x} {} {0"},
      {FormatString("{{0}}", 7), "{7}"},
      {FormatString("{00}", 7), "7"},
      {FormatString("{99999999999999999999999}", 1), "{99999999999999999999999}"},
      {FormatString("no placeholders"), "no placeholders"},
      {FormatString("{0}"), "{0}"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.want, c.got);
}

TEST(NarrowFormat, ArgumentTypes) {
  const Common::GUID guid = Common::GUID::FromBytes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
  EXPECT_EQ("-2147483648 4294967295", FormatString("{0} {1}", std::numeric_limits<int32_t>::min(),
                                                   std::numeric_limits<uint32_t>::max()));
  EXPECT_EQ("-9223372036854775808 18446744073709551615",
            FormatString("{0} {1}", std::numeric_limits<int64_t>::min(), std::numeric_limits<uint64_t>::max()));
  EXPECT_EQ("1234567 0 255", FormatString("{0} {1} {2}", 1234567, static_cast<int16_t>(0), uint8_t{255}));
  EXPECT_EQ("1.5 true false", FormatString("{0} {1} {2}", 1.5, true, false));
  EXPECT_EQ("été ü", FormatString("{0} {1}", Common::Str(u"été"), std::string("ü")));
  EXPECT_EQ(guid.ToString(), FormatString("{0}", guid));
  const char* none = nullptr;
  EXPECT_EQ("[]", FormatString("[{0}]", none));
}

TEST(NarrowFormat, ErrorArgumentIsItsFullTextForm) {
  const Common::Error e(0x720022, Common::Str(u"Disk is full."), AS_LOCATION_AT("a/b", "F", 7));
  const std::string text = FormatString("{0}", e);
  EXPECT_EQ("\n    0x720022: Disk is full.\n    $module = appliance_storage_glxa64_38811\n    a/b : F(7)", text);
}

TEST(NarrowFormat, PatternTakenFromAnArrayStopsAtItsEnd) {
  char buffer[8] = {'{', '0', '}', '!', '{', '0', '}', '?'};  // no terminator
  EXPECT_EQ("x!x?", FormatString(buffer, "x"));
}

}  // namespace
