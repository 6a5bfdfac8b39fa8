#pragma once

#include <stratum/export.hpp>
#include <stratum/storage/vfs/File.hpp>

#include <functional>
#include <istream>
#include <memory>
#include <ostream>
#include <streambuf>

namespace stratum::storage::provider {
class OutputBuffer;
}

namespace stratum::storage::vfs {

namespace detail {
class WriteThroughBuffer;
}

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

/// Reads a stored file. A missing file throws `Exception` with `ErrorCode::NotFound` and a
/// folder with `ErrorCode::IOError`, each naming the IRI; a mode that `std::ifstream` rejects
/// (`Truncate` without `Out`, `Truncate` with `Append`) leaves the stream in the failed state
/// (fail bit set, `is_open()` false). The
/// `In` bit is implied; `Out`, `Append` and `Truncate` never change the file; `AtEnd` starts
/// at the end. Binary and text are the same. The stream reads a snapshot where the provider
/// takes one (`memory`: the content published when it opened). It holds its own reference to
/// the storage system and may outlive every other handle. Throws too for an unknown scheme.
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
/// Writes go through: there is no buffer in the stream, every write operation hands its bytes
/// to the storage before it returns, and they are visible to new readers at once. Once open,
/// the stream has `exceptions(badbit)`: a write the storage refuses (full, file too large, I/O
/// error, the file removed or made read-only meanwhile) throws from that write operation, and
/// the bad bit is set. What is thrown is the storage's `Exception` with its `ErrorCode`, or
/// whatever `onFailure` throws: it is called inside the handler of the failed operation (so it
/// may rethrow the exception in flight as another type); if it returns, the `Exception` goes on.
///
/// Failures at opening: a read-only file throws `Exception` with `ErrorCode::PermissionDenied`,
/// a folder at the IRI `ErrorCode::IOError`, a parent that is not a folder
/// `ErrorCode::NotFound`; a mode `std::ofstream` rejects (`Truncate` with `Append`) or `In`
/// on a missing file open in the failed state instead, without throwing.
class STRATUM_API ofstream : public std::ostream {
public:
    using FailureHandler = std::function<void()>;

    explicit ofstream(File const& file, unsigned mode = OpenMode::Out | OpenMode::Binary,
                      FailureHandler onFailure = {});
    /// Closes the file, so that a scheme which publishes only at close (an object store's
    /// upload) publishes then; not while an exception unwinds the stack or after a failed
    /// write, when the file is only released and half-written content is dropped rather than
    /// made visible. A failure here is not reported (the scheme then leaves no object): call
    /// `close()` to see it.
    ~ofstream() override;

    bool is_open() const;
    /// Releases the file, throwing (as a write does) when the storage reports a failure then.
    /// Afterwards exceptions are off and later writes only set the bad bit.
    void close();

private:
    File file_;
    std::unique_ptr<detail::WriteThroughBuffer> buffer_;
    std::unique_ptr<std::streambuf> closed_;
};

} // namespace stratum::storage::vfs
