#pragma once

#include <stratum/export.hpp>
#include <stratum/storage/vfs/File.hpp>

#include <istream>
#include <memory>
#include <ostream>
#include <streambuf>

namespace stratum::storage::vfs {

/// Open-mode bits of the storage streams. They keep these values whatever the host's
/// `std::ios_base::openmode` values are, and mean what the `std::fstream` flags mean.
namespace OpenMode {
constexpr unsigned Append = 0x01;
constexpr unsigned AtEnd = 0x02;
constexpr unsigned Binary = 0x04;
constexpr unsigned In = 0x08;
constexpr unsigned Out = 0x10;
constexpr unsigned Truncate = 0x20;
} // namespace OpenMode

/// Reads a stored file. Opening never throws for a file that can't be read: a missing file,
/// a folder, or a mode that `std::ifstream` rejects (`Truncate` without `Out`, `Truncate` with
/// `Append`) leaves the stream in the failed state (fail bit set, `is_open()` false). The
/// `In` bit is implied; `Out`, `Append` and `Truncate` never change the file; `AtEnd` starts
/// at the end. Binary and text are the same. The stream reads a snapshot where the provider
/// takes one (`memory`: the content published when it opened). It holds its own reference to
/// the storage system and may outlive every other handle. Throws only for an unknown scheme.
class STRATUM_API ifstream : public std::istream {
public:
    explicit ifstream(File const& file, unsigned mode = OpenMode::In | OpenMode::Binary);
    ~ifstream() override;

    bool is_open() const;
    /// Releases the file; later reads find the end.
    void close();

private:
    File file_;
    std::unique_ptr<std::streambuf> buffer_;
    std::unique_ptr<std::streambuf> closed_;
};

/// Writes a stored file. The `Out` bit is implied and the bits act as on `std::ofstream`:
/// without `Append` and `In` the file is truncated (created when missing); `Append` creates a
/// missing file and writes at the end; `In` (without `Truncate`) keeps the content and
/// writes over it from the start, and needs an existing file; `AtEnd` starts at the end.
///
/// Written bytes become visible to new readers at `flush()` and at `close()`/destruction
/// (`memory`: the buffer is published as the file's content, and its time moves on).
///
/// Failures at opening: a read-only file throws `Exception` with `ErrorCode::PermissionDenied`,
/// a folder at the IRI `ErrorCode::IOError`, a parent that is not a folder
/// `ErrorCode::NotFound`; a mode `std::ofstream` rejects (`Truncate` with `Append`) or `In`
/// on a missing file open in the failed state instead, without throwing. A failed publish
/// sets the bad bit.
class STRATUM_API ofstream : public std::ostream {
public:
    explicit ofstream(File const& file, unsigned mode = OpenMode::Out | OpenMode::Binary);
    ~ofstream() override;

    bool is_open() const;
    /// Publishes what was written and releases the file; sets the bad bit if publishing fails.
    /// Later writes fail.
    void close();

private:
    File file_;
    std::unique_ptr<std::streambuf> buffer_;
    std::unique_ptr<std::streambuf> closed_;
};

} // namespace stratum::storage::vfs
