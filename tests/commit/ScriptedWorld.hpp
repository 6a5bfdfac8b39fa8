#pragma once

// A scripted back end over a small in-memory file table, so that commit tests can check the
// calls made and the files left, and fail or throw at any chosen call.

#include "support/ScriptedOps.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/system/error_code.hpp>

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace opc::test {

namespace errc = boost::system::errc;

struct MemFile {
    std::string content;
    std::uint32_t perms = 0x1A4;
    boost::posix_time::ptime mtime;
};

class ScriptedWorld {
public:
    using Fault = std::function<Reply(Call const&)>;

    ScriptedOps ops;
    std::map<std::u16string, MemFile> files;
    std::u16string parent = u"/d";
    std::u16string tempName = u"/d/.t1.tmp";
    boost::posix_time::ptime copyTime{boost::gregorian::date(2030, 1, 1)}; // every copy's time

    ScriptedWorld() {
        for (Op op : {Op::Exists, Op::GetPermissions, Op::SetPermissions, Op::GetLastModifiedTime,
                      Op::SetLastModifiedTime, Op::GetParentPath, Op::GetTempName, Op::Copy, Op::Rename, Op::Remove})
            ops.on(op, [this](Call const& c) { return dispatch(c); });
    }

    /// The n-th call (1-based) of `op` fails with `e` and the detail "boom".
    void failAt(Op op, int nth, errc::errc_t e = errc::io_error) {
        m_faults[{op, nth}] = [e](Call const&) { return Reply::fail(e, "boom"); };
    }
    /// The n-th call of `op` runs `fault` instead of the model (it may throw or reply).
    void atCall(Op op, int nth, Fault fault) { m_faults[{op, nth}] = std::move(fault); }
    void failAlways(Op op, errc::errc_t e = errc::io_error) {
        m_always[op] = [e](Call const&) { return Reply::fail(e, "boom"); };
    }

    void put(std::u16string const& path, std::string content, std::uint32_t perms = 0x1A4) {
        files[path] = MemFile{std::move(content), perms, boost::posix_time::ptime(boost::gregorian::date(2001, 2, 3))};
    }

    /// The calls as "op path...", with the scalar argument in hex where the operation has one.
    std::vector<std::string> trace() const {
        std::vector<std::string> out;
        for (Call const& c : ops.calls()) {
            std::string line = publicName(c.op);
            for (auto const& p : c.paths)
                line += " " + std::string(p.begin(), p.end());
            if (c.op == Op::SetPermissions || c.op == Op::Copy) {
                char buf[16];
                std::snprintf(buf, sizeof buf, " %#llx", static_cast<unsigned long long>(c.number));
                line += buf;
            }
            out.push_back(line);
        }
        return out;
    }

private:
    Reply dispatch(Call const& c) {
        int nth = ++m_counts[c.op];
        if (auto f = m_faults.find({c.op, nth}); f != m_faults.end())
            return f->second(c);
        if (auto f = m_always.find(c.op); f != m_always.end())
            return f->second(c);
        return model(c);
    }

    Reply model(Call const& c) {
        auto it = files.find(c.paths.front());
        switch (c.op) {
        case Op::Exists: return Reply::ok(it != files.end());
        case Op::GetParentPath: return Reply::ok(parent);
        case Op::GetTempName: return Reply::ok(tempName);
        default: break;
        }
        if (it == files.end())
            return Reply::fail(errc::no_such_file_or_directory, "missing");
        switch (c.op) {
        case Op::GetPermissions: return Reply::ok(static_cast<Perms::Perms_tag>(it->second.perms));
        case Op::SetPermissions: it->second.perms = static_cast<std::uint32_t>(c.number); return Reply::ok();
        case Op::GetLastModifiedTime: return Reply::ok(it->second.mtime);
        case Op::SetLastModifiedTime: it->second.mtime = c.time; return Reply::ok();
        case Op::Copy: { // content and permissions, like a host file copy
            MemFile copy = it->second;
            copy.mtime = copyTime;
            files[c.paths[1]] = copy;
            return Reply::ok();
        }
        case Op::Rename: {
            MemFile moved = it->second;
            files.erase(it);
            files[c.paths[1]] = moved;
            return Reply::ok();
        }
        case Op::Remove: files.erase(it); return Reply::ok();
        default: return Reply::ok();
        }
    }

    std::map<Op, int> m_counts;
    std::map<std::pair<Op, int>, Fault> m_faults;
    std::map<Op, Fault> m_always;
};

inline std::string commitMessage(std::string const& inner, boost::system::error_code ec) {
    return "Could not commit changes:  " + inner + " " + ec.message();
}

inline boost::system::error_code errcCode(errc::errc_t e) { return errc::make_error_code(e); }

} // namespace opc::test
