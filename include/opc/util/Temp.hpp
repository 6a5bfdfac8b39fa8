#pragma once

#include <opc/Export.hpp>

#include <string>

/// Temporary names, files and folders on the machine's own file system.
///
/// Empty arguments take defaults: the folder `getTempDir()`, the prefix "." and the extension
/// ".tmp". Every path handed out is in normalized (generic) form. Failures are thrown as
/// `opc::Exception` with a cleared error code where stated; other host-layer exceptions pass
/// through. Nothing here takes locks.
namespace opc::util {

/// The folder for temporary files: the host's temporary folder, else the current folder.
/// A host failure throws `opc::Exception` with the host's message and a cleared code.
OPC_API std::u16string getTempDir();

/// A path in `folder` named prefix + random part + extension that did not exist when checked.
/// Nothing is created, so another process may take the name before it is used.
OPC_API std::u16string getTempName(const std::u16string& folder, const std::u16string& prefix,
                                   const std::u16string& extension);

/// Owns a new empty temporary file and removes it on destruction unless released.
/// The file is created exclusively (no gap between choosing the name and creating it).
class OPC_API TempfileGuard {
public:
    /// Creates the file; throws "Temp file could not be created" (cleared code) on failure.
    TempfileGuard(const std::u16string& folder, const std::u16string& prefix, const std::u16string& extension);
    /// Removes the file while armed; every failure is swallowed.
    ~TempfileGuard();
    TempfileGuard(const TempfileGuard&) = delete;
    TempfileGuard& operator=(const TempfileGuard&) = delete;

    /// The creation step: makes the file and returns its normalized path.
    std::u16string generateTempFile(const std::u16string& folder, const std::u16string& prefix,
                                    const std::u16string& extension) const;
    /// The file's path (also after `release()`).
    std::u16string getFileName() const { return m_path; }
    /// Keeps the file: the destructor then leaves it alone.
    void release() noexcept { m_armed = false; }

private:
    bool m_armed = false;
    std::u16string m_path;
};

/// Owns a new temporary folder and removes it with everything inside on destruction unless
/// released. Links inside are removed themselves; what they point to is never touched.
class OPC_API TempdirGuard {
public:
    /// Creates the folder; throws "Temporary directory could not be created. " followed by the
    /// host's message (and ": " and the path when it names one), cleared code, on failure.
    TempdirGuard(const std::u16string& folder, const std::u16string& prefix, const std::u16string& extension);
    /// Removes the folder tree while armed; every failure is swallowed.
    ~TempdirGuard();
    TempdirGuard(const TempdirGuard&) = delete;
    TempdirGuard& operator=(const TempdirGuard&) = delete;

    /// The creation step: picks a free name, creates the folder and returns its path.
    std::u16string generateTempDir(const std::u16string& folder, const std::u16string& prefix,
                                   const std::u16string& extension) const;
    /// The folder's path (also after `release()`).
    std::u16string getDirectoryName() const { return m_path; }
    /// Keeps the folder: the destructor then leaves it alone.
    void release() noexcept { m_armed = false; }

private:
    bool m_armed = false;
    std::u16string m_path;
};

} // namespace opc::util
