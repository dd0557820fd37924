#pragma once
// The event codes that the library's traces carry, one per area, all in one place.
#include <cstdint>

namespace TraceCodes {

constexpr int32_t kDisks = 83;     // the disk subsystem: hosts, disks, attributes
constexpr int32_t kLabels = 189;   // unmounting and labels
constexpr int32_t kStorage = 215;  // the manager, devices, partitions

}  // namespace TraceCodes
