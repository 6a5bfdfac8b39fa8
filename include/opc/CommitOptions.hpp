#pragma once

#include <opc/Export.hpp>

#include <functional>
#include <string>

namespace opc {

/// What a commit (`replaceFileWithBackup`) does about a backup of the package it replaces.
///
/// Defaults: backup extension ".bak", `removeBackup()` true (no backup is kept), no callback.
class OPC_API CommitOptions {
public:
    /// Called with the path of the kept backup.
    using BackupCreatedFcn = std::function<void(const std::u16string&)>;

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

private:
    std::u16string m_backupExtension;
    bool m_removeBackup;
    BackupCreatedFcn m_backupCreatedFcn;
};

} // namespace opc
