// Proving save code against faults: the save below runs over a back end that fails chosen
// calls, and the old document must survive every one of them.
#include <opc/opc.hpp>
#include <opc/testing/FaultInjectingOps.hpp>

#include <iostream>

namespace {

// The code under test: writes `content` beside `target` and commits it over the old document.
void save(opc::FileSystemOps& fs, std::u16string const& target, std::string const& content) {
    opc::util::TempfileGuard draft(fs.getParentPath(target), u".draft-", u".docx");
    {
        auto out = fs.createOutputStream(draft.getFileName(), opc::OpenMode::WriteBinary);
        *out << content;
    }
    fs.replaceFileWithBackup(target, fs, draft.getFileName(), opc::CommitOptions());
}

std::string read(opc::FileSystemOps& fs, std::u16string const& path) {
    auto in = fs.createInputStream(path, opc::OpenMode::ReadBinary);
    return std::string(std::istreambuf_iterator<char>(*in), {});
}

} // namespace

int main() {
    opc::util::TempdirGuard scratch(u"", u"faults-", u"");
    opc::LocalFileSystemOps disk;
    std::u16string const target = disk.appendPath(scratch.getDirectoryName(), u"report.docx");
    save(disk, target, "old");

    // Count the calls of one clean save, then fail each of them in turn with a full disk.
    opc::testing::FaultInjectingOps faulty(disk);
    save(faulty, target, "old");
    std::size_t const calls = faulty.callCount();
    int lost = 0;
    for (std::size_t k = 1; k <= calls; ++k) {
        faulty.failCall(k, boost::system::errc::make_error_code(boost::system::errc::no_space_on_device));
        try {
            save(faulty, target, "new");
        } catch (opc::Exception const& e) {
            std::cout << "call " << k << " failed: " << e.what() << '\n';
        }
        std::string const now = read(disk, target);
        lost += now != "old" && now != "new"; // the old document or the new one, never a mix
        save(disk, target, "old");
    }
    std::cout << calls << " calls failed in turn, " << lost << " documents lost\n";
    return lost == 0 && calls > 0 ? 0 : 1;
}
