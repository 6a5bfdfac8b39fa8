// Saving a package over an old one: the new content goes to a guarded temporary file, and the
// commit puts it in the target's place in one rename, keeping the old package as a backup.
#include <opc/opc.hpp>

#include <iostream>

int main() {
    // A temporary folder, removed with everything in it when the guard goes out of scope.
    opc::util::TempdirGuard scratch(u"", u"commit-", u"");
    opc::LocalFileSystemOps fs;
    std::u16string const folder = scratch.getDirectoryName();
    std::u16string const target = fs.appendPath(folder, u"report.docx");

    opc::CommitOptions options;
    options.removeBackup(false); // keep the replaced package as report.docx.bak
    options.backupCreatedFcn([](std::u16string const& backup) {
        std::cout << "backup kept: " << opc::toUDEString(backup) << '\n';
    });

    for (char const* content : {"first version", "second version"}) {
        // The new package is written to a temporary file beside the target; the guard removes
        // it when it goes out of scope, after the commit has copied it into place.
        opc::util::TempfileGuard draft(folder, u".draft-", u".docx");
        {
            auto out = fs.createOutputStream(draft.getFileName(), opc::OpenMode::WriteBinary);
            *out << content;
        }
        // The target holds the old package or the new one, never half of either.
        fs.replaceFileWithBackup(target, fs, draft.getFileName(), options);
    }
    std::cout << fs.getSizeInBytes(target) << " bytes in " << opc::toUDEString(target) << '\n';
    return fs.getSizeInBytes(target) == 14 && fs.isFile(target + u".bak") ? 0 : 1;
}
