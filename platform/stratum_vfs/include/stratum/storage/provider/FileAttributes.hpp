#pragma once

#include <stratum/export.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>

namespace stratum::storage::provider {

/// What a provider reports about one stored file, read in one go.
class STRATUM_API FileAttributes {
public:
    FileAttributes(std::uint64_t size, boost::posix_time::ptime lastModified, bool writable);

    /// Size of the content in bytes (of the last published write, for the memory provider).
    std::uint64_t getSize() const { return size_; }
    /// Last modification, UTC; not-a-date-time when the provider cannot tell.
    boost::posix_time::ptime getLastModified() const { return lastModified_; }
    /// Whether output streams may be opened on the file.
    bool isWritable() const { return writable_; }

private:
    std::uint64_t size_;
    boost::posix_time::ptime lastModified_;
    bool writable_;
};

} // namespace stratum::storage::provider
