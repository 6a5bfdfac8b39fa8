#pragma once

#include <vela/filesystem/export.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>

namespace vela::filesystem {

/// What the file system knows of one path: its type, permission bits, last-write time and
/// size. A plain value; it never refers back to the file.
///
/// The type is one bit of `file_type_mask`, so "is it missing" is the bit test
/// `type() & file_not_found`. Permission values carry the nine POSIX bits (`perms_all`) and
/// four attribute bits at 0x1000..0x8000 that exist on other hosts only: on Linux they are
/// ignored when set, and reported as 0 except for `link_perms` on a symbolic link.
/// `perms_symlink` (above 0xFFFF) is never reported; passed to `permissions()` it asks to act
/// on a link itself.
class VELA_FS_API file_status {
public:
    // Permission and attribute bits.
    static constexpr std::uint32_t perms_all = 0777;
    static constexpr std::uint32_t archive_file = 0x1000;
    static constexpr std::uint32_t system_file = 0x2000;
    static constexpr std::uint32_t hidden_file = 0x4000;
    static constexpr std::uint32_t non_indexed_file = 0x8000;
    static constexpr std::uint32_t perms_symlink = 0x10000;
    /// Marks permissions read from a symbolic link (the attribute bit that this host never
    /// sets on a file). Linux keeps no mode on a link: its bits read as 0777 and mean nothing,
    /// and `permissions()` never applies a value carrying this bit as a mode, so that copying
    /// a link's permissions onto a file cannot open the file to everyone.
    static constexpr std::uint32_t link_perms = system_file;

    // Type bits, one per type.
    static constexpr std::uint32_t regular_file = 0x0010'0000;
    static constexpr std::uint32_t directory_file = 0x0020'0000;
    static constexpr std::uint32_t symlink_file = 0x0040'0000;
    static constexpr std::uint32_t file_not_found = 0x0080'0000;
    static constexpr std::uint32_t fifo_file = 0x0100'0000;
    static constexpr std::uint32_t socket_file = 0x0200'0000;
    static constexpr std::uint32_t block_file = 0x0400'0000;
    static constexpr std::uint32_t character_file = 0x0800'0000;
    /// The type could not be told (a directory entry of an unknown kind that vanished).
    static constexpr std::uint32_t type_unknown = 0x1000'0000;
    static constexpr std::uint32_t file_type_mask = 0x1FF0'0000;

    /// A status of type `type_unknown`, no permissions, unknown time, size 0.
    file_status() = default;
    file_status(std::uint32_t type, std::uint32_t permissions = 0,
                boost::posix_time::ptime last_write = boost::posix_time::ptime(boost::posix_time::not_a_date_time),
                std::uint64_t size = 0) noexcept
        : m_type(type), m_permissions(permissions), m_last_write(last_write), m_size(size) {}

    /// The type bit.
    std::uint32_t type() const noexcept { return m_type; }
    /// The nine permission bits, with `link_perms` for a symbolic link (the other attribute
    /// bits are 0 on Linux); set-id and sticky bits are not reported.
    std::uint32_t permissions() const noexcept { return m_permissions; }
    /// Last modification time in UTC, microseconds kept; not-a-date-time when unknown.
    boost::posix_time::ptime last_write_time() const noexcept { return m_last_write; }
    /// Size in bytes (of the link text for a symbolic link); 0 when unknown.
    std::uint64_t size() const noexcept { return m_size; }

private:
    std::uint32_t m_type = type_unknown;
    std::uint32_t m_permissions = 0;
    boost::posix_time::ptime m_last_write{boost::posix_time::not_a_date_time};
    std::uint64_t m_size = 0;
};

} // namespace vela::filesystem
