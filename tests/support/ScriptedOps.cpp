#include "support/ScriptedOps.hpp"

#include <algorithm>

namespace opc::test {

char const* publicName(Op op) {
#define OPC_TEST_NAME(Name, R, name, ...) #name,
    static char const* const names[] = {OPC_TEST_OPERATIONS(OPC_TEST_NAME, OPC_TEST_NAME, OPC_TEST_NAME)};
#undef OPC_TEST_NAME
    return names[static_cast<int>(op)];
}

Reply Reply::ok(Value v) {
    Reply r;
    r.value = std::move(v);
    return r;
}

Reply Reply::fail(boost::system::error_code ec, std::string detail, Value v) {
    Reply r = ok(std::move(v));
    r.ec = ec;
    r.detail = std::move(detail);
    return r;
}

Reply Reply::fail(boost::system::errc::errc_t e, std::string detail, Value v) {
    return fail(boost::system::errc::make_error_code(e), std::move(detail), std::move(v));
}

void ScriptedOps::failCall(std::size_t k, boost::system::error_code code) {
    m_failAt = k;
    m_code = code;
    m_counted = 0;
    m_fired = false;
    m_calls.clear();
}

void ScriptedOps::failWhen(std::function<bool(Call const&)> pick, boost::system::error_code code) {
    m_pick = std::move(pick);
    m_code = code;
    m_fired = false;
}

std::vector<Op> ScriptedOps::ops() const {
    std::vector<Op> result;
    for (auto const& c : m_calls)
        result.push_back(c.op);
    return result;
}

std::size_t ScriptedOps::count(Op op) const {
    return std::count_if(m_calls.begin(), m_calls.end(), [op](Call const& c) { return c.op == op; });
}

std::optional<Reply> ScriptedOps::next(Call const& c) {
    if (auto q = m_queued.find(c.op); q != m_queued.end() && !q->second.empty()) {
        Reply r = std::move(q->second.front());
        q->second.pop_front();
        return r;
    }
    if (auto h = m_handlers.find(c.op); h != m_handlers.end())
        return h->second(c);
    if (auto d = m_defaults.find(c.op); d != m_defaults.end())
        return d->second;
    return std::nullopt;
}

// The two operations that cannot fail: scripted (value, and out path from `files`) or forwarded.
bool ScriptedOps::doGetLocalPath(P p, std::u16string& out) {
    m_calls.push_back(call(Op::GetLocalPath, p));
    std::optional<Reply> r = next(m_calls.back());
    if (!r)
        return m_inner && m_inner->getLocalPath(p, out);
    if (r->effect)
        r->effect(m_calls.back());
    if (!r->files.empty())
        out = r->files.front();
    return std::holds_alternative<bool>(r->value) && std::get<bool>(r->value);
}

bool ScriptedOps::doIsAbsolutePath(P p) {
    m_calls.push_back(call(Op::IsAbsolutePath, p));
    std::optional<Reply> r = next(m_calls.back());
    if (!r)
        return m_inner && m_inner->isAbsolutePath(p);
    return std::holds_alternative<bool>(r->value) && std::get<bool>(r->value);
}

void ScriptedOps::doGetFiles(P f, std::vector<std::u16string>& out, bool r, std::string& d, error_code& ec) {
    answer<void>(call(Op::GetFiles, f, r), d, ec, [&](error_code& e) { m_inner->getFiles(f, out, r, e); }, &out);
}

void ScriptedOps::doReplaceFileWithBackup(P t, FileSystemOps& so, P s, CommitOptions const& o, std::string& d,
                                          error_code& ec) {
    answer<void>(call(Op::ReplaceFileWithBackup, t, s), d, ec, [&](error_code& e) {
        try {
            opc::replaceFileWithBackup(*this, t, so, s, o);
        } catch (Exception const& x) {
            d = x.what();
            e = x.code();
        }
    });
}

} // namespace opc::test
