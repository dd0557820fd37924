#include <string>

#include "core/common/assert.h"
#include "core/common/decimal.h"
#include "core/common/message_ids.h"
#include "core/common/unicode.h"
#include "core/include/file/file.h"
#include "core/linex/run_tool.h"
#include "processor/format/format_message.h"
#include "virtualization/common/storage/errors.h"
#include "virtualization/common/storage/impl/storage_internal.h"

namespace Virtualization {
namespace Appliance {
namespace Detail {

const String kLabelPrefix = Common::Str(u"ZLM");

bool HasLabelPrefix(const String& label) { return label.compare(0, kLabelPrefix.size(), kLabelPrefix) == 0; }

Common::Error RunTool(const std::vector<std::string>& argv, const Common::ErrorLocation& where,
                      const std::string& input, const std::function<void(const std::string&)>& onOutput) {
  const LinuxEx::ToolRun run = LinuxEx::RunTool(argv, input, onOutput);
  if (run.status == 0) return {};
  // The status as text: a bare number would take the locale's digit grouping.
  return Common::Error(kErrorExternalCall,
                       Core::FormatMessage(Messages::ExternalCallReturnsErrorCode, LinuxEx::CommandText(argv, input),
                                           std::to_string(run.status)),
                       where, {{"status", int64_t{run.status}}});
}

std::string DevicePath(const String& name) { return "/dev/" + Common::ToUtf8(name); }

std::string ReadSysfsFile(const std::string& path) {
  std::string content;
  // A sysfs attribute is at most a page.
  if (Common::Error e = FileSystem::ReadFile(path, 4096, content)) throw e;
  return content;
}

uint64_t ReadSysfsNumber(const std::string& content) {
  uint64_t value = 0;
  if (Common::ParseDecimal(std::string_view(content).substr(0, content.find_first_of(std::string("\n\0", 2))), value))
    return value;
  AS_ASSERT_TEXT_AT(false, "!\"Invalid size type\"", "virtualization/common/storage/storage_manager", 137);
  return 0;
}

bool IsSingleComponent(const String& name) {
  static const String kDot = Common::Str(u"."), kDotDot = Common::Str(u"..");
  return !name.empty() && name != kDot && name != kDotDot && name.find(u'/') == String::npos &&
         name.find(u'\0') == String::npos;
}

}  // namespace Detail
}  // namespace Appliance
}  // namespace Virtualization
