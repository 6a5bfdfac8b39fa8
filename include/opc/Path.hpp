#pragma once

#include <opc/Export.hpp>

#include <string>

/// Path text helpers for host paths: pure text work, nothing touches the file system.
///
/// Each helper first takes the native form of its argument (the empty path stays empty and is
/// never handed to the host layer). The forms differ on purpose: `normalizePath` and
/// `getParentPath` give the generic ("/"-separated) form, `getFilename` and `getExtension` give
/// what the extraction yields. None adds or removes a trailing separator or resolves "." and
/// "..". Host-layer exceptions (a conversion failure, for instance) pass through unchanged.
namespace opc::detail {

/// The path in generic form.
OPC_API std::u16string normalizePath(const std::u16string& path);

/// The path less its last element, in generic form; empty when there is none.
OPC_API std::u16string getParentPath(const std::u16string& path);

/// The last element ("" for a path ending in a separator).
OPC_API std::u16string getFilename(const std::u16string& path);

/// The last element's extension with its dot (".gz" of "a.tar.gz"); empty when there is none.
OPC_API std::u16string getExtension(const std::u16string& path);

/// The narrow path (UTF-8) the host's file calls take. A lone surrogate or an embedded NUL
/// throws the host layer's exception.
OPC_API std::string makeNativePath(const std::u16string& path);

} // namespace opc::detail
