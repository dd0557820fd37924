// The simple subformat: a bare "{0}" shows the value in its natural text form.
#include "core/common/unicode.h"
#include "processor/format/impl/error_text.h"
#include "processor/format/impl/formatters.h"

namespace Processor {

namespace {

void AppendIdentifier(const std::string& id, TextBuffer& out) {
  for (char c : id)
    if (static_cast<unsigned char>(c) >= 0x80) return out.append(Common::FromUtf8(id));
  out.appendAscii(id);
}

}  // namespace

void AppendSimple(const FormatersHolder& holder, const Variant& argument, TextBuffer& out) {
  switch (argument.GetType()) {
    case Variant::TDate:
      if (!holder.FormatDate(DateMode::kDate, DateStyle::kDefault, argument.GetDouble(), out))
        out.append(u"<invalid date>");
      return;
    case Variant::TDouble:
    case Variant::TLong:
    case Variant::TULong:
    case Variant::TLong64:
    case Variant::TULong64:
      return holder.DefaultNumber().Format(argument, out);
    case Variant::TString:
      return out.append(argument.GetStringData(), argument.GetStringLength());
    case Variant::TInterface: {
      String name;
      const ObjectInterface* object = argument.GetInterface();
      if (object != nullptr && object->GetProperty("Name", name)) return out.append(name);
      return out.append(u"<unknown interface>");
    }
    case Variant::TBinary:
      return out.append(u"<binary data>");
    case Variant::TIdentifier:
      return AppendIdentifier(argument.GetIdentifier(), out);
    case Variant::TBool:
      return out.append(argument.GetBool() ? u"true" : u"false");
    case Variant::TError:
      return AppendErrorText(argument.GetError(), ErrorStyle::kFull, TextView{}, out);
    case Variant::TEmpty:
      return out.append(u"<void>");
    default:
      return out.append(u"<unknown>");
  }
}

void SubformatSimple::Format(const Variant& argument, TextBuffer& out, const Segments&) const {
  AppendSimple(holder_, argument, out);
}

}  // namespace Processor
