#pragma once

/// Marks the exported interface of the host file-system layer (libvela_filesystem).
#define VELA_FS_API __attribute__((visibility("default")))
