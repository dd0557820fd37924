#pragma once
#include <cstddef>

#include "processor/format/impl/subformat.h"
#include "processor/format/impl/text_buffer.h"
#include "processor/format/message_format.h"

namespace Processor {

class FormatersHolder;

class MessageFormatImpl final : public MessageFormat {
 public:
  explicit MessageFormatImpl(const FormatersHolder& holder);

  int32_t Format(unsigned short* buffer, int32_t size, const unsigned short* pattern, int32_t length,
                 const Variant* args, int32_t count) const override;

  // Appends the rendered pattern to `out`.
  void FormatTo(TextBuffer& out, TextView pattern, const Variant* args, size_t count) const;

  const SubformatSimple& Simple() const noexcept { return simple_; }
  const SubformatError& Error() const noexcept { return error_; }
  const SubformatBase* Find(TextView keyword) const noexcept;

 private:
  void Render(const Segments& segments, const Variant* args, size_t count, TextBuffer& out) const;

  SubformatSimple simple_;
  SubformatNumber number_;
  SubformatDate date_;
  SubformatDate time_;
  SubformatDate dateTime_;
  SubformatChoice choice_;
  SubformatConcord concord_;
  SubformatError error_;
  SubformatSize size_;
  SubformatEllipsis ellipsis_;
  SubformatPathEllipsis pathEllipsis_;
  SubformatTimeSpan timeSpan_;

  struct Keyed {
    const char16_t* keyword;
    size_t length;
    const SubformatBase* subformat;
  };
  Keyed keyed_[11];
};

}  // namespace Processor
