#pragma once
// Error codes and the trace event code of the SCSI disk subsystem (range 0x530000..
// 0x5301FF).
//
// A failed operation of SCSI::DiskSubsystem returns kErrorDisk, whose text names the
// operation, with the error that stopped it as cause. Down the chain, a sysfs
// problem is kErrorSysfsOpen, kErrorSysfsRead or kErrorSysfsWrite, with the file
// layer's error as cause.
#include <cstdint>

#include "core/common/trace_codes.h"

namespace SCSI {

// Event code of every trace of the subsystem.
constexpr int32_t kTraceCode = TraceCodes::kDisks;

// An operation of the disk subsystem failed; also the subsystem's internal failures
// (a host scan that could not be started, no device notifications).
constexpr uint32_t kErrorDisk = 0x530040;
// A scan, rescan or delete command could not be written to its sysfs file.
constexpr uint32_t kErrorSysfsWrite = 0x5300C6;
// The identifier tool (scsi_id), asked only where neither the kernel's copy of the unit
// serial number page nor an INQUIRY gives the page, could not be started.
constexpr uint32_t kErrorScsiIdFailed = 0x530113;
// The page (or scsi_id) gave no usable identifier; traced, the disk is still listed.
constexpr uint32_t kErrorScsiIdEmpty = 0x530114;
// A sysfs file or device node could not be opened, or read.
constexpr uint32_t kErrorSysfsOpen = 0x530123;
constexpr uint32_t kErrorSysfsRead = 0x530124;

}  // namespace SCSI
