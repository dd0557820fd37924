// The "error" subformat: a Common::Error chain as text.
#include <cstring>
#include <string>

#include "core/common/assert.h"
#include "core/common/unicode.h"
#include "processor/format/impl/error_text.h"
#include "processor/format/impl/formatters.h"

namespace Processor {

namespace {

constexpr char16_t kUnknown[] = u"<unknown>";
constexpr char16_t kLineStart[] = u"\n    ";

// Function statics, so that an error can be shown from any static initialiser.
const NumberFormatHEX& Hex() {
  static const NumberFormatHEX format{16, "0123456789ABCDEF"};
  return format;
}

const NumberFormatHEX& Decimal() {
  static const NumberFormatHEX format{10, "0123456789"};
  return format;
}

void AppendUtf8(const char* text, TextBuffer& out) {
  if (text == nullptr || *text == '\0') return out.append(kUnknown);
  out.append(Common::FromUtf8(text));
}

void AppendFieldValue(const Common::Error& error, const std::string& name, TextBuffer& out) {
  if (const char* text = error.GetStringField(name.c_str())) return out.append(Common::FromUtf8(text));
  Decimal().Format(Variant(error.GetNumericField(name.c_str())), out);
}

bool HasField(const Common::Error& error, const std::string& name) {
  const char* names = error.GetFieldNames();
  for (const char* p = names; *p;) {
    const char* comma = std::strchr(p, ',');
    const size_t n = comma ? static_cast<size_t>(comma - p) : std::strlen(p);
    if (name.size() == n && name.compare(0, n, p, n) == 0) return true;
    p += comma ? n + 1 : n;
  }
  return false;
}

void AppendText(const Common::Error& error, TextBuffer& out) {
  const String text = error.GetText();
  if (text.empty()) return out.append(kUnknown);
  out.append(text);
}

void AppendNode(const Common::Error& node, TextBuffer& out) {
  out.append(kLineStart);
  out.append(u"0x");
  Hex().FormatUnsigned(node.GetCode(), out);
  out.append(u": ");
  AppendText(node, out);

  const char* names = node.GetFieldNames();
  if (names != nullptr && *names != '\0') {
    out.append(kLineStart);
    std::string name;
    for (const char* p = names;; ++p) {
      if (*p == ',' || *p == '\0') {
        out.appendAscii(name);
        out.append(u" = ");
        AppendFieldValue(node, name, out);
        name.clear();
        if (*p == '\0') break;
        out.push_back(',');
      } else {
        name.push_back(*p);
      }
    }
  }

  const Common::ErrorLocation where = node.GetLocation();
  out.append(kLineStart);
  AppendUtf8(where.file, out);
  out.append(u" : ");
  AppendUtf8(where.function, out);
  out.push_back('(');
  Decimal().Format(Variant(where.line), out);
  out.push_back(')');
}

}  // namespace

void AppendErrorText(const Common::Error& error, ErrorStyle style, TextView field, TextBuffer& out) {
  switch (style) {
    case ErrorStyle::kCode:
      out.append(u"0x");
      return Hex().FormatUnsigned(error.GetCode(), out);
    case ErrorStyle::kTag:
      out.append(u"0x");
      return Hex().FormatUnsigned(error.GetLocation().tag, out);
    case ErrorStyle::kMessage:
      return AppendText(error, out);
    case ErrorStyle::kField: {
      const std::string name = Common::ToUtf8(field.data, field.size);
      if (!error || name.empty() || !HasField(error, name)) return out.append(kUnknown);
      return AppendFieldValue(error, name, out);
    }
    case ErrorStyle::kFull:
      if (!error) return out.append(kUnknown);
      for (Common::Error node = error; node; node = node.GetCause()) AppendNode(node, out);
      return;
  }
}

void SubformatError::Format(const Variant& argument, TextBuffer& out, const Segments& segments) const {
  if (argument.GetType() != Variant::TError) {
    Common::AssertionFailed("a->GetType() == Variant::TError", AS_SOURCE_NAME, __LINE__);
    return;
  }
  static const std::pair<std::u16string_view, ErrorStyle> kStyles[] = {{u"code", ErrorStyle::kCode},
                                                                        {u"tag", ErrorStyle::kTag},
                                                                        {u"message", ErrorStyle::kMessage},
                                                                        {u"field", ErrorStyle::kField}};
  const ErrorStyle s = Select(segments.Style(), kStyles, ErrorStyle::kFull);
  const TextView field = segments.Extra();
  AppendErrorText(argument.GetError(), s, field, out);
}

}  // namespace Processor
