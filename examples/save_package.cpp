// Saving a package the safe way: write it to a guarded temporary file, commit it over the
// target with a kept backup, commit again, then commit the same package into in-memory storage,
// and last a larger package on the version read before (with a progress line on a terminal).
// Prints what is on disk (and in storage) after every step.
//
// Usage: save_package [folder]   (default: a temporary folder, removed at the end)
#include <opc/opc.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <boost/crc.hpp>

#include <cstdint>
#include <cstdio>
#include <iomanip>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

std::string narrow(std::u16string const& s) { return opc::detail::toUTF8String(s, false); }

// A minimal zip archive with stored (uncompressed) entries: enough for a real package that any
// zip tool opens, without a compression library.
class ZipWriter {
public:
    void add(std::string const& name, std::string const& data) {
        boost::crc_32_type crc;
        crc.process_bytes(data.data(), data.size());
        Entry e{name, crc.checksum(), static_cast<std::uint32_t>(data.size()),
                static_cast<std::uint32_t>(m_out.size())};
        put32(0x04034b50);
        header(e);
        m_out += name;
        m_out += data;
        m_entries.push_back(e);
    }

    std::string finish() {
        auto const start = static_cast<std::uint32_t>(m_out.size());
        for (auto const& e : m_entries) {
            put32(0x02014b50);
            put16(20); // made by
            header(e);
            put16(0); // comment length
            put16(0); // disk number
            put16(0); // internal attributes
            put32(0); // external attributes
            put32(e.offset);
            m_out += e.name;
        }
        auto const size = static_cast<std::uint32_t>(m_out.size()) - start;
        put32(0x06054b50);
        put16(0);
        put16(0);
        put16(static_cast<std::uint16_t>(m_entries.size()));
        put16(static_cast<std::uint16_t>(m_entries.size()));
        put32(size);
        put32(start);
        put16(0);
        return m_out;
    }

private:
    struct Entry {
        std::string name;
        std::uint32_t crc, size, offset;
    };
    void header(Entry const& e) {
        put16(20);   // version needed
        put16(0);    // flags
        put16(0);    // stored
        put16(0);    // time
        put16(0x21); // date: 1980-01-01
        put32(e.crc);
        put32(e.size);
        put32(e.size);
        put16(static_cast<std::uint16_t>(e.name.size()));
        put16(0); // extra length
    }
    void put16(std::uint16_t v) {
        m_out += static_cast<char>(v & 0xFF);
        m_out += static_cast<char>(v >> 8);
    }
    void put32(std::uint32_t v) {
        put16(static_cast<std::uint16_t>(v & 0xFFFF));
        put16(static_cast<std::uint16_t>(v >> 16));
    }
    std::string m_out;
    std::vector<Entry> m_entries;
};

std::string makePackage(int version) {
    ZipWriter zip;
    zip.add("[Content_Types].xml",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
            "<Default Extension=\"rels\" ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
            "<Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>\n");
    zip.add("_rels/.rels",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">"
            "<Relationship Id=\"r1\" Type=\"urn:example:report\" Target=\"/report/summary.xml\"/></Relationships>\n");
    std::string summary = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<summary version=\"" +
                          std::to_string(version) + "\">";
    for (int i = 0; i < version * 20; ++i)
        summary += "<row n=\"" + std::to_string(i) + "\"/>";
    zip.add("report/summary.xml", summary + "</summary>\n");
    return zip.finish();
}

// Writes a new package into a guarded temporary file through the local back end.
void writePackage(opc::FileSystemOps& local, std::u16string const& path, int version) {
    auto out = local.createOutputStream(path, opc::OpenMode::WriteBinary | opc::OpenMode::Truncate);
    std::string const bytes = makePackage(version);
    out->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out->flush();
    if (!*out)
        throw std::runtime_error("could not write the new package");
}

void show(opc::FileSystemOps& ops, std::u16string const& folder, char const* heading) {
    std::cout << "\n-- " << heading << ": " << narrow(folder) << '\n';
    std::vector<std::u16string> files;
    ops.getFiles(folder, files, true);
    std::sort(files.begin(), files.end());
    for (auto const& f : files) {
        auto const perms = ops.getPermissions(f);
        std::cout << "   " << std::left << std::setw(28) << narrow(ops.getFilename(f)) << std::right
                  << std::setw(7) << ops.getSizeInBytes(f) << " bytes  mode " << std::oct << std::setw(4)
                  << std::setfill('0') << (perms & opc::Perms::AllPerms) << std::dec << std::setfill(' ')
                  << "  modified " << narrow(opc::convertTimeToString(ops.getLastModifiedTime(f))) << '\n';
    }
    if (files.empty())
        std::cout << "   (empty)\n";
}

} // namespace

int main(int argc, char** argv) {
    try {
        // Where the demonstration works: a folder given on the command line, or a guarded one.
        std::optional<opc::util::TempdirGuard> scratch;
        std::u16string folder;
        if (argc > 1) {
            folder = opc::detail::toStringFromUTF8String(argv[1], true);
        } else {
            scratch.emplace(u"", u"opc-demo-", u"");
            folder = scratch->getDirectoryName();
        }

        stratum::storage::vfs::StorageSystemReference storage;
        opc::FileSystemOpsSelector selector(storage);
        opc::FileSystemOps& local = selector.getForPath(folder);
        local.createFolders(folder);
        std::u16string const target = local.appendPath(folder, u"report.pkg");

        opc::CommitOptions options;
        options.removeBackup(false); // keep the old package as report.pkg.bak
        options.backupCreatedFcn([](std::u16string const& backup) {
            std::cout << "   callback: backup kept at " << narrow(backup) << '\n';
        });

        show(local, folder, "at the start");
        for (int version = 1; version <= 3; ++version) {
            // One second apart, so that the listing shows the backup keeping the old time.
            if (version > 1)
                std::this_thread::sleep_for(std::chrono::seconds(1));
            // The new package is written to a temporary file beside the target, which the guard
            // removes whatever happens; the commit copies it into place.
            opc::util::TempfileGuard draft(folder, u".draft-", u".pkg");
            writePackage(local, draft.getFileName(), version);
            std::cout << "\n== commit version " << version << " over " << narrow(target) << '\n';
            local.replaceFileWithBackup(target, local, draft.getFileName(), options);
            if (version == 2) {
                local.setPermissions(target, opc::Perms::OwnerRead | opc::Perms::GroupRead | opc::Perms::OthersRead);
                std::cout << "   (made the target read-only: the next commit keeps it so)\n";
            }
            show(local, folder, "after the commit (draft still guarded)");
        }

        // The same package committed into in-memory storage, named by an IRI.
        std::u16string const memFolder = u"memory:///reports";
        std::u16string const memTarget = u"memory:///reports/report.pkg";
        opc::FileSystemOps& memory = selector.getForPath(memTarget);
        memory.createFolders(memFolder);
        memory.replaceFileWithBackup(memTarget, local, target, options);
        memory.replaceFileWithBackup(memTarget, local, target, options);
        std::cout << "\n== committed the package twice into " << narrow(memTarget) << '\n';
        show(memory, memFolder, "in storage");

        // A larger package (64 MiB) committed on a condition: it goes in only if the target is
        // still the version read before, and a terminal shows how far the copy has got.
        local.setPermissions(target, opc::Perms::OwnerRead | opc::Perms::OwnerWrite);
        opc::util::TempfileGuard large(u"", u".large-", u".pkg");
        {
            auto out = local.createOutputStream(large.getFileName(), opc::OpenMode::WriteBinary);
            std::string const block(std::size_t(1) << 20, 'x');
            for (int i = 0; i < 64; ++i)
                out->write(block.data(), static_cast<std::streamsize>(block.size()));
        }
        opc::CommitOptions conditional;
        conditional.expectedVersion(local.getVersionTag(target));
        if (isatty(STDOUT_FILENO))
            conditional.progressFcn([](std::uint64_t done, std::uint64_t total) {
                std::cout << "\r   copied " << (done >> 20) << " of " << (total >> 20) << " MiB" << std::flush;
                if (done == total)
                    std::cout << '\n';
                return true;
            });
        std::cout << "\n== commit a 64 MiB package on the version read before\n";
        local.replaceFileWithBackup(target, local, large.getFileName(), conditional);
        // Another writer came first: the same expected version no longer holds, and its package stays.
        writePackage(local, target, 4);
        try {
            local.replaceFileWithBackup(target, local, large.getFileName(), conditional);
        } catch (opc::Exception const& e) {
            std::cout << "   refused (" << e.code().message() << "): another writer's package stays, "
                      << local.getSizeInBytes(target) << " bytes\n";
        }
        show(local, folder, "after the conditional commits");

        std::cout << "\ndone; " << (scratch ? "the scratch folder is removed now" : "files kept") << '\n';
        return 0;
    } catch (opc::Exception const& e) {
        std::cerr << "failed: " << e.what() << " (" << e.code().message() << ")\n";
    } catch (std::exception const& e) {
        std::cerr << "failed: " << e.what() << '\n';
    }
    return 1;
}
