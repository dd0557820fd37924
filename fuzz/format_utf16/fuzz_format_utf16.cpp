// UTF-16 patterns with arguments of random types through the message format engine.
// Input: one byte of argument count, then per argument a type byte and eight value
// bytes, one byte of output buffer size, then the pattern as 16-bit units.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/common/assert.h"
#include "processor/format/format_string.h"
#include "processor/format/message_format.h"

namespace {

class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
  uint64_t Word() {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = v << 8 | Byte();
    return v;
  }
  std::vector<unsigned short> Rest() {
    std::vector<unsigned short> units;
    for (; at_ + 1 < size_; at_ += 2) units.push_back(static_cast<unsigned short>(data_[at_] | data_[at_ + 1] << 8));
    return units;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

Processor::Variant MakeArgument(uint8_t type, uint64_t bits) {
  using Processor::Variant;
  double d;
  std::memcpy(&d, &bits, sizeof d);
  static const unsigned short kText[] = {'/', 'd', 'e', 'v', '/', 's', 'd', 'b', '1', 0xF800, '{', '0', '}', 0xD800};
  switch (type % 12) {
    case 0: return Variant(Processor::Date{d});
    case 1: return Variant(d);
    case 2: return Variant(static_cast<int32_t>(bits));
    case 3: return Variant(static_cast<uint32_t>(bits));
    case 4: return Variant::MakeStringView(kText, bits % (sizeof kText / sizeof kText[0] + 1));
    case 5: return Variant(static_cast<int64_t>(bits));
    case 6: return Variant(bits);
    case 7: return Variant(static_cast<bool>(bits & 1));
    case 8: return Variant::MakeIdentifier(std::string(bits % 40, static_cast<char>(bits >> 8)));
    case 9: {
      Common::Error e(static_cast<uint32_t>(bits), Common::String(kText, 9), AS_HERE);
      if (bits & 1) e.AddPosixError(static_cast<int>(bits >> 32) % 200, AS_HERE);
      return Variant(e);
    }
    case 10: return Variant::MakeBinary({1, 2, 3});
    default: return Variant();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Reader in(data, size);
  const size_t count = in.Byte() % 8;
  std::vector<Processor::Variant> args;
  for (size_t i = 0; i < count; ++i) {
    const uint8_t type = in.Byte();
    args.push_back(MakeArgument(type, in.Word()));
  }
  const uint8_t room = in.Byte();
  const std::vector<unsigned short> pattern = in.Rest();

  const Processor::MessageFormat& engine = Processor::MessageFormat::Instance();
  std::vector<unsigned short> buffer(room + 1u, 0xAAAA);
  const int32_t full = engine.Format(buffer.data(), room, pattern.data(), static_cast<int32_t>(pattern.size()),
                                     args.data(), static_cast<int32_t>(args.size()));
  const String whole = Core::Detail::FormatWide(pattern.data(), pattern.size(), args.data(), args.size());
  // The buffer form agrees with the string form, and never writes past its size.
  if (static_cast<size_t>(full) != whole.size() || buffer[room] != 0xAAAA) __builtin_trap();
  if (std::memcmp(buffer.data(), whole.data(), std::min<size_t>(room, whole.size()) * 2) != 0) __builtin_trap();
  return 0;
}
