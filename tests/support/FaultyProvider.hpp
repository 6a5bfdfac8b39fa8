#pragma once

// A storage provider that wraps another and, when armed, throws a chosen exception from its
// next call instead of passing it on. Registered for a scheme with
// StorageSystemReference::setProvider, it drives every failure path of code above the storage
// layer through real storage calls.

#include <stratum/storage/provider/StorageProvider.hpp>

#include <exception>
#include <memory>

namespace opc::test {

class FaultyProvider : public stratum::storage::provider::StorageProvider {
public:
    explicit FaultyProvider(std::shared_ptr<stratum::storage::provider::StorageProvider> inner);

    /// The next call (of any primitive) throws `fault`; later calls pass through again.
    void failNext(std::exception_ptr fault) { m_fault = std::move(fault); }
    /// How many calls reached this provider.
    int calls() const { return m_calls; }

    using Kind = stratum::storage::provider::ItemKind;
    using IRI = stratum::storage::vfs::AbsoluteIRI;

    Kind getKind(IRI const& iri) override;
    stratum::storage::provider::FileAttributes getAttributes(IRI const& iri) override;
    std::vector<stratum::storage::provider::FolderEntry> listFolder(IRI const& iri) override;
    void createFolder(IRI const& iri) override;
    bool isWritable(IRI const& iri) override;
    void setWritable(IRI const& iri, bool writable) override;
    boost::posix_time::ptime getLastModified(IRI const& iri) override;
    void setLastModified(IRI const& iri, boost::posix_time::ptime time) override;
    void removeFile(IRI const& iri) override;
    void removeEmptyFolder(IRI const& iri) override;
    void removeTree(IRI const& iri) override;
    void rename(IRI const& from, IRI const& to) override;
    std::unique_ptr<std::streambuf> openInput(IRI const& iri) override;
    std::unique_ptr<std::streambuf> openOutput(IRI const& iri, std::ios_base::openmode mode) override;
    void copyFile(IRI const& from, IRI const& to) override;

private:
    // Counts the call and throws the armed fault, once.
    void step();

    std::shared_ptr<stratum::storage::provider::StorageProvider> m_inner;
    std::exception_ptr m_fault;
    int m_calls = 0;
};

} // namespace opc::test
