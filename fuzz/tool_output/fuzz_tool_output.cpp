// The same bytes as the output of each disk tool whose output the library reads:
// blkid -o export, e2label, lsblk -n -o mountpoint (of a partition and of a disk) and
// scsi_id --export. Each keeps only what the bytes say; a refusal names the device.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "core/common/error.h"
#include "core/common/unicode.h"
#include "quillenmark/raw/common/scsi_disk_helpers/errors.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/disk_text.h"
#include "virtualization/common/storage/errors.h"
#include "virtualization/common/storage/impl/tool_output.h"
#include "../fuzz_setup.h"

namespace {

namespace Storage = Virtualization::Appliance;

// A read-only stream over the bytes, NULs included; fmemopen refuses no bytes at all.
std::unique_ptr<FILE, int (*)(FILE*)> Output(std::string& bytes) {
  FILE* stream = bytes.empty() ? std::fopen("/dev/null", "r") : fmemopen(&bytes[0], bytes.size(), "r");
  if (stream == nullptr) __builtin_trap();
  return {stream, std::fclose};
}

bool Names(const Common::Error& error, uint32_t code, const String& device) {
  return error.GetCode() == code && error.GetText().find(device) != String::npos;
}

// What a reader with a buffer of `buffer` bytes keeps of the first line.
std::string PrintableHead(const std::string& bytes, size_t buffer) {
  size_t end = 0;
  while (end < bytes.size() && end + 1 < buffer && bytes[end] >= 0x20 && bytes[end] <= 0x7E) ++end;
  return bytes.substr(0, end);
}

std::string Upper(std::string text) {
  for (char& c : text)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string bytes(reinterpret_cast<const char*>(data), size);

  const String partition = Common::Str(u"sdz9");
  try {
    const GUID uuid = Storage::Detail::ReadPartitionUuid(Output(bytes).get(), partition);
    if (bytes.find("UUID=") == std::string::npos) __builtin_trap();
    if (!uuid.IsNull() && Upper(bytes).find(uuid.ToString()) == std::string::npos) __builtin_trap();
  } catch (const Common::Error& e) {
    if (!Names(e, Storage::kErrorPartitionUuid, partition) || bytes.compare(0, 5, "UUID=") == 0) __builtin_trap();
  }

  const String label = Storage::Detail::ReadLabel(Output(bytes).get());
  if (label != Common::Widen(PrintableHead(bytes, 256))) __builtin_trap();

  const std::string mountpoint = Storage::Detail::ReadMountpoint(Output(bytes).get());
  if (mountpoint != PrintableHead(bytes, 1024)) __builtin_trap();
  // Every line that is more than its line feed starts with something else.
  if (Storage::Detail::AnyMountpoint(Output(bytes).get()) != (bytes.find_first_not_of('\n') != std::string::npos))
    __builtin_trap();

  const String device = Common::Str(u"/dev/sdz");
  GUID id;
  id.Data1 = 0xDEADBEEF;
  if (Common::Error e = SCSI::Detail::ReadScsiSerial(Output(bytes).get(), device, id)) {
    if (!Names(e, SCSI::kErrorScsiIdEmpty, device) || !id.IsNull()) __builtin_trap();
  } else if (bytes.find("ID_SCSI_SERIAL=") == std::string::npos) {
    __builtin_trap();
  }
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  const std::string line(size_t{1} << 20, 'a');
  return Fuzz::Setup(argc, argv, 4096,
                     {"UUID=" + line + "\nUUID=9f21a707-4284-417b-b17d-c99eb2e1f124\n", line,
                      "ID_SCSI_SERIAL=" + std::string(size_t{1} << 20, '5') + "\n"},
                     LLVMFuzzerTestOneInput);
}
