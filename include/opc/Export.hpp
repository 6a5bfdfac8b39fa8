#pragma once

/// Marks a class or function as part of the exported interface of libopccore.
/// Everything else in the library has hidden visibility.
#define OPC_API __attribute__((visibility("default")))
