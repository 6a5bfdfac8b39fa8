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
    bool const kept = fs.getSizeInBytes(target) == 14 && fs.isFile(target + u".bak");

    // A third save, on the condition that nobody saved since the package was opened.
    opc::FileSystemOps& ops = fs;
    opc::FileSystemOps& local = fs;
    opc::util::TempfileGuard third(folder, u".draft-", u".docx");
    *fs.createOutputStream(third.getFileName(), opc::OpenMode::WriteBinary) << "third version";
    std::u16string const draft = third.getFileName();
    bool const userPressedCancel = false;
    {
        opc::CommitOptions options;
        options.expectedVersion(ops.getVersionTag(target)); // taken when the package was opened
        options.progressFcn([](std::uint64_t done, std::uint64_t total) {
            std::cout << '\r' << done << " of " << total << " bytes" << std::flush;
            return !userPressedCancel; // false stops the commit
        });
        try {
            ops.replaceFileWithBackup(target, local, draft, options);
        } catch (opc::Exception const& e) {
            if (e.code() == opc::CommitOptions::versionMismatch())
                std::cout << "someone saved first: reload and merge\n";
            else if (e.code() == opc::CommitOptions::canceled())
                std::cout << "stopped: nothing changed\n";
            else
                throw;
        }
    }
    std::cout << '\n' << fs.getSizeInBytes(target) << " bytes in " << opc::toUDEString(target) << '\n';
    return kept && fs.getSizeInBytes(target) == 13 ? 0 : 1;
}
