#include "registry/impl/text_codec.h"

#include <gtest/gtest.h>

#include "core/common/unicode.h"

namespace {

using Common::Str;
using Registry::Detail::DecodeText;
using Registry::Detail::EncodeText;

TEST(RegistryTextCodec, EscapesWhatXmlCannotHold) {
  const struct {
    String text;
    std::string encoded;
  } cases[] = {
      {String{'a', '\\', 'b'}, "a\\\\b"},
      {String{0x00, 0x1F, 0x20, '\n'}, "\\u0000\\u001F \\u000A"},
      {String{0xFFFD, 0xFFFE, 0xFFFF}, "\xEF\xBF\xBD\\uFFFE\\uFFFF"},
      {String{0xD7FF, 0xD800, 'x', 0xDBFF}, "\xED\x9F\xBF\\uD800x\\uDBFF"},  // lone high surrogates
      {String{0xDC00, 0xDFFF, 0xE000}, "\\uDC00\\uDFFF\xEE\x80\x80"},          // lone low surrogates
      {String{0xDBFF, 0xDFFF}, "\xF4\x8F\xBF\xBF"},                            // a pair
      {String{0xDC00, 0xD800}, "\\uDC00\\uD800"},                              // a pair the wrong way round
      {Str(u"<&\"'>"), "<&\"'>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.encoded);
    EXPECT_EQ(c.encoded, EncodeText(c.text));
    String decoded;
    ASSERT_TRUE(DecodeText(c.encoded, decoded));
    EXPECT_EQ(c.text, decoded);
  }
  String decoded;
  ASSERT_TRUE(DecodeText("\\u00e9\\u00AF\\ufeFf", decoded));  // either case
  EXPECT_EQ((String{0xE9, 0xAF, 0xFEFF}), decoded);
}

TEST(RegistryTextCodec, RefusesMalformedText) {
  for (const char* text : {"\\", "a\\x", "\\u12", "\\u12G4", "\\u12g4", "\\u/000", "\\u:000", "\\u@000", "\\u`000",
                           "\\U0041", "\xC0\xAF" /* overlong "/" */, "\xED\xA0\x80" /* an encoded surrogate */, "\xFF",
                           "abc\xE2\x82"}) {
    SCOPED_TRACE(text);
    String decoded = Str(u"kept");
    EXPECT_FALSE(DecodeText(text, decoded));
    EXPECT_EQ(decoded, Str(u"kept"));
  }
}

}  // namespace
