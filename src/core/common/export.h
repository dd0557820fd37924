#pragma once
// Symbols that leave libappliance_storage.so. Everything else is hidden.
#define AS_EXPORT __attribute__((visibility("default")))
