#include "support/FaultyProvider.hpp"

namespace opc::test {

namespace provider = stratum::storage::provider;

FaultyProvider::FaultyProvider(std::shared_ptr<provider::StorageProvider> inner) : m_inner(std::move(inner)) {}

void FaultyProvider::step() {
    ++m_calls;
    if (m_fault) {
        auto fault = std::move(m_fault);
        m_fault = nullptr;
        std::rethrow_exception(fault);
    }
}

FaultyProvider::Kind FaultyProvider::getKind(IRI const& iri) { return step(), m_inner->getKind(iri); }
provider::FileAttributes FaultyProvider::getAttributes(IRI const& iri) { return step(), m_inner->getAttributes(iri); }
std::vector<provider::FolderEntry> FaultyProvider::listFolder(IRI const& iri) {
    return step(), m_inner->listFolder(iri);
}
void FaultyProvider::createFolder(IRI const& iri) { step(), m_inner->createFolder(iri); }
bool FaultyProvider::isWritable(IRI const& iri) { return step(), m_inner->isWritable(iri); }
void FaultyProvider::setWritable(IRI const& iri, bool writable) { step(), m_inner->setWritable(iri, writable); }
boost::posix_time::ptime FaultyProvider::getLastModified(IRI const& iri) {
    return step(), m_inner->getLastModified(iri);
}
void FaultyProvider::setLastModified(IRI const& iri, boost::posix_time::ptime time) {
    step(), m_inner->setLastModified(iri, time);
}
void FaultyProvider::removeFile(IRI const& iri) { step(), m_inner->removeFile(iri); }
void FaultyProvider::removeEmptyFolder(IRI const& iri) { step(), m_inner->removeEmptyFolder(iri); }
void FaultyProvider::removeTree(IRI const& iri) { step(), m_inner->removeTree(iri); }
void FaultyProvider::rename(IRI const& from, IRI const& to) { step(), m_inner->rename(from, to); }
std::unique_ptr<std::streambuf> FaultyProvider::openInput(IRI const& iri) { return step(), m_inner->openInput(iri); }
std::unique_ptr<std::streambuf> FaultyProvider::openOutput(IRI const& iri, std::ios_base::openmode mode) {
    return step(), m_inner->openOutput(iri, mode);
}
void FaultyProvider::copyFile(IRI const& from, IRI const& to) { step(), m_inner->copyFile(from, to); }

} // namespace opc::test
