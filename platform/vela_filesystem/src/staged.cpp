// Staged renames: the copy of a commit's temporary file and its rename share their flushes.
#include "sys.hpp"

#include <vela/filesystem/operations.hpp>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace vela::filesystem {

namespace sys {
namespace {

struct staged_state {
    int depth = 0;        // live scopes on this thread
    bool staged = false;  // a name was given in the outermost scope
    std::string name;     // its access form
    bool flushed = false; // copy_file made it and flushed its data
    struct stat identity; // its status right after that flush
    bool folder_owed = false;
    // Modes of files as they were before their first permission change in the scope, each
    // with what puts it back (none for a host file: chmod does).
    struct kept_mode {
        std::string key;
        mode_t mode;
        std::function<void(std::uint32_t)> restore;
    };
    std::vector<kept_mode> modes;
    std::function<void()> cleanup; // what to remove if the scope ends before `close`
    bool cleanup_taken = false;
    bool closed = false; // the rename came: nothing is put back any more

    void reset() {
        staged = flushed = folder_owed = cleanup_taken = closed = false;
        name.clear();
        modes.clear();
        cleanup = nullptr;
    }
};

thread_local staged_state state;

bool same_content(struct stat const& a, struct stat const& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size && a.st_mode == b.st_mode &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

} // namespace

bool defer_new_name(std::string const& access) {
    return state.staged && !state.flushed && access == state.name; // staged: inside a scope
}

void note_flushed(std::string const& access, struct stat const& st) {
    if (!defer_new_name(access))
        return;
    state.flushed = true;
    state.identity = st;
    state.folder_owed = true;
}

void settle_owed() {
    if (!state.folder_owed)
        return;
    state.folder_owed = false;
    state.flushed = false; // a later rename of it flushes as usual
    sync_folder(folder_of(state.name));
}

bool take_staged(std::string const& access, struct stat const& st) {
    if (state.flushed && access == state.name && same_content(st, state.identity)) {
        // The rename syncs this folder after it: that also makes the created name durable.
        state.flushed = false;
        state.folder_owed = false;
        return true;
    }
    settle_owed();
    return false;
}

void keep_mode(std::string const& key, mode_t mode, std::function<void(std::uint32_t)> restore) {
    if (state.depth == 0)
        return;
    for (auto const& known : state.modes)
        if (known.key == key)
            return;
    state.modes.push_back({key, mode, std::move(restore)});
}

void note_mode_change(std::string const& access, mode_t mode) { keep_mode(access, mode, nullptr); }

bool mode_before_change(std::string const& access, mode_t& mode) {
    for (auto const& known : state.modes)
        if (known.key == access) {
            mode = known.mode;
            return true;
        }
    return false;
}

// A scope abandoned before its rename leaves no file wider than it found it: a read-only
// target made writable for a rename that never came gets its mode back. Failures are ignored;
// the caller is already failing.
void restore_widened_modes() {
    for (auto const& known : state.modes) {
        try {
            if (known.restore) {
                known.restore(known.mode);
                continue;
            }
            struct stat st;
            if (::stat(known.key.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 07777 & ~known.mode) != 0)
                ::chmod(known.key.c_str(), known.mode);
        } catch (...) {
        }
    }
}

bool is_staged(std::string const& access) { return state.depth > 0 && state.staged && access == state.name; }

bool before_staging() { return state.depth > 0 && !state.staged; }

} // namespace sys

staged_rename_scope::staged_rename_scope() {
    if (sys::state.depth++ == 0)
        sys::state.reset();
}

staged_rename_scope::~staged_rename_scope() {
    if (--sys::state.depth > 0)
        return;
    try {
        sys::settle_owed();
    } catch (...) {
        // Only reached when the staged file was made but never renamed: the caller is already
        // failing, and the cleanup below removes it.
    }
    // Ended before `close`: the commit failed before its rename, and what it made under its
    // temporary name is litter (a partial file on a full disk holds the very space it lacked).
    if (!sys::state.closed)
        sys::restore_widened_modes();
    if (sys::state.cleanup) {
        try {
            sys::state.cleanup();
        } catch (...) {
            // The commit's own failure is the one being reported.
        }
    }
    sys::end_linked_backup();
    sys::state.reset();
}

void staged_rename_scope::close() {
    if (sys::state.depth != 1)
        return;
    sys::settle_owed();
    sys::state.reset();
    sys::state.staged = true; // with no name: nothing more is staged
    sys::state.cleanup_taken = true;
    sys::state.closed = true;
}

void staged_rename_scope::stage(path const& temporary) {
    if (sys::state.depth == 0 || sys::state.staged)
        return;
    sys::state.staged = true;
    sys::state.name = temporary.access_form();
}

void staged_rename_scope::on_abandon(std::function<void()> cleanup) {
    if (sys::state.depth == 0 || sys::state.cleanup_taken)
        return;
    sys::state.cleanup_taken = true;
    sys::state.cleanup = std::move(cleanup);
}

void staged_rename_scope::remember_mode(std::string const& key, std::function<std::uint32_t()> const& read,
                                        std::function<void(std::uint32_t)> restore) {
    mode_t unused = 0;
    if (sys::state.depth == 0 || sys::mode_before_change(key, unused))
        return;
    sys::keep_mode(key, static_cast<mode_t>(read()), std::move(restore));
}

bool staged_rename_scope::remembered_mode(std::string const& key, std::uint32_t& mode) {
    mode_t kept = 0;
    if (!sys::mode_before_change(key, kept))
        return false;
    mode = kept;
    return true;
}

} // namespace vela::filesystem
