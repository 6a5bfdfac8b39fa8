#pragma once

/// Marks a class or function as part of the exported interface of libopccore_testing.
/// Everything else in that library has hidden visibility.
#define OPC_TESTING_API __attribute__((visibility("default")))
