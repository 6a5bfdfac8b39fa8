#pragma once

// Scriptable InputStream/OutputStream doubles for the stream tests. Both write every call they
// receive, with its result, into one shared log so a test can check the exact order of calls.

#include <opc/Streams.hpp>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

namespace opc::test {

/// One call received by a double: "in.read 16384 -> 5", "out.isDone -> false", ...
using CallLog = std::vector<std::string>;

inline std::string boolText(bool b) { return b ? "true" : "false"; }

/// Delivers `data` in the chunk sizes of `chunks` (0 = nothing now), then whatever is left in
/// whole requests. Reports done once all data went out, or after `doneAfterReads` reads when
/// that is set (done early, with data left over).
class ScriptedInput : public InputStream {
public:
    ScriptedInput(CallLog& log, std::vector<unsigned char> data, std::deque<unsigned long> chunks = {})
        : m_log(log), m_data(std::move(data)), m_chunks(std::move(chunks)) {}

    long doneAfterReads = -1;
    long reads = 0;
    long zeroReadsNotDone = 0; // reads that returned 0 while not done afterwards

    void open() override { m_log.push_back("in.open"); }

    unsigned long read(unsigned char* buffer, unsigned long size) override {
        unsigned long n = std::min<unsigned long>(size, m_data.size() - m_position);
        if (!m_chunks.empty()) {
            n = std::min(n, m_chunks.front());
            m_chunks.pop_front();
        }
        if (n != 0) {
            std::memcpy(buffer, m_data.data() + m_position, n);
        }
        m_position += n;
        ++reads;
        m_log.push_back("in.read " + std::to_string(size) + " -> " + std::to_string(n));
        if (n == 0 && !done()) {
            ++zeroReadsNotDone;
        }
        return n;
    }

    bool isDone() const override {
        bool const d = done();
        m_log.push_back("in.isDone -> " + boolText(d));
        return d;
    }

    void close() override { m_log.push_back("in.close"); }

    std::size_t position() const { return m_position; }

private:
    bool done() const {
        return m_position >= m_data.size() || (doneAfterReads >= 0 && reads >= doneAfterReads);
    }

    CallLog& m_log;
    std::vector<unsigned char> m_data;
    std::deque<unsigned long> m_chunks;
    std::size_t m_position = 0;
};

/// Takes at most `limits.front()` bytes per write while limits remain (0 = refuse), then all.
/// A limit of `kOverclaim` takes everything and claims (unsigned long)-1, like a standard
/// stream that failed midway. Reports done once `doneAfterBytes` bytes were taken, when set.
class ScriptedOutput : public OutputStream {
public:
    static constexpr unsigned long kOverclaim = ~0ul;

    ScriptedOutput(CallLog& log, std::deque<unsigned long> limits = {}) : m_log(log), m_limits(std::move(limits)) {}

    long doneAfterBytes = -1;
    std::vector<unsigned char> taken;
    long writes = 0;

    unsigned long write(unsigned char const* data, unsigned long size) override {
        unsigned long n = size;
        unsigned long claimed = size;
        if (!m_limits.empty()) {
            if (m_limits.front() != kOverclaim) {
                n = claimed = std::min(size, m_limits.front());
            } else {
                claimed = kOverclaim;
            }
            m_limits.pop_front();
        }
        taken.insert(taken.end(), data, data + n);
        ++writes;
        m_log.push_back("out.write " + std::to_string(size) + " -> " + std::to_string(claimed));
        return claimed;
    }

    bool isDone() const override {
        bool const d = doneAfterBytes >= 0 && taken.size() >= static_cast<std::size_t>(doneAfterBytes);
        m_log.push_back("out.isDone -> " + boolText(d));
        return d;
    }

    void flush() override { m_log.push_back("out.flush"); }
    void close() override { m_log.push_back("out.close"); }

private:
    CallLog& m_log;
    std::deque<unsigned long> m_limits;
};

} // namespace opc::test
