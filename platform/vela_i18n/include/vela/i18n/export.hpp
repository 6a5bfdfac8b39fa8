#pragma once

/// Marks the exported interface of the host text layer (libvela_i18n).
#define VELA_I18N_API __attribute__((visibility("default")))
