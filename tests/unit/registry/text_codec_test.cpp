#include "registry/impl/text_codec.h"

#include <gtest/gtest.h>

#include "core/common/unicode.h"

namespace {

using Registry::Detail::DecodeText;
using Registry::Detail::EncodeText;

TEST(RegistryTextCodec, RefusesMalformedText) {
  const char* cases[] = {
      "\\", "a\\x", "\\u12", "\\u12G4", "\\U0041",
      "\xC0\xAF",       // overlong "/"
      "\xED\xA0\x80",   // an encoded surrogate
      "\xFF", "abc\xE2\x82",
  };
  for (const char* text : cases) {
    SCOPED_TRACE(text);
    String decoded = Common::Str(u"kept");
    EXPECT_FALSE(DecodeText(text, decoded));
    EXPECT_EQ(decoded, Common::Str(u"kept"));
  }
  EXPECT_EQ(EncodeText(String{'a', '\\', 'b', '\n', 0xD800}), "a\\\\b\\u000A\\uD800");
  String decoded;
  ASSERT_TRUE(DecodeText("\\u00e9\\\\", decoded));
  EXPECT_EQ(decoded, Common::Str(u"\u00e9\\"));
}

}  // namespace
