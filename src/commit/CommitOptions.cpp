#include <opc/CommitOptions.hpp>

#include <utility>

namespace opc {

CommitOptions::CommitOptions() : m_backupExtension(u".bak"), m_removeBackup(true) {}

void CommitOptions::backupExtension(const std::u16string& extension) { m_backupExtension = extension; }
std::u16string CommitOptions::backupExtension() const { return m_backupExtension; }

void CommitOptions::removeBackup(bool remove) { m_removeBackup = remove; }
bool CommitOptions::removeBackup() const { return m_removeBackup; }

void CommitOptions::backupCreatedFcn(BackupCreatedFcn callback) { m_backupCreatedFcn = std::move(callback); }
CommitOptions::BackupCreatedFcn CommitOptions::backupCreatedFcn() const { return m_backupCreatedFcn; }

void CommitOptions::expectedVersion(std::optional<std::string> version) { m_expectedVersion = std::move(version); }
std::optional<std::string> CommitOptions::expectedVersion() const { return m_expectedVersion; }

void CommitOptions::progressFcn(ProgressFcn progress) { m_progressFcn = std::move(progress); }
CommitOptions::ProgressFcn CommitOptions::progressFcn() const { return m_progressFcn; }

boost::system::error_code CommitOptions::versionMismatch() {
    return boost::system::errc::make_error_code(boost::system::errc::device_or_resource_busy);
}

boost::system::error_code CommitOptions::canceled() {
    return boost::system::errc::make_error_code(boost::system::errc::operation_canceled);
}

} // namespace opc
