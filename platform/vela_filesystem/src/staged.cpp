// Staged renames: the copy of a commit's temporary file and its rename share their flushes.
#include "sys.hpp"

#include <vela/filesystem/operations.hpp>

#include <string>

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

    void reset() {
        staged = flushed = folder_owed = false;
        name.clear();
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
        // failing and removes it.
    }
    sys::state.reset();
}

void staged_rename_scope::close() {
    if (sys::state.depth != 1)
        return;
    sys::settle_owed();
    sys::state.reset();
    sys::state.staged = true; // with no name: nothing more is staged
}

void staged_rename_scope::stage(path const& temporary) {
    if (sys::state.depth == 0 || sys::state.staged)
        return;
    sys::state.staged = true;
    sys::state.name = temporary.access_form();
}

} // namespace vela::filesystem
