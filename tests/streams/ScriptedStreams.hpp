#pragma once

// Scriptable stream doubles. Both log every call with its result into one shared list, so a
// test can check the exact order of calls.

#include <opc/Streams.hpp>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

namespace opc::test {

using CallLog = std::vector<std::string>;

/// Delivers `data` in the sizes of `chunks` (0 = nothing now), then in whole requests. Done when
/// all data went out, or after `doneAfterReads` reads when that is set (done early).
class ScriptedInput : public InputStream {
public:
    ScriptedInput(CallLog& log, std::vector<unsigned char> data, std::deque<unsigned long> chunks = {})
        : m_log(log), m_data(std::move(data)), m_chunks(std::move(chunks)) {}

    long doneAfterReads = -1;
    long reads = 0;
    long zeroReadsNotDone = 0;

    void open() override { m_log.push_back("in.open"); }
    unsigned long read(unsigned char* buffer, unsigned long size) override {
        unsigned long n = std::min<unsigned long>(size, m_data.size() - m_position);
        if (!m_chunks.empty()) {
            n = std::min(n, m_chunks.front());
            m_chunks.pop_front();
        }
        std::copy_n(m_data.data() + m_position, n, buffer);
        m_position += n;
        ++reads;
        m_log.push_back("in.read " + std::to_string(size) + " -> " + std::to_string(n));
        zeroReadsNotDone += n == 0 && !done();
        return n;
    }
    bool isDone() const override {
        m_log.push_back(done() ? "in.isDone -> true" : "in.isDone -> false");
        return done();
    }
    void close() override { m_log.push_back("in.close"); }
    std::size_t position() const { return m_position; }

private:
    bool done() const { return m_position >= m_data.size() || (doneAfterReads >= 0 && reads >= doneAfterReads); }

    CallLog& m_log;
    std::vector<unsigned char> m_data;
    std::deque<unsigned long> m_chunks;
    std::size_t m_position = 0;
};

/// Takes at most `limits.front()` bytes per write while limits remain (0 = refuse), then all.
/// `kOverclaim` takes everything and claims (unsigned long)-1, as a standard stream that failed
/// midway does. Done once `doneAfterBytes` bytes were taken, when set.
class ScriptedOutput : public OutputStream {
public:
    static constexpr unsigned long kOverclaim = ~0ul;

    ScriptedOutput(CallLog& log, std::deque<unsigned long> limits = {}) : m_log(log), m_limits(std::move(limits)) {}

    long doneAfterBytes = -1;
    std::vector<unsigned char> taken;
    long writes = 0;

    unsigned long write(unsigned char const* data, unsigned long size) override {
        unsigned long n = size, claimed = size;
        if (!m_limits.empty()) {
            claimed = m_limits.front();
            n = claimed == kOverclaim ? size : (claimed = std::min(size, claimed));
            m_limits.pop_front();
        }
        taken.insert(taken.end(), data, data + n);
        ++writes;
        m_log.push_back("out.write " + std::to_string(size) + " -> " + std::to_string(claimed));
        return claimed;
    }
    bool isDone() const override {
        bool const d = doneAfterBytes >= 0 && taken.size() >= static_cast<std::size_t>(doneAfterBytes);
        m_log.push_back(d ? "out.isDone -> true" : "out.isDone -> false");
        return d;
    }
    void flush() override { m_log.push_back("out.flush"); }
    void close() override { m_log.push_back("out.close"); }

private:
    CallLog& m_log;
    std::deque<unsigned long> m_limits;
};

} // namespace opc::test
