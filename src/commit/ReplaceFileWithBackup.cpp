#include <opc/Commit.hpp>
#include <opc/Exception.hpp>

#include "commit/Conditions.hpp"
#include "commit/CrossCopy.hpp"

#include <boost/system/error_code.hpp>
#include <vela/filesystem/operations.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace opc {

namespace {

using Bits = std::uint32_t;

// Or-ed into every permission value read back before it is compared or kept, so that a value
// read and a value stored compare alike whatever attribute bits the back end reports.
constexpr Bits ReadMark = 0x1000;
// Never handed to setPermissions.
constexpr Bits NeverSet = 0x8000;
// Cleared in addition while the target is made writable.
constexpr Bits ClearedWhenWritable = 0x4000;
constexpr Bits OwnerWrite = Perms::OwnerWrite;
constexpr Bits OwnerReadWrite = Perms::OwnerRead | Perms::OwnerWrite;
constexpr Bits Unknown = Perms::PermsUnknown;
// A package that did not exist before: the read mark and mode 0644.
constexpr Bits NewPackage = 0x11A4;
// What the target is asked to become when its permissions cannot be read.
constexpr Bits WritableWhenUnknown = 0xBFFF;

constexpr int BackupAttempts = 5;

char const* const CommitFailed = "Could not commit changes:  ";
char const* const CannotReadTarget = "Could not get attributes or permissions of existing package";
char const* const CannotSetNew = "Could not set attributes or permissions of new package";

Perms::Perms_tag asPerms(Bits bits) { return static_cast<Perms::Perms_tag>(bits); }

[[noreturn]] void throwDenied(char const* message) {
    throw Exception(message, boost::system::errc::make_error_code(boost::system::errc::permission_denied));
}

// Permissions as the commit compares them; `Unknown` when they cannot be read.
Bits readPerms(FileSystemOps& ops, const std::u16string& path) {
    try {
        return ops.getPermissions(path) | ReadMark;
    } catch (...) {
        return Unknown;
    }
}

// Sets permissions with the bit the commit never hands over cleared; every failure ignored.
void setPermsQuietly(FileSystemOps& ops, const std::u16string& path, Bits bits) {
    try {
        ops.setPermissions(path, asPerms(bits & ~NeverSet));
    } catch (...) {
    }
}

// What the commit carries from step to step.
struct Commit {
    Commit(FileSystemOps& t, const std::u16string& p, FileSystemOps& s, const std::u16string& sp,
           const CommitOptions& o)
        : target(t), path(p), source(s), sourcePath(sp), options(o) {}

    FileSystemOps& target;
    const std::u16string& path;
    FileSystemOps& source;
    const std::u16string& sourcePath;
    const CommitOptions& options;

    Bits finalPerms = NewPackage;
    bool madeBackup = false;
    std::u16string backupPath;
    bool removeBackupAfter = false;
    Bits rememberedPerms = Unknown;
    bool permsChanged = false;
    std::u16string tempPath;
    // Backup names that held nothing before (known only when a refusal or a cancellation may
    // have to take a backup back).
    std::vector<std::u16string> freeBackupNames;
};

// Step 1: the permissions the new package will get; whether a backup is wanted.
bool readStartingState(Commit& c) {
    if (!c.target.exists(c.path))
        return false; // A first commit: 0644, and no backup whatever the options say.
    try {
        c.finalPerms = c.target.getPermissions(c.path) | ReadMark;
    } catch (...) {
        throwDenied(CannotReadTarget);
    }
    return !c.options.removeBackup();
}

std::u16string backupCandidate(const Commit& c, int attempt) {
    std::u16string name = c.path + c.options.backupExtension();
    if (attempt >= 2)
        for (char digit : std::to_string(attempt))
            name += static_cast<char16_t>(digit);
    return name;
}

// A stale backup left read-only by an earlier commit must not stop the copy over it.
void makeWritableIfPresent(FileSystemOps& ops, const std::u16string& candidate) {
    if (!ops.exists(candidate)) // A failure here fails the attempt.
        return;
    try {
        Bits bits = ops.getPermissions(candidate);
        if (!(bits & OwnerWrite))
            ops.setPermissions(candidate, asPerms((bits | ReadMark | OwnerWrite) & ~NeverSet));
    } catch (...) {
    }
}

// The backup takes the old package's permissions; failures leave it as the copy made it.
void carryPermissions(FileSystemOps& ops, const std::u16string& from, const std::u16string& candidate) {
    Bits have = readPerms(ops, candidate);
    Bits want = readPerms(ops, from);
    if (have != want)
        setPermsQuietly(ops, candidate, want);
}

void tryBackup(Commit& c, const std::u16string& candidate) {
    makeWritableIfPresent(c.target, candidate);
    {
        // Tells a local back end that this copy is the backup: it may link the old package.
        vela::filesystem::staged_rename_scope::backup_copy backingUp;
        detail::copyAcross(c.target, c.path, c.target, candidate);
    }
    carryPermissions(c.target, c.path, candidate);
    c.target.setLastModifiedTime(candidate, c.target.getLastModifiedTime(c.path));
}

// Step 2: copy the old package to the first backup name that takes it. Only the library's
// own failures move on to the next name; anything else ends the commit at once.
void makeBackup(Commit& c) {
    for (int attempt = 1; attempt <= BackupAttempts; ++attempt) {
        std::u16string candidate = backupCandidate(c, attempt);
        try {
            tryBackup(c, candidate);
        } catch (const Exception&) {
            if (attempt == BackupAttempts)
                throw;
            continue;
        }
        c.madeBackup = true;
        c.backupPath = std::move(candidate);
        // Read again: the options may have been changed since step 1 (see step 7).
        c.removeBackupAfter = c.options.removeBackup();
        return;
    }
}

// Step 3: a read-only target is made writable for the rename; the old value is remembered.
void makeTargetWritable(Commit& c) {
    if (!c.target.exists(c.path))
        return;
    c.rememberedPerms = readPerms(c.target, c.path);
    Bits wanted = c.rememberedPerms == Unknown ? WritableWhenUnknown
                                               : ((c.rememberedPerms & ~ClearedWhenWritable) | OwnerWrite);
    if (wanted == c.rememberedPerms)
        return;
    try {
        c.target.setPermissions(c.path, asPerms(wanted & ~ClearedWhenWritable & ~NeverSet));
        c.permsChanged = true;
    } catch (...) {
    }
}

void restorePermissions(Commit& c) {
    if (c.permsChanged)
        setPermsQuietly(c.target, c.path, c.rememberedPerms);
}

// Step 4: a fresh name beside the target, so that the rename stays within one folder.
void chooseTempPath(Commit& c) {
    std::u16string parent = c.target.getParentPath(c.path);
    c.tempPath = parent.empty() ? c.path + u".tmp" : c.target.getTempName(parent);
}

using detail::removeQuietly;

// Only a refused or cancelled commit takes its backup back, and only from a name that was free.
void noteFreeBackupNames(Commit& c) {
    if (!c.options.expectedVersion() && !c.options.progressFcn())
        return;
    for (int attempt = 1; attempt <= BackupAttempts; ++attempt)
        c.freeBackupNames.push_back(backupCandidate(c, attempt));
    c.freeBackupNames = detail::freeNames(c.target, std::move(c.freeBackupNames));
}

void takeBackupBack(Commit& c) {
    if (c.madeBackup && detail::holds(c.freeBackupNames, c.backupPath))
        removeQuietly(c.target, c.backupPath);
}

// Step 5. A partly written temporary file is left where it is, except after a cancellation.
void copyNewContent(Commit& c) {
    CommitOptions::ProgressFcn const progress = c.options.progressFcn();
    try {
        if (progress)
            detail::copyCounting(c.source, c.sourcePath, c.target, c.tempPath, progress);
        else
            detail::copyAcross(c.source, c.sourcePath, c.target, c.tempPath);
    } catch (const Exception& e) {
        if (e.code() == CommitOptions::canceled()) {
            removeQuietly(c.target, c.tempPath);
            takeBackupBack(c);
        }
        restorePermissions(c);
        throw;
    } catch (...) {
        restorePermissions(c);
        throw;
    }
}

// With an expected version, the rename itself makes sure the target is still that version.
void putInPlace(Commit& c) {
    if (std::optional<std::string> const expected = c.options.expectedVersion())
        c.target.renameIfVersion(c.tempPath, c.path, *expected);
    else
        detail::moveAcross(c.target, c.tempPath, c.target, c.path);
}

// Step 6: the one rename that replaces the target.
void replaceTarget(Commit& c) {
    try {
        putInPlace(c);
    } catch (const Exception& e) {
        // Another writer's package stays at the target, and this commit leaves nothing beside it.
        if (e.code() == CommitOptions::versionMismatch())
            takeBackupBack(c);
        removeQuietly(c.target, c.tempPath);
        restorePermissions(c);
        throw;
    } catch (...) {
        // The rename's failure is the one to report; a temporary file that cannot be removed
        // is only litter.
        try {
            c.target.remove(c.tempPath);
        } catch (...) {
        }
        restorePermissions(c);
        throw;
    }
}

// Step 7: only reached when the options changed their mind after the backup was made. If the
// backup cannot be removed the old package is put back from it.
void removeBackupIfAsked(Commit& c) {
    try {
        c.target.remove(c.backupPath);
    } catch (const Exception&) {
        c.target.remove(c.path);
        c.target.rename(c.backupPath, c.path);
        throw;
    }
}

// Step 8.
void announceBackup(Commit& c) {
    CommitOptions::BackupCreatedFcn callback = c.options.backupCreatedFcn();
    if (callback)
        callback(c.backupPath);
}

// Step 9: the new package gets the old permissions. Failing that, a package its owner can
// still read and write is good enough; anything else is reported, with the package in place.
void setFinalPermissions(Commit& c) {
    Bits current = readPerms(c.target, c.path);
    if (current == c.finalPerms)
        return;
    try {
        c.target.setPermissions(c.path, asPerms(c.finalPerms & ~NeverSet));
    } catch (...) {
        if ((current & OwnerReadWrite) != OwnerReadWrite)
            throwDenied(CannotSetNew);
    }
}

void commit(Commit& c) {
    // A local target's temporary file (the first name its getTempName gives in here) is copied
    // and renamed at once, so the rename's flushes stand in for the copy's folder flush and a
    // second data flush. Host calls of other back ends are not affected, and the staging ends
    // with the rename: the callback's own copies are flushed as usual.
    vela::filesystem::staged_rename_scope staging;
    if (std::optional<std::string> const expected = c.options.expectedVersion())
        detail::requireExpectedVersion(c.target, c.path, *expected);
    if (readStartingState(c)) {
        noteFreeBackupNames(c);
        makeBackup(c);
    }
    makeTargetWritable(c);
    chooseTempPath(c);
    copyNewContent(c);
    replaceTarget(c);
    staging.close();
    if (c.madeBackup && c.removeBackupAfter)
        removeBackupIfAsked(c);
    else if (c.madeBackup)
        announceBackup(c);
    setFinalPermissions(c);
}

} // namespace

void replaceFileWithBackup(FileSystemOps& targetOps, const std::u16string& targetPath, FileSystemOps& sourceOps,
                           const std::u16string& sourcePath, const CommitOptions& options) {
    std::unique_ptr<FileSystemOps> const remembering = detail::rememberingTarget(targetOps);
    FileSystemOps& target = remembering ? *remembering : targetOps;
    std::unique_ptr<FileSystemOps> const elsewhere = detail::sourceFromOtherStorage(target, sourceOps);
    FileSystemOps& source = elsewhere ? *elsewhere : &sourceOps == &targetOps ? target : sourceOps;
    Commit c(target, targetPath, source, sourcePath, options);
    try {
        commit(c);
    } catch (const Exception& e) {
        throw Exception(std::string(CommitFailed) + e.what() + " " + e.code().message(), e.code());
    }
}

} // namespace opc
