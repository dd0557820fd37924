#include "core/common/unicode.h"

#include <gtest/gtest.h>

namespace {

using Common::FromUtf8;
using Common::ToUtf8;

TEST(Unicode, Utf8DecodingReplacesEveryInvalidSequence) {
  struct Case {
    const char* utf8;
    String utf16;
  } cases[] = {
      {"plain", Common::Str(u"plain")},
      {"\xD0\x94\xD0\xB8\xD1\x81\xD0\xBA", Common::Str(u"Диск")},
      {"\xF0\x9F\x92\xBE", Common::Str(u"\U0001F4BE")},       // a surrogate pair
      {"a\xFF" "b", Common::Str(u"a\uFFFDb")},                    // never valid
      {"\xC3", Common::Str(u"\uFFFD")},                          // truncated at the end
      {"\xE2\x82x", Common::Str(u"\uFFFDx")},                    // truncated in the middle
      {"\xC0\xAF", Common::Str(u"\uFFFD\uFFFD")},                // overlong
      {"\xED\xA0\x80", Common::Str(u"\uFFFD\uFFFD\uFFFD")},      // encoded surrogate
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.utf8);
    EXPECT_EQ(c.utf16, FromUtf8(c.utf8));
  }
  EXPECT_EQ((String{'a', 0, 'b'}), FromUtf8(std::string_view("a\0b", 3)));
}

TEST(Unicode, Utf16EncodingRoundTripsAndReplacesLoneSurrogates) {
  for (const char* text : {"", "ZLM backup", "\xD0\x94\xD0\xB8\xD1\x81\xD0\xBA", "\xF0\x9F\x92\xBE"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(text, ToUtf8(FromUtf8(text)));
  }
  const String lone{'a', 0xD800, 'b'};
  EXPECT_EQ("a\xEF\xBF\xBD" "b", ToUtf8(lone));
}

TEST(Unicode, WideningKeepsEveryByte) {
  const String wide = Common::Widen(std::string_view("\x00\x7F\x80\xFF", 4));
  EXPECT_EQ((String{0x00, 0x7F, 0x80, 0xFF}), wide);
  EXPECT_EQ(0u, Common::Length(nullptr));
  EXPECT_EQ(3u, Common::Length(Common::Str(u"abc").c_str()));
}

}  // namespace
