#pragma once
// Error codes of the storage classes (range 0x720000..0x7200FF).
//
// A failed operation returns (or throws) the code of what it was doing; where an
// outside tool failed, the cause is kErrorExternalCall with the command line and
// its exit status.
#include <cstdint>

namespace Virtualization {
namespace Appliance {

// A tool exited non-zero (status -1: not started or killed; 127: not found).
constexpr uint32_t kErrorExternalCall = 0x720004;
// Listing the block devices failed; the cause says why.
constexpr uint32_t kErrorGetBlockDevices = 0x72001F;
// A storage of the disk is mounted: the disk is not prepared.
constexpr uint32_t kErrorStorageInUse = 0x720021;
// Preparing a disk failed, or was refused because the disk holds a partition table.
constexpr uint32_t kErrorInitializeStorage = 0x720022;
constexpr uint32_t kErrorMount = 0x720023;
constexpr uint32_t kErrorUnmount = 0x720024;
constexpr uint32_t kErrorSetLabel = 0x720026;
// The label could not be read; traced only.
constexpr uint32_t kErrorGetLabel = 0x720034;
// A partition's file system could not be read (descriptors, memory, rights).
constexpr uint32_t kErrorPartitionUuid = 0x720048;
// Causes of refusals: a mount name that is not one path component, and a disk
// that may hold data (a signature, or more partitions than a storage has).
constexpr uint32_t kErrorInvalidStorageName = 0x720049;
constexpr uint32_t kErrorDiskHasPartitionTable = 0x72004A;
// Reading or erasing a disk's signatures failed; the cause says why.
constexpr uint32_t kErrorSignatures = 0x72004B;
// Cause of a refused label: longer than a file system keeps after "ZLM".
constexpr uint32_t kErrorLabelTooLong = 0x72004C;

}  // namespace Appliance
}  // namespace Virtualization
