#pragma once

// Whole-file reads and writes through a back end, and what a call of the library throws.

#include <opc/Exception.hpp>
#include <opc/FileSystemOps.hpp>

#include <iterator>
#include <string>
#include <utility>

namespace opc::test {

/// The content of `path` read through `ops`, or "<missing>" when it cannot be opened.
inline std::string readThrough(FileSystemOps& ops, std::u16string const& path) {
    boost::system::error_code ec;
    auto in = ops.createInputStream(path, OpenMode::ReadBinary, ec);
    return in ? std::string(std::istreambuf_iterator<char>(*in), {}) : "<missing>";
}

inline void writeThrough(FileSystemOps& ops, std::u16string const& path, std::string const& bytes) {
    ops.createOutputStream(path, OpenMode::WriteBinary | OpenMode::Truncate)->write(bytes.data(), std::streamsize(bytes.size()));
}

/// The message and code of the library's exception that `call` throws; "" and a cleared code
/// when it returns.
template <class Call>
std::pair<std::string, boost::system::error_code> thrown(Call&& call) {
    try {
        call();
    } catch (Exception const& e) {
        return {e.what(), e.code()};
    }
    return {};
}

} // namespace opc::test
