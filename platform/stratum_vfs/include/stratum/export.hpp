#pragma once

/// Marks the exported interface of the storage layer (libstratum_vfs).
#define STRATUM_API __attribute__((visibility("default")))
