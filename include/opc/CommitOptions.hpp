#pragma once

#include <opc/Export.hpp>

#include <boost/system/error_code.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace opc {

/// What a commit (`replaceFileWithBackup`) does about a backup of the package it replaces.
///
/// Defaults: backup extension ".bak", `removeBackup()` true (no backup is kept), no callback,
/// no expected version, no progress function. Left at their defaults, the last two change
/// nothing in what a commit does.
class OPC_API CommitOptions {
public:
    /// Called with the path of the kept backup.
    using BackupCreatedFcn = std::function<void(const std::u16string&)>;
    /// Called as the new content is copied with the bytes copied so far and the size of the
    /// whole (0 when the source cannot tell); returns false to cancel the commit.
    using ProgressFcn = std::function<bool(std::uint64_t done, std::uint64_t total)>;

    /// The code of a commit refused because the target was not at `expectedVersion()`:
    /// `boost::system::errc::device_or_resource_busy` (EBUSY, generic category): the target is
    /// taken by another writer's package.
    static boost::system::error_code versionMismatch();
    /// The code of a commit cancelled by its progress function:
    /// `boost::system::errc::operation_canceled` (ECANCELED, generic category).
    static boost::system::error_code canceled();

    /// The defaults above.
    CommitOptions();

    /// Appended to the target's full path to name the backup ("a/p.pkg" + ".bak").
    void backupExtension(const std::u16string& extension);
    /// The backup extension.
    std::u16string backupExtension() const;

    /// True (the default): no backup is kept. False: the old package is copied to a backup first.
    void removeBackup(bool remove);
    /// True when no backup is kept.
    bool removeBackup() const;

    /// Called with the backup's path once a kept backup exists and the new package is in place.
    void backupCreatedFcn(BackupCreatedFcn callback);
    /// The callback; empty when none was set.
    BackupCreatedFcn backupCreatedFcn() const;

    /// What the target must be for the commit to go ahead. Unset (the default): anything.
    /// Empty: nothing may be at the target yet. Otherwise: the file whose
    /// `FileSystemOps::getVersionTag` this is, unchanged since (a second writer's package at
    /// the target is never replaced unknowingly). Checked before anything is written, and
    /// again by the rename that puts the new package in place (`FileSystemOps::renameIfVersion`,
    /// atomic where the back end allows). When it does not hold the commit fails with
    /// `versionMismatch()` and leaves the target as the other writer left it, with no backup
    /// and no temporary file of its own. On a back end without version tags the commit fails
    /// with `operation_not_supported` before anything is written.
    void expectedVersion(std::optional<std::string> version);
    /// The expected version; unset when none was set.
    std::optional<std::string> expectedVersion() const;

    /// Called as the new content is copied: at least once per 8 MiB and once at the end with
    /// done == total (the source's size, 0 when it cannot tell). With a function set, the new
    /// content always travels through the streams of both back ends, so that it can be counted
    /// (the back end's own copy, a kernel or server-side copy, cannot be). Returning false
    /// cancels: the commit fails with `canceled()` and leaves the target and its folder as
    /// they were (its temporary file removed, an object store's upload aborted).
    void progressFcn(ProgressFcn progress);
    /// The progress function; empty when none was set.
    ProgressFcn progressFcn() const;

private:
    std::u16string m_backupExtension;
    bool m_removeBackup;
    BackupCreatedFcn m_backupCreatedFcn;
    std::optional<std::string> m_expectedVersion;
    ProgressFcn m_progressFcn;
};

} // namespace opc
