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

} // namespace opc
